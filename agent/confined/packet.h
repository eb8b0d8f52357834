// SPDX-License-Identifier: MIT
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/*
 * Packets over a pair of SOCK_SEQPACKET sockets. The first byte of a packet says what it is.
 */

/** The longest packet. A certificate is the longest content. */
inline constexpr std::size_t kMaxPacketBytes = 16 * 1024;

/** Sends one packet, with copies of @p descriptors. @return false when the other end is gone, or takes no more */
[[nodiscard]] bool sendPacket(int socket, std::string_view packet, std::initializer_list<int> descriptors = {});

/**
 * Receives one packet; waits for it if the socket is blocking.
 *
 * @param descriptors  gets the descriptors that came with it, which the caller owns and which are close-on-exec; if it
 *                     is null, those that come are closed
 * @return nothing at the end of the connection (errno is 0 then), after an error, and when there is no packet yet
 */
[[nodiscard]] std::optional<std::string> receivePacket(int socket, std::vector<int> *descriptors = nullptr);
