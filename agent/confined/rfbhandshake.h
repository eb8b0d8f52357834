// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <string>

/** The greeting with which a server opens a connection: the highest version that it speaks. */
inline constexpr char kRfbGreeting[] = "RFB 003.008\n";

/** What a client may choose. A value. */
struct RfbOffer
{
    bool tls = false;   ///< VeNCrypt with X.509 and VNC authentication inside of TLS
    bool plain = false; ///< VNC authentication
    bool none = false;  ///< nothing is asked
    bool turnsAway = false;
    std::string challenge = {}; ///< of 16 bytes, never used twice; for tls and plain
    /** Why nothing else is offered, or why the client is turned away. If empty, a general text is used. */
    std::string reason = {};
};

/**
 * The server's side of an RFB handshake up to and including authentication, as bytes in and bytes out, without sockets
 * and timers. Speaks 3.3, 3.7 and 3.8. Begins after the greeting, which is the same for every client.
 *
 * To use it, call receive() and output() in turn until the state is StartTls, Judgement, Accepted or Refused.
 */
class RfbHandshake final
{
public:
    enum class State {
        Version,         ///< waiting for the client's version
        SecurityType,    ///< waiting for the client's choice of a security type
        VeNCryptVersion, ///< waiting for the client's version of VeNCrypt
        VeNCryptType,    ///< waiting for the client's choice inside of VeNCrypt
        StartTls,        ///< output() is to be sent, then TLS to be started; then tlsStarted() is to be called
        Response,        ///< waiting for the client's answer to the challenge
        Judgement,       ///< response() is complete; accept() or refuse() is to be called
        Accepted,        ///< the handshake is over, and further input does not belong to it
        Refused,         ///< the connection is to be closed once output() is sent
    };

    explicit RfbHandshake(RfbOffer offer);

    /** Takes the bytes of the handshake from the front of @p input and leaves the rest. */
    void receive(std::string *input);

    /**
     * How many bytes the client has to send in this state. More must not be read before TLS starts, because they belong
     * to TLS then.
     */
    [[nodiscard]] std::size_t wantedBytes() const;

    /** The bytes to send since the last call. */
    [[nodiscard]] std::string output();

    [[nodiscard]] State state() const { return current; }
    /** Whether the client has chosen TLS. */
    [[nodiscard]] bool usesTls() const { return isTls; }
    /** Whether the client chose a type that was not offered. */
    [[nodiscard]] bool wantsOtherType() const { return isOtherType; }
    [[nodiscard]] const std::string &response() const { return receivedResponse; }

    /** TLS is started, and what follows goes through it. In state StartTls only. */
    void tlsStarted();
    /** Tells the client that its password is right. In state Judgement only. */
    void accept();
    /** Refuses the client, with the reason where its version has room for one. In state Judgement only. */
    void refuse(const std::string &reason);

private:
    [[nodiscard]] bool step(std::string *input);
    void receiveVersion(const std::string &version);
    void receiveSecurityType(char type);
    void receiveVeNCryptVersion(const std::string &version);
    void receiveVeNCryptType(const std::string &type);
    void sendSecurityTypes();
    void sendChallenge();
    void chooseType();
    void acceptWithoutPassword();
    void refuseVersion(const std::string &reason);
    void refuseType();

    RfbOffer offer;
    State current = State::Version;
    int minorVersion = 0; ///< 3, 7 or 8; 0 until the client has sent its version
    bool isTls = false;
    bool isOtherType = false;
    std::string receivedResponse;
    std::string pendingOutput;
};
