// SPDX-License-Identifier: MIT
#include "agent/session/guardlink.h"

#include <sys/socket.h>

GuardLink::GuardLink(int descriptor_, QObject *parent)
    : QObject(parent)
    , descriptor(descriptor_)
    , notifier(descriptor_, QSocketNotifier::Read)
{
    connect(&notifier, &QSocketNotifier::activated, this, &GuardLink::Notifier_activated);
}

void GuardLink::tell(const AgentHoldings &holdings)
{
    // Failures are ignored, because lost() reports a guard that is gone.
    [[maybe_unused]] const ssize_t sent = ::send(descriptor, &holdings, sizeof holdings, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void GuardLink::Notifier_activated()
{
    if (!isGuardAlive(descriptor)) {
        notifier.setEnabled(false);
        emit lost();
    }
}

bool isGuardAlive(int link)
{
    char byte = 0;
    // The guard never sends anything, so 0 is the end of the stream.
    return ::recv(link, &byte, sizeof byte, MSG_DONTWAIT | MSG_PEEK) != 0;
}
