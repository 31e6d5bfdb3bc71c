#include "sutl_trbtree.h"

using Node = sutl_TRBTree_node;

namespace {

constinit Node sutl_sentinel{{&sutl_sentinel, &sutl_sentinel}, nullptr, Node::BLACK};

Node::Side Other(Node::Side side) { return side == Node::SMALLER ? Node::GREATER : Node::SMALLER; }
Node::Side SideOf(Node const* node) {
    return node->parent->child[Node::GREATER] == node ? Node::GREATER : Node::SMALLER;
}

}  // namespace

constinit Node* const sutl_TRBTree_base::nullNode = &sutl_sentinel;

// Moves top down to the given side; its child of the other side takes its place.
void sutl_TRBTree_base::Rotate(Node* top, Node::Side down) {
    Node::Side const up = Other(down);
    Node* const riser = top->child[up];
    top->child[up] = riser->child[down];
    if (riser->child[down] != nullNode) riser->child[down]->parent = top;
    riser->parent = top->parent;
    if (top->parent == nullptr) {
        root_ = riser;
    } else {
        top->parent->child[SideOf(top)] = riser;
    }
    riser->child[down] = top;
    top->parent = riser;
}

void sutl_TRBTree_base::Link(Node* node, Node* parent, Node::Side side) {
    node->child[Node::SMALLER] = nullNode;
    node->child[Node::GREATER] = nullNode;
    node->parent = parent;
    node->colour = Node::RED;
    if (parent == nullptr) {
        root_ = node;
    } else {
        parent->child[side] = node;
    }
    // A red node must not have a red parent: push the fault upwards until a rotation or the root ends it.
    while (node->parent != nullptr && node->parent->colour == Node::RED) {
        Node* above = node->parent;
        Node* const top = above->parent;  // exists: a red node is not the root
        Node::Side const aboveSide = SideOf(above);
        Node* const uncle = top->child[Other(aboveSide)];
        if (uncle->colour == Node::RED) {
            above->colour = Node::BLACK;
            uncle->colour = Node::BLACK;
            top->colour = Node::RED;
            node = top;
            continue;
        }
        if (SideOf(node) != aboveSide) {
            Rotate(above, aboveSide);
            node = above;
            above = node->parent;
        }
        above->colour = Node::BLACK;
        top->colour = Node::RED;
        Rotate(top, Other(aboveSide));
    }
    root_->colour = Node::BLACK;
}

Node* sutl_TRBTree_base::First() const {
    Node* node = root_;
    while (node->child[Node::SMALLER] != nullNode) node = node->child[Node::SMALLER];
    return node;
}

Node* sutl_TRBTree_base::Next(Node* node) {
    if (node->child[Node::GREATER] != nullNode) {
        node = node->child[Node::GREATER];
        while (node->child[Node::SMALLER] != nullNode) node = node->child[Node::SMALLER];
        return node;
    }
    while (node->parent != nullptr && SideOf(node) == Node::GREATER) node = node->parent;
    return node->parent != nullptr ? node->parent : nullNode;
}
