// SPDX-License-Identifier: MIT
#include "client/reach/streampump.h"

#include <cerrno>

#include <poll.h>

StreamPump::StreamPump(int input, int output_, int connection, QObject *parent)
    : QObject(parent)
    , output(output_)
    , toConnection(input, connection)
    , fromConnection(connection, output_)
    , outputWatch(output_, QSocketNotifier::Exception)
{
    connect(&fromConnection, &StreamCopy::ended, this, &StreamPump::finish);
    connect(&outputWatch, &QSocketNotifier::activated, this, &StreamPump::Output_activated);
}

void StreamPump::start(const QByteArray &begin)
{
    fromConnection.start(begin);
    toConnection.start();
}

int StreamPump::outputError() const
{
    const int error = fromConnection.writeError();
    return error == EPIPE || error == ECONNRESET ? 0 : error;
}

void StreamPump::Output_activated()
{
    outputWatch.setEnabled(false); // it would fire without end
    pollfd state = {output, 0, 0};
    if (::poll(&state, 1, 0) == 1 && (state.revents & (POLLERR | POLLHUP)) != 0) {
        finish();
    }
}

void StreamPump::finish()
{
    if (!over) {
        over = true;
        outputWatch.setEnabled(false);
        emit finished();
    }
}
