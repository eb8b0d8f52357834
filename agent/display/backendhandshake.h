// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/**
 * The client's side of an RFB handshake with our own X server, as bytes in and bytes out: version 3.8 and no
 * authentication, for only we can reach its socket. Ends where the client behind us goes on by itself.
 */
class BackendHandshake final
{
public:
    enum class State { Version, SecurityTypes, Result, Done, Failed };

    /** Takes what belongs to the handshake from the front of @p input and leaves the rest. */
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

/** What an X server that is ready says first. */
inline constexpr char kBackendGreeting[] = "RFB 003.008\n";
inline constexpr qsizetype kBackendGreetingBytes = 12;
