// SPDX-License-Identifier: MIT
#include "rpc/silentconnection.h"

#include "base/idletimer.h"

#include <cerrno>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

SilentConnection::SilentConnection(int descriptor_, QObject *parent)
    : QObject(parent)
    , descriptor(descriptor_)
    , notifier(descriptor_, QSocketNotifier::Read)
{
    holdConnection();
    connect(&notifier, &QSocketNotifier::activated, this, [this] {
        notifier.setEnabled(false);
        emit spoke();
    });
}

SilentConnection::~SilentConnection()
{
    notifier.setEnabled(false); // before the descriptor is closed
    if (descriptor != -1) {
        ::close(descriptor);
    }
    releaseConnection();
}

int SilentConnection::takeDescriptor()
{
    notifier.setEnabled(false);
    return std::exchange(descriptor, -1);
}

bool SilentConnection::isOver() const
{
    char byte = 0;
    const ssize_t count = ::recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return count == 0 || (count == -1 && errno != EAGAIN && errno != EINTR);
}
