// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>

/**
 * Copies bytes from one descriptor to another until the source ends or the target refuses. Reads only when all that it
 * has read is written, so the source has to wait for a slow target. Then it ends the target's input if that is a
 * socket. Sets no flags on the descriptors, because other programs may share them. SIGPIPE has to be ignored unless
 * both are sockets. Borrows the descriptors; used on the main thread.
 */
class StreamCopy final : public QObject
{
    Q_OBJECT

public:
    StreamCopy(int source, int target, QObject *parent = nullptr);

    /** @param first  bytes that are written before those of the source */
    void start(const QByteArray &first = {});

    /** Why the target refused, as an errno; 0 if it did not. */
    [[nodiscard]] int writeError() const { return refusal; }

signals:
    void ended();

private:
    void Reader_activated();
    void writePending();
    void end();

    const int source;
    const int target;
    QSocketNotifier reader;
    QSocketNotifier writer;
    QByteArray pending;
    qsizetype written = 0; ///< how many bytes of it
    int refusal = 0;
};
