#include "socket_view.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "process_sockets.h"
#include "sutl_descriptor.h"

namespace {

struct Question {
    nlmsghdr head;
    inet_diag_req_v2 body;
};

bool Ask(sutl_Descriptor const& kernel) {
    Question question = {};
    question.head.nlmsg_len = sizeof question;
    question.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    question.body.sdiag_family = AF_INET;
    question.body.sdiag_protocol = IPPROTO_TCP;
    question.body.idiag_ext = 1 << (INET_DIAG_INFO - 1);
    question.body.idiag_states = 1U << SOCKET_ESTABLISHED | 1U << SOCKET_CLOSE_WAIT | 1U << SOCKET_LISTENS;
    timeval const patience = {1, 0};
    setsockopt(kernel.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return send(kernel.Get(), &question, sizeof question, 0) == sizeof question;
}

tcp_info InfoOf(nlmsghdr const* message) {
    tcp_info info = {};
    auto const* const socket = static_cast<inet_diag_msg const*>(NLMSG_DATA(message));
    auto left = static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(sizeof *socket));
    auto const* attribute = reinterpret_cast<rtattr const*>(socket + 1);
    for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
        if (attribute->rta_type != INET_DIAG_INFO) continue;
        // An older kernel tells less.
        memcpy(&info, RTA_DATA(attribute), std::min<std::size_t>(RTA_PAYLOAD(attribute), sizeof info));
    }
    return info;
}

void Take(nlmsghdr const* message, ServerProcess const& server, std::set<unsigned int> const& own, SocketView& view) {
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) return;
    auto const* const socket = static_cast<inet_diag_msg const*>(NLMSG_DATA(message));
    if (!own.empty() && own.count(socket->idiag_inode) == 0) return;
    unsigned short const here = ntohs(socket->id.idiag_sport);
    unsigned short const there = ntohs(socket->id.idiag_dport);
    if (socket->idiag_state == SOCKET_LISTENS) {
        view.listens = view.listens || here == server.dataPort;
    } else if (here == server.dataPort && socket->idiag_inode != 0) {
        view.hasProducer = true;
        view.receivedBytes = static_cast<long>(InfoOf(message).tcpi_bytes_received);
        view.unreadBytes = socket->idiag_rqueue;
    } else if (there == server.shipPort && here != server.dataPort) {
        view.hasConsumer = true;
        view.shippedBytes = static_cast<long>(InfoOf(message).tcpi_bytes_acked);
        view.unsentBytes = socket->idiag_wqueue;
    }
}

}  // namespace

SocketView ReadSockets(ServerProcess const& server) {
    SocketView view;
    sutl_Descriptor const kernel(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (server.dataPort == 0 || !kernel.IsOpen() || !Ask(kernel)) return view;
    std::set<unsigned int> const own = SocketsOf(server.pid);
    alignas(nlmsghdr) char answer[32768];
    for (;;) {
        ssize_t const got = recv(kernel.Get(), answer, sizeof answer, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return {};
        auto left = static_cast<unsigned int>(got);
        auto const* message = reinterpret_cast<nlmsghdr const*>(answer);
        for (; NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
            if (message->nlmsg_type == NLMSG_ERROR) return {};
            if (message->nlmsg_type == NLMSG_DONE) {
                view.known = true;
                return view;
            }
            Take(message, server, own, view);
        }
    }
}
