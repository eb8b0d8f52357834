// SPDX-License-Identifier: MIT
#include "client/terminal/interruption.h"

#include "base/signalcatcher.h"

#include <csignal>

#include <sys/socket.h>
#include <unistd.h>

namespace {

Interruption *living = nullptr;

bool isIgnored(int number)
{
    struct sigaction action = {};
    return ::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

} // namespace

Interruption::Interruption(QObject *parent)
    : QObject(parent)
{
    if (!createSignalPair(ends)) {
        return; // then signals end the program at once
    }
    notifier = std::make_unique<QSocketNotifier>(ends[1], QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &Interruption::Notifier_activated);
    living = this;
    setSignalWriteEnd(ends[0]);
    for (const int each : {SIGINT, SIGTERM, SIGHUP}) {
        if (!isIgnored(each)) {
            catchSignal(each);
            caught.append(each);
        }
    }
}

Interruption::~Interruption()
{
    for (const int each : caught) {
        std::signal(each, SIG_DFL);
    }
    setSignalWriteEnd(-1);
    living = nullptr;
    notifier.reset();
    [[maybe_unused]] const bool isCaught = poll(); // one that no event loop has seen ends the program as well
    for (const int end : ends) {
        if (end != -1) {
            ::close(end);
        }
    }
    if (number != 0) {
        ::raise(number);
    }
}

Interruption *Interruption::current()
{
    return living;
}

bool Interruption::poll()
{
    while (readSignal()) {
    }
    return number != 0;
}

void Interruption::Notifier_activated()
{
    if (readSignal() && !isHeldBack) {
        emit signalCaught();
    }
}

bool Interruption::readSignal()
{
    qint32 signalNumber = 0;
    if (ends[1] == -1 || ::recv(ends[1], &signalNumber, sizeof signalNumber, MSG_DONTWAIT) != sizeof signalNumber) {
        return false;
    }
    number = signalNumber;
    return true;
}
