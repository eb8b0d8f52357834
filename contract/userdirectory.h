// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1StringView>

/** The server's files, by their paths below the user path. */
namespace UserFile {
inline constexpr QLatin1StringView kServerLog("server_log");
inline constexpr QLatin1StringView kServerPid("server_pid");
inline constexpr QLatin1StringView kServerPort("server_port");   ///< the TCP port, as a decimal number
inline constexpr QLatin1StringView kServerPeers("server_peers"); ///< which peer has reported which session
inline constexpr QLatin1StringView kSessions("sessions");        ///< a directory for each session
// One level up, because all hosts that share the home directory share the pair.
inline constexpr QLatin1StringView kCertificate("../server_cert");
inline constexpr QLatin1StringView kPrivateKey("../server_key");
} // namespace UserFile
