// Links and balance of a red-black tree; what is stored in it and in which order is its user's.
#pragma once

// What every tree node begins with.
struct sutl_TRBTree_node {
    enum Colour : unsigned long { RED = 0, BLACK = 1 };
    enum Side : int { SMALLER = 0, GREATER = 1 };

    sutl_TRBTree_node* child[2];  // by Side; the null node where there is none
    sutl_TRBTree_node* parent;    // null at the root
    Colour colour;
};

// Every path of every tree ends at one shared black node, which nullNode points to and which is never written. Nodes
// are allocated by the user, keep their address, and are not freed by the tree. It does not lock.
class sutl_TRBTree_base {
 public:
    static sutl_TRBTree_node* const nullNode;

    sutl_TRBTree_base() = default;
    sutl_TRBTree_base(sutl_TRBTree_base const&) = delete;
    sutl_TRBTree_base& operator=(sutl_TRBTree_base const&) = delete;

    [[nodiscard]] sutl_TRBTree_node* Root() const { return root_; }

    // Links the node below parent, on the side where a search for it ended (any side of a null parent: the tree's first
    // node), and rebalances.
    void Link(sutl_TRBTree_node* node, sutl_TRBTree_node* parent, sutl_TRBTree_node::Side side);

    // In-order walk; the null node ends it.
    [[nodiscard]] sutl_TRBTree_node* First() const;
    [[nodiscard]] static sutl_TRBTree_node* Next(sutl_TRBTree_node* node);

 private:
    void Rotate(sutl_TRBTree_node* top, sutl_TRBTree_node::Side down);

    sutl_TRBTree_node* root_ = nullNode;
};
