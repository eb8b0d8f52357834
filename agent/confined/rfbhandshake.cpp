// SPDX-License-Identifier: MIT
#include "agent/confined/rfbhandshake.h"

#include "agent/confined/doorpackets.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <string_view>
#include <utility>

namespace {

constexpr std::size_t kVersionBytes = 12;
constexpr std::size_t kTypeBytes = 4;

constexpr char kNoAuthentication = 1;
constexpr char kVncAuthentication = 2;
constexpr char kVeNCrypt = 19;
constexpr std::string_view kVeNCryptVersion("\0\2", 2);
constexpr std::uint32_t kX509Vnc = 261;

std::string number32(std::uint32_t value)
{
    std::string bytes;
    for (const int shift : {24, 16, 8, 0}) {
        bytes += static_cast<char>(value >> shift & 0xff);
    }
    return bytes;
}

std::string reasonText(const std::string &reason)
{
    return number32(static_cast<std::uint32_t>(reason.size())) + reason;
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

/**
 * Whether @p text is the beginning of "RFB ddd.ddd\n". Checked at each byte, so that a client of another protocol is
 * dropped at once and not after a timeout.
 */
bool beginsLikeVersion(std::string_view text)
{
    constexpr std::string_view kForm = "RFB 000.000\n";
    for (std::size_t i = 0; i < std::min(text.size(), kVersionBytes); ++i) {
        const bool fits = kForm[i] == '0' ? isDigit(text[i]) : text[i] == kForm[i];
        if (!fits) {
            return false;
        }
    }
    return true;
}

/** The number in the three digits of @p version that begin at @p position. */
int numberAt(const std::string &version, std::size_t position)
{
    return (version[position] - '0') * 100 + (version[position + 1] - '0') * 10 + (version[position + 2] - '0');
}

/**
 * The version to speak with a client that sends 3.@p minor. Some clients send a number between the published versions,
 * and mean the older one. For a newer number we speak 3.8.
 */
int spokenMinor(int minor)
{
    if (minor >= 8) {
        return 8;
    }
    return minor == 7 ? 7 : 3;
}

} // namespace

RfbHandshake::RfbHandshake(RfbOffer offer_)
    : offer(std::move(offer_))
{
}

void RfbHandshake::receive(std::string *input)
{
    while (step(input)) {
    }
}

std::size_t RfbHandshake::wantedBytes() const
{
    switch (current) {
    case State::Version:
        return kVersionBytes;
    case State::SecurityType:
        return 1;
    case State::VeNCryptVersion:
        return kVeNCryptVersion.size();
    case State::VeNCryptType:
        return kTypeBytes;
    case State::Response:
        return kChallengeBytes;
    case State::StartTls:
    case State::Judgement:
    case State::Accepted:
    case State::Refused:
        break;
    }
    return 0;
}

std::string RfbHandshake::output()
{
    return std::exchange(pendingOutput, {});
}

bool RfbHandshake::step(std::string *input)
{
    if (current == State::Version && !beginsLikeVersion(*input)) {
        current = State::Refused;
        return false;
    }
    const std::size_t wanted = wantedBytes();
    if (wanted == 0 || input->size() < wanted) {
        return false;
    }
    const std::string bytes = input->substr(0, wanted);
    input->erase(0, wanted);
    switch (current) {
    case State::Version:
        receiveVersion(bytes);
        break;
    case State::SecurityType:
        receiveSecurityType(bytes.front());
        break;
    case State::VeNCryptVersion:
        receiveVeNCryptVersion(bytes);
        break;
    case State::VeNCryptType:
        receiveVeNCryptType(bytes);
        break;
    default:
        receivedResponse = bytes;
        current = State::Judgement;
    }
    return true;
}

void RfbHandshake::receiveVersion(const std::string &version)
{
    minorVersion = spokenMinor(numberAt(version, 8));
    if (numberAt(version, 4) != 3) {
        refuseVersion("This version of the protocol is not supported");
    } else if (offer.turnsAway || (!offer.tls && !offer.plain && !offer.none)) {
        isOtherType = !offer.turnsAway;
        refuseVersion(offer.reason);
    } else {
        sendSecurityTypes();
    }
}

void RfbHandshake::sendSecurityTypes()
{
    if (minorVersion == 3) {
        chooseType();
        return;
    }
    std::string types;
    if (offer.tls) {
        types += kVeNCrypt;
    }
    if (offer.plain) {
        types += kVncAuthentication;
    }
    if (offer.none) {
        types += kNoAuthentication;
    }
    pendingOutput += static_cast<char>(types.size());
    pendingOutput += types;
    current = State::SecurityType;
}

/** Version 3.3 knows no VeNCrypt and leaves no choice to the client. */
void RfbHandshake::chooseType()
{
    if (offer.plain) {
        pendingOutput += number32(kVncAuthentication);
        sendChallenge();
    } else if (offer.none) {
        pendingOutput += number32(kNoAuthentication);
        current = State::Accepted;
    } else {
        isOtherType = true;
        refuseVersion(offer.reason);
    }
}

void RfbHandshake::refuseVersion(const std::string &reason)
{
    // Zero instead of a security type, or of their number, announces a reason.
    pendingOutput += minorVersion == 3 ? number32(0) : std::string(1, '\0');
    pendingOutput += reasonText(reason);
    current = State::Refused;
}

void RfbHandshake::receiveSecurityType(char type)
{
    if (type == kVeNCrypt && offer.tls) {
        pendingOutput += kVeNCryptVersion;
        current = State::VeNCryptVersion;
    } else if (type == kVncAuthentication && offer.plain) {
        sendChallenge();
    } else if (type == kNoAuthentication && offer.none) {
        acceptWithoutPassword();
    } else {
        refuseType();
    }
}

void RfbHandshake::refuseType()
{
    isOtherType = true;
    if (minorVersion == 8) {
        refuse(offer.reason.empty() ? "This security type was not offered" : offer.reason);
    } else {
        current = State::Refused; // version 3.7 has no message for it
    }
}

void RfbHandshake::acceptWithoutPassword()
{
    if (minorVersion == 8) {
        pendingOutput += number32(0); // the older ones have no result without authentication
    }
    current = State::Accepted;
}

void RfbHandshake::receiveVeNCryptVersion(const std::string &version)
{
    constexpr char kUnderstood = 0;
    constexpr char kUnsupported = 1;
    if (version != kVeNCryptVersion) {
        pendingOutput += kUnsupported;
        current = State::Refused;
        return;
    }
    pendingOutput += kUnderstood;
    pendingOutput += '\1'; // how many types follow
    pendingOutput += number32(kX509Vnc);
    current = State::VeNCryptType;
}

void RfbHandshake::receiveVeNCryptType(const std::string &type)
{
    constexpr char kAccepted = 1;
    constexpr char kRefused = 0;
    if (type != number32(kX509Vnc)) {
        isOtherType = true;
        pendingOutput += kRefused;
        current = State::Refused;
        return;
    }
    pendingOutput += kAccepted;
    isTls = true;
    current = State::StartTls;
}

void RfbHandshake::tlsStarted()
{
    assert(current == State::StartTls);
    sendChallenge();
}

void RfbHandshake::sendChallenge()
{
    pendingOutput += offer.challenge;
    current = State::Response;
}

void RfbHandshake::accept()
{
    assert(current == State::Judgement);
    pendingOutput += number32(0);
    current = State::Accepted;
}

void RfbHandshake::refuse(const std::string &reason)
{
    constexpr std::uint32_t kFailed = 1;
    pendingOutput += number32(kFailed);
    if (minorVersion == 8) {
        pendingOutput += reasonText(reason);
    }
    current = State::Refused;
}
