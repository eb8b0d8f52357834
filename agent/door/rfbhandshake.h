// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/**
 * The server's side of an RFB handshake up to and including authentication, as bytes in and bytes out, without sockets
 * and timers. Speaks 3.3, 3.7 and 3.8, and offers VNC authentication only. To use it, call output() once, then
 * receive() and output() in turn until the state is Judgement, Accepted or Refused.
 */
class RfbHandshake final
{
public:
    enum class State {
        Version,      ///< waiting for the client's version
        SecurityType, ///< waiting for the client's choice of a security type
        Response,     ///< waiting for the client's answer to the challenge
        Judgement,    ///< response() is complete; accept() or refuse() is to be called
        Accepted,     ///< the handshake is over, and further input does not belong to it
        Refused,      ///< the connection is to be closed once output() is written
    };

    /** @param challenge  of kVncChallengeBytes, never used twice */
    explicit RfbHandshake(QByteArray challenge);

    /** Makes us answer the client's version with @p reason, and offer no security type. Before the first receive(). */
    void turnAway(const QByteArray &reason) { turnAwayReason = reason; }

    /** Takes the bytes of the handshake from the front of @p input and leaves the rest. */
    void receive(QByteArray *input);

    /** The bytes to send since the last call. */
    [[nodiscard]] QByteArray output();

    [[nodiscard]] State state() const { return current; }
    [[nodiscard]] const QByteArray &challenge() const { return sentChallenge; }
    [[nodiscard]] const QByteArray &response() const { return receivedResponse; }

    /** Tells the client that its password is right. In state Judgement only. */
    void accept();
    /** Refuses the client, with the reason where its version has room for one. In state Judgement only. */
    void refuse(const QByteArray &reason);

private:
    [[nodiscard]] bool step(QByteArray *input);
    [[nodiscard]] bool receiveVersion(QByteArray *input);
    [[nodiscard]] bool receiveSecurityType(QByteArray *input);
    [[nodiscard]] bool receiveResponse(QByteArray *input);
    void sendChallenge();
    void sendSecurityTypes();
    void refuseVersion(const QByteArray &reason);

    State current = State::Version;
    int minorVersion = 0; ///< 3, 7 or 8; 0 until the client has sent its version
    QByteArray turnAwayReason;
    QByteArray sentChallenge;
    QByteArray receivedResponse;
    QByteArray pendingOutput;
};
