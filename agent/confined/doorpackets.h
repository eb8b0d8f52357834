// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/*
 * What the agent and the confined processes tell each other. A confined process may be in the hands of an attacker, so
 * the agent believes nothing that it says: it answers one request for a signature and one response, and no more.
 */

/** The first byte of each packet. */
namespace DoorPacket {
// From the agent to the servant.
inline constexpr char kCertificate = 'C'; ///< the certificate in PEM form that visitors see from now on
inline constexpr char kVisitor = 'V';     ///< a VisitorOrder; with the visitor's socket and a control socket
inline constexpr char kEnd = 'E';         ///< the id of a visitor whose process must end now
// From the servant to the agent, once.
inline constexpr char kConfined = 'K'; ///< a byte of ConfinementFlag
// From a visitor's process to the agent, over its control socket.
inline constexpr char kSign = 'S';     ///< a HandshakeSignature
inline constexpr char kResponse = 'R'; ///< the 16 bytes with which the visitor answered the challenge
inline constexpr char kInside = 'I';   ///< the visitor has been told that it is accepted; and kOverTls or kOverTcp
inline constexpr char kRefused = 'F';  ///< the visitor has been refused: a RefusalCause
// From the agent to a visitor's process.
inline constexpr char kSignature = 's'; ///< the signature; empty: none is given
inline constexpr char kAccept = 'a';
inline constexpr char kRefuse = 'r';  ///< the reason
inline constexpr char kBackend = 'b'; ///< with the socket of the X server, after kInside over TLS
// The second byte of kInside.
inline constexpr char kOverTls = '1'; ///< the process stays and copies the bytes
inline constexpr char kOverTcp = '0'; ///< the process ends
} // namespace DoorPacket

/** What the kernel could confine. */
enum ConfinementFlag : unsigned char {
    kCallsAreFiltered = 1,
    kFilesAreHidden = 2,
};

/** Why a visitor's process has refused the visitor. */
enum class RefusalCause : char {
    TurnedAway = 'A',
    NotOurProtocol = 'P',
    NothingFits = 'N', ///< the visitor chose a security type that was not offered
    TlsFailed = 'T',
    WrongPassword = 'W',
};

inline constexpr std::size_t kChallengeBytes = 16;

/** How to receive one visitor. A value. */
struct VisitorOrder
{
    std::uint32_t id = 0;
    bool offersTls = false;
    bool offersPlain = false;
    bool turnsAway = false; ///< the visitor is told the reason and gets no offer
    std::string challenge;  ///< kChallengeBytes
    std::string reason;     ///< for a visitor that is turned away, or that wants what is not offered; may be empty

    /** The packet kVisitor. */
    [[nodiscard]] std::string toPacket() const;
    /** Nothing if @p packet is no such packet. */
    [[nodiscard]] static std::optional<VisitorOrder> fromPacket(std::string_view packet);
};

[[nodiscard]] std::string endPacket(std::uint32_t id);
/** Nothing if @p packet is no packet kEnd. */
[[nodiscard]] std::optional<std::uint32_t> idToEnd(std::string_view packet);
