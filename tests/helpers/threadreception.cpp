// SPDX-License-Identifier: MIT
#include "tests/helpers/threadreception.h"

#include "agent/confined/doorpackets.h"
#include "agent/confined/visitor.h"

#include <csignal>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

ThreadReception::ThreadReception()
{
    ::signal(SIGPIPE, SIG_IGN); // OpenSSL writes to sockets whose other end may be closed
}

ThreadReception::~ThreadReception()
{
    for (const std::unique_ptr<Visit> &visit : visits) {
        breakOff(visit.get());
        visit->thread.join();
    }
}

void ThreadReception::setCertificate(const QByteArray &pem)
{
    certificates.append(pem);
    identity = TlsIdentity::fromPem({pem.constData(), static_cast<size_t>(pem.size())});
}

bool ThreadReception::receive(const VisitorOrder &order, int client, int control, QString *error)
{
    if (!failure.isEmpty()) {
        *error = failure;
        return false;
    }
    ++receivedCount;
    auto visit = std::make_unique<Visit>();
    visit->id = order.id;
    visit->client = ::fcntl(client, F_DUPFD_CLOEXEC, 0);
    visit->control = ::fcntl(control, F_DUPFD_CLOEXEC, 0);
    const int ownClient = visit->client;
    const int ownControl = visit->control;
    visit->thread = std::thread([this, order, ownClient, ownControl, shown = identity, raw = visit.get()] {
        serveVisitor(ownClient, ownControl, order, shown.get());
        const std::lock_guard lock(mutex);
        ::close(std::exchange(raw->client, -1));
        ::close(std::exchange(raw->control, -1));
    });
    visits.push_back(std::move(visit));
    return true;
}

void ThreadReception::end(quint32 id)
{
    for (const std::unique_ptr<Visit> &visit : visits) {
        if (visit->id == id) {
            breakOff(visit.get());
        }
    }
}

/** A thread cannot be killed. It ends when its sockets do. */
void ThreadReception::breakOff(Visit *visit)
{
    const std::lock_guard lock(mutex);
    if (visit->client != -1) {
        ::shutdown(visit->client, SHUT_RDWR);
        ::shutdown(visit->control, SHUT_RDWR);
    }
}
