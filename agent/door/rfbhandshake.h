// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/**
 * The server's side of an RFB handshake up to and including authentication, as bytes in and bytes out: no sockets, no
 * timers. Speaks 3.3, 3.7 and 3.8 with the one security type VNC authentication. Used by one connection and
 * only through its functions in this order: output() once, then receive() and output() until the state asks for more.
 */
class RfbHandshake final
{
public:
    enum class State {
        Version,      ///< waiting for the client's version
        SecurityType, ///< waiting for its choice
        Response,     ///< waiting for its answer to the challenge
        Judgement,    ///< response() is there; waiting for accept() or refuse()
        Accepted,     ///< what follows in the input is no longer the handshake's
        Refused,      ///< to be closed once output() is written
    };

    /** @param challenge  of kVncChallengeBytes, never used twice */
    explicit RfbHandshake(QByteArray challenge);

    /** Before the first receive(): answers the client's version with @p reason instead of a security type. */
    void turnAway(const QByteArray &reason) { turnAwayReason = reason; }

    /** Takes what belongs to the handshake from the front of @p input and leaves the rest. */
    void receive(QByteArray *input);

    /** The bytes to send since the last call. */
    [[nodiscard]] QByteArray output();

    [[nodiscard]] State state() const { return current; }
    [[nodiscard]] const QByteArray &challenge() const { return sentChallenge; }
    [[nodiscard]] const QByteArray &response() const { return receivedResponse; }

    /** Tells the client that it is in. In state Judgement only. */
    void accept();
    /** Tells the client that it is not, with the reason where its version has room for one. In state Judgement only. */
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
    int minorVersion = 0; ///< 3, 7 or 8; 0 until the client has named its own
    QByteArray turnAwayReason;
    QByteArray sentChallenge;
    QByteArray receivedResponse;
    QByteArray pendingOutput;
};
