// SPDX-License-Identifier: MIT
#pragma once

#include "client/reach/streamcopy.h"

#include <QObject>
#include <QSocketNotifier>

/**
 * Joins an input and an output with a connection. It is over when the connection's other end has sent all and closed,
 * or when nobody reads the output any more. The end of the input alone is passed on, and the answers still come.
 * Borrows the descriptors; input and output may be the same one. Used on the main thread.
 */
class StreamPump final : public QObject
{
    Q_OBJECT

public:
    StreamPump(int input, int output, int connection, QObject *parent = nullptr);

    /** @param begin  what has been read from the connection already */
    void start(const QByteArray &begin = {});

    [[nodiscard]] bool isOver() const { return over; }

    /** Why the output could not be written, as an errno; 0 if it could, or if its reader has closed it. */
    [[nodiscard]] int outputError() const;

signals:
    void finished();

private:
    void Output_activated();
    void finish();

    const int output;
    StreamCopy toConnection;
    StreamCopy fromConnection;
    QSocketNotifier outputWatch; ///< sees that the reader has gone, even if there is nothing to write
    bool over = false;
};
