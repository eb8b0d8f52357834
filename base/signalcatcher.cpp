// SPDX-License-Identifier: MIT
#include "base/signalcatcher.h"

#include "base/logging.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

volatile sig_atomic_t signalWriteEnd = -1;

extern "C" void writeSignalNumber(int number)
{
    const int savedErrno = errno;
    const auto value = static_cast<qint32>(number);
    [[maybe_unused]] const ssize_t written = ::write(signalWriteEnd, &value, sizeof value);
    errno = savedErrno;
}

QString signalName(int number)
{
    switch (number) {
    case SIGHUP:
        return u"HUP"_s;
    case SIGINT:
        return u"INT"_s;
    case SIGUSR1:
        return u"USR1"_s;
    case SIGUSR2:
        return u"USR2"_s;
    case SIGTERM:
        return u"TERM"_s;
    default:
        return QString::number(number);
    }
}

} // namespace

SignalCatcher::SignalCatcher(int readEnd_, QObject *parent)
    : QObject(parent)
    , readEnd(readEnd_)
    , notifier(new QSocketNotifier(readEnd_, QSocketNotifier::Read, this))
{
    connect(notifier, &QSocketNotifier::activated, this, &SignalCatcher::activated);
}

void SignalCatcher::activated()
{
    notifier->setEnabled(false);
    qint32 number = 0;
    [[maybe_unused]] const ssize_t length = ::read(readEnd, &number, sizeof number);
    notifier->setEnabled(true);

    logMessage(LogDebug1, u"Got signal '%1'"_s.arg(signalName(number)));
    switch (number) {
    case SIGHUP:
        emit gotHUP();
        break;
    case SIGINT:
        emit gotINT();
        break;
    case SIGUSR1:
        emit gotUSR1();
        break;
    case SIGUSR2:
        emit gotUSR2();
        break;
    case SIGTERM:
        emit gotTERM();
        break;
    default:
        break;
    }
    emit gotSig(number);
}

bool createSignalPair(int ends[2])
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    // Non-blocking, because a handler that blocks would stop the thread that it interrupts. If the pair is full, the
    // signal is lost instead.
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return true;
}

void setSignalWriteEnd(int descriptor)
{
    signalWriteEnd = descriptor;
}

void catchSignal(int number)
{
    struct sigaction action = {};
    action.sa_handler = writeSignalNumber;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}
