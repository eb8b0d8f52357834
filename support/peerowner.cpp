// SPDX-License-Identifier: MIT
#include "support/peerowner.h"

#include <array>
#include <cstdint>
#include <cstring>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/** An end of a TCP connection. An IPv4 address that is written as an IPv6 one is kept as IPv4. */
struct End
{
    int family = AF_UNSPEC;
    in_port_t port = 0; ///< in network order
    std::array<__be32, 4> address = {};
    std::uint32_t interface = 0; ///< of a link-local address
};

End endFromAddress(const sockaddr_storage &storage)
{
    End end;
    if (storage.ss_family == AF_INET) {
        sockaddr_in address = {};
        std::memcpy(&address, &storage, sizeof address);
        end.family = AF_INET;
        end.port = address.sin_port;
        end.address[0] = address.sin_addr.s_addr;
    } else if (storage.ss_family == AF_INET6) {
        sockaddr_in6 address = {};
        std::memcpy(&address, &storage, sizeof address);
        end.port = address.sin6_port;
        end.interface = address.sin6_scope_id;
        const bool isMapped = IN6_IS_ADDR_V4MAPPED(&address.sin6_addr);
        end.family = isMapped ? AF_INET : AF_INET6;
        const unsigned char *const bytes = address.sin6_addr.s6_addr;
        std::memcpy(end.address.data(), isMapped ? bytes + 12 : bytes, isMapped ? 4 : 16);
    }
    return end;
}

using NameFunction = int (*)(int, sockaddr *, socklen_t *);

std::optional<End> endOf(int descriptor, NameFunction name)
{
    sockaddr_storage storage = {};
    socklen_t size = sizeof storage;
    if (name(descriptor, reinterpret_cast<sockaddr *>(&storage), &size) != 0) {
        return std::nullopt;
    }
    const End end = endFromAddress(storage);
    return end.family == AF_UNSPEC ? std::nullopt : std::optional(end);
}

bool isLoopback(const End &end)
{
    if (end.family == AF_INET) {
        return (ntohl(end.address[0]) >> 24) == IN_LOOPBACKNET;
    }
    in6_addr address = {};
    std::memcpy(&address, end.address.data(), sizeof address);
    return IN6_IS_ADDR_LOOPBACK(&address);
}

/** Whether an interface of this host has the address. */
bool isOurAddress(const End &end)
{
    ifaddrs *all = nullptr;
    if (::getifaddrs(&all) != 0) {
        return false;
    }
    bool isOurs = false;
    for (const ifaddrs *entry = all; entry != nullptr && !isOurs; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != end.family) {
            continue;
        }
        sockaddr_storage storage = {};
        std::memcpy(&storage, entry->ifa_addr, end.family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
        isOurs = endFromAddress(storage).address == end.address;
    }
    ::freeifaddrs(all);
    return isOurs;
}

struct Question
{
    nlmsghdr header;
    inet_diag_req_v2 body;
};

/** Asks for the one socket whose own end is @p own and whose other end is @p other. */
Question questionFor(const End &own, const End &other)
{
    Question question = {};
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST;
    question.body.sdiag_family = static_cast<__u8>(own.family);
    question.body.sdiag_protocol = IPPROTO_TCP;
    question.body.id.idiag_sport = own.port;
    question.body.id.idiag_dport = other.port;
    std::memcpy(question.body.id.idiag_src, own.address.data(), sizeof question.body.id.idiag_src);
    std::memcpy(question.body.id.idiag_dst, other.address.data(), sizeof question.body.id.idiag_dst);
    question.body.id.idiag_if = own.interface;
    question.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    question.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return question;
}

/** Closed: no process has the socket open any more, so it has no owner. */
enum class Found { No, Closed, Yes };

/** @param owner  who has the socket @p own of the connection to @p other open; set only for Yes */
Found findOwner(const End &own, const End &other, uid_t *owner)
{
    const int netlink = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (netlink == -1) {
        return Found::No;
    }
    const Question question = questionFor(own, other);
    alignas(nlmsghdr) std::array<char, 1024> answer = {};
    ssize_t length = -1;
    if (::send(netlink, &question, sizeof question, 0) == ssize_t{sizeof question}) {
        length = ::recv(netlink, answer.data(), answer.size(), 0); // the kernel has answered during send()
    }
    ::close(netlink);
    nlmsghdr header = {};
    inet_diag_msg found = {};
    if (length < static_cast<ssize_t>(NLMSG_LENGTH(sizeof found))) {
        return Found::No;
    }
    std::memcpy(&header, answer.data(), sizeof header);
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) {
        return Found::No;
    }
    std::memcpy(&found, answer.data() + NLMSG_HDRLEN, sizeof found);
    // The kernel falls back to a listener of that port, which is not the socket of this connection.
    if (found.id.idiag_dport != other.port) {
        return Found::No;
    }
    if (found.idiag_inode == 0) {
        // The kernel reports the user 0 here, which must not be taken for root.
        return Found::Closed;
    }
    *owner = found.idiag_uid;
    return Found::Yes;
}

} // namespace

bool isTrustedUser(uid_t user)
{
    return user == ::geteuid() || user == 0;
}

std::optional<uid_t> localPeerOwner(int descriptor)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    sockaddr_storage address = {};
    socklen_t addressSize = sizeof address;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr *>(&address), &addressSize) != 0 ||
        address.ss_family != AF_UNIX || ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return std::nullopt;
    }
    constexpr uid_t kNotConnected = static_cast<uid_t>(-1);
    return peer.uid == kNotConnected ? std::nullopt : std::optional(peer.uid);
}

bool isLocalPeerTrusted(int descriptor)
{
    const std::optional<uid_t> owner = localPeerOwner(descriptor);
    return owner && isTrustedUser(*owner);
}

TcpPeer findTcpPeer(int descriptor)
{
    const std::optional<End> here = endOf(descriptor, ::getsockname);
    const std::optional<End> there = endOf(descriptor, ::getpeername);
    if (!here || !there) {
        return TcpPeer::OtherUser;
    }
    uid_t owner = 0;
    switch (findOwner(*there, *here, &owner)) {
    case Found::Yes:
        return isTrustedUser(owner) ? TcpPeer::Ours : TcpPeer::OtherUser;
    case Found::Closed:
        return TcpPeer::OtherUser;
    case Found::No:
        break;
    }
    // A socket that is bound to a device is not found. So an address of this host counts, too.
    return isLoopback(*there) || isOurAddress(*there) ? TcpPeer::OtherUser : TcpPeer::OtherHost;
}
