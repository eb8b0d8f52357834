// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/**
 * The client's side of an RFB handshake with our own X server, as bytes in and bytes out. It speaks version 3.8 without
 * authentication, because only we can reach the X server's socket. It ends before ClientInit, which the viewer sends
 * itself.
 */
class BackendHandshake final
{
public:
    enum class State { Version, SecurityTypes, Result, Done, Failed };

    /** Takes the bytes of the handshake from the front of @p input and leaves the rest. */
    void receive(QByteArray *input);

    /** The bytes to send since the last call. */
    [[nodiscard]] QByteArray output();

    [[nodiscard]] State state() const { return current; }

private:
    [[nodiscard]] bool step(QByteArray *input);
    [[nodiscard]] bool receiveVersion(QByteArray *input);
    [[nodiscard]] bool receiveSecurityTypes(QByteArray *input);
    [[nodiscard]] bool receiveResult(QByteArray *input);

    State current = State::Version;
    QByteArray pendingOutput;
};

/** The first bytes that a ready X server sends. */
inline constexpr char kBackendGreeting[] = "RFB 003.008\n";
inline constexpr qsizetype kBackendGreetingBytes = 12;
