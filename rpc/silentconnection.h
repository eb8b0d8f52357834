// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QSocketNotifier>

/**
 * A connection whose client has sent nothing yet. A TLS server says nothing first, so the client notices no difference,
 * and a connection that stays silent costs a hundredth of the memory of a TLS socket. Holds the server's idle timer, as
 * every connection does. Lives on the main thread.
 */
class SilentConnection final : public QObject
{
    Q_OBJECT

public:
    /** @param descriptor  a connected socket, which is closed with this object unless it is taken */
    SilentConnection(int descriptor, QObject *parent);
    ~SilentConnection() override;
    Q_DISABLE_COPY_MOVE(SilentConnection)

    /** Hands the descriptor over. */
    [[nodiscard]] int takeDescriptor();

    /** Whether the client has gone without a word. */
    [[nodiscard]] bool isOver() const;

signals:
    /** The client has sent something, or has gone. Emitted once. */
    void spoke();

private:
    int descriptor;
    QSocketNotifier notifier;
};
