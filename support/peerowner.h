// SPDX-License-Identifier: MIT
#pragma once

#include <optional>

#include <sys/types.h>

/*
 * Who is at the other end of a connection of this host. Others may take the name or the port that we connect to, and
 * may connect to ours, so the kernel is asked. Callable from any thread; never waits.
 */

/** Whether a process of this user may be trusted: it is our own or root's, and root can do everything anyway. */
[[nodiscard]] bool isTrustedUser(uid_t user);

/**
 * The user at the other end of a connected local socket: who listened there, or who connected. Nothing if @p descriptor
 * is no such socket.
 */
[[nodiscard]] std::optional<uid_t> localPeerOwner(int descriptor);

/** Whether the process at the other end of a connected local socket is ours or root's. */
[[nodiscard]] bool isLocalPeerTrusted(int descriptor);

/** Where the other end of a TCP connection is. */
enum class TcpPeer {
    Ours,      ///< a process of this user, or of root, on this host
    OtherUser, ///< a process of another user on this host, or one that cannot be found any more
    OtherHost, ///< not on this host
};

/**
 * Looks the other end of a connected TCP socket up in the kernel's table of sockets. A connection over loopback whose
 * other end is not found counts as OtherUser: its process has closed it already, and nobody can say whose it was.
 */
[[nodiscard]] TcpPeer findTcpPeer(int descriptor);
