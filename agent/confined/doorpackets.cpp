// SPDX-License-Identifier: MIT
#include "agent/confined/doorpackets.h"

#include <cstring>

namespace {

constexpr std::size_t kIdBytes = sizeof(std::uint32_t);
constexpr std::size_t kHeaderBytes = 1 + kIdBytes + 1;

enum Flag : unsigned char { kOffersTls = 1, kOffersPlain = 2, kTurnsAway = 4 };

// Both ends run on the same machine, so the order of bytes does not matter.
void appendId(std::uint32_t id, std::string *packet)
{
    packet->append(reinterpret_cast<const char *>(&id), kIdBytes);
}

std::uint32_t idIn(std::string_view packet)
{
    std::uint32_t id = 0;
    std::memcpy(&id, packet.data() + 1, kIdBytes);
    return id;
}

} // namespace

std::string VisitorOrder::toPacket() const
{
    std::string packet(1, DoorPacket::kVisitor);
    appendId(id, &packet);
    packet += static_cast<char>((offersTls ? kOffersTls : 0) | (offersPlain ? kOffersPlain : 0) |
                                (turnsAway ? kTurnsAway : 0));
    return packet + challenge + reason;
}

std::optional<VisitorOrder> VisitorOrder::fromPacket(std::string_view packet)
{
    if (packet.size() < kHeaderBytes + kChallengeBytes || packet.front() != DoorPacket::kVisitor) {
        return std::nullopt;
    }
    const char flags = packet[kHeaderBytes - 1];
    VisitorOrder order;
    order.id = idIn(packet);
    order.offersTls = (flags & kOffersTls) != 0;
    order.offersPlain = (flags & kOffersPlain) != 0;
    order.turnsAway = (flags & kTurnsAway) != 0;
    order.challenge = packet.substr(kHeaderBytes, kChallengeBytes);
    order.reason = packet.substr(kHeaderBytes + kChallengeBytes);
    return order;
}

std::string endPacket(std::uint32_t id)
{
    std::string packet(1, DoorPacket::kEnd);
    appendId(id, &packet);
    return packet;
}

std::optional<std::uint32_t> idToEnd(std::string_view packet)
{
    if (packet.size() != 1 + kIdBytes || packet.front() != DoorPacket::kEnd) {
        return std::nullopt;
    }
    return idIn(packet);
}
