// SPDX-License-Identifier: MIT
#include "agent/door/rfbhandshake.h"

#include "agent/door/vncauth.h"

#include <QtEndian>

#include <utility>

namespace {

constexpr char kOurVersion[] = "RFB 003.008\n";
constexpr qsizetype kVersionBytes = 12;
constexpr char kVncAuthentication = 2;

QByteArray number32(quint32 value)
{
    QByteArray bytes(sizeof value, Qt::Uninitialized);
    qToBigEndian(value, bytes.data());
    return bytes;
}

QByteArray reasonText(const QByteArray &reason)
{
    return number32(static_cast<quint32>(reason.size())) + reason;
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

/**
 * Whether @p text is the beginning of "RFB ddd.ddd\n". Checked at each byte, so that a client of another protocol is
 * dropped at once and not after a timeout.
 */
bool beginsLikeVersion(const QByteArray &text)
{
    constexpr char kForm[] = "RFB 000.000\n";
    for (qsizetype i = 0; i < qMin(text.size(), kVersionBytes); ++i) {
        const bool fits = kForm[i] == '0' ? isDigit(text[i]) : text[i] == kForm[i];
        if (!fits) {
            return false;
        }
    }
    return true;
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

RfbHandshake::RfbHandshake(QByteArray challenge)
    : sentChallenge(std::move(challenge))
    , pendingOutput(kOurVersion, kVersionBytes)
{
}

void RfbHandshake::receive(QByteArray *input)
{
    while (step(input)) {
    }
}

QByteArray RfbHandshake::output()
{
    return std::exchange(pendingOutput, {});
}

bool RfbHandshake::step(QByteArray *input)
{
    switch (current) {
    case State::Version:
        return receiveVersion(input);
    case State::SecurityType:
        return receiveSecurityType(input);
    case State::Response:
        return receiveResponse(input);
    case State::Judgement:
    case State::Accepted:
    case State::Refused:
        break;
    }
    return false;
}

bool RfbHandshake::receiveVersion(QByteArray *input)
{
    if (!beginsLikeVersion(*input)) {
        current = State::Refused;
        return false;
    }
    if (input->size() < kVersionBytes) {
        return false;
    }
    const int major = input->mid(4, 3).toInt();
    const int minor = input->mid(8, 3).toInt();
    input->remove(0, kVersionBytes);
    minorVersion = spokenMinor(minor);
    if (major != 3) {
        refuseVersion("This version of the protocol is not supported");
    } else if (!turnAwayReason.isEmpty()) {
        refuseVersion(turnAwayReason);
    } else {
        sendSecurityTypes();
    }
    return true;
}

void RfbHandshake::sendSecurityTypes()
{
    if (minorVersion == 3) {
        pendingOutput += number32(kVncAuthentication);
        sendChallenge();
        return;
    }
    constexpr char kHowMany = 1;
    pendingOutput += kHowMany;
    pendingOutput += kVncAuthentication;
    current = State::SecurityType;
}

void RfbHandshake::refuseVersion(const QByteArray &reason)
{
    // Zero instead of a security type, or of their number, announces a reason.
    pendingOutput += minorVersion == 3 ? number32(0) : QByteArray(1, '\0');
    pendingOutput += reasonText(reason);
    current = State::Refused;
}

bool RfbHandshake::receiveSecurityType(QByteArray *input)
{
    if (input->isEmpty()) {
        return false;
    }
    const char type = input->front();
    input->remove(0, 1);
    if (type == kVncAuthentication) {
        sendChallenge();
    } else if (minorVersion == 8) {
        refuse("This security type was not offered");
    } else {
        current = State::Refused; // version 3.7 has no message for it
    }
    return true;
}

bool RfbHandshake::receiveResponse(QByteArray *input)
{
    if (input->size() < kVncChallengeBytes) {
        return false;
    }
    receivedResponse = input->first(kVncChallengeBytes);
    input->remove(0, kVncChallengeBytes);
    current = State::Judgement;
    return true;
}

void RfbHandshake::sendChallenge()
{
    pendingOutput += sentChallenge;
    current = State::Response;
}

void RfbHandshake::accept()
{
    Q_ASSERT(current == State::Judgement);
    pendingOutput += number32(0);
    current = State::Accepted;
}

void RfbHandshake::refuse(const QByteArray &reason)
{
    constexpr quint32 kFailed = 1;
    pendingOutput += number32(kFailed);
    if (minorVersion == 8) {
        pendingOutput += reasonText(reason);
    }
    current = State::Refused;
}
