// SPDX-License-Identifier: MIT
#include "client/sessions/hostlookup.h"

#include "client/terminal/eventwait.h"

#include <QSocketNotifier>

#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include <netdb.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

/** What the threads share with us. The last one deletes it, because we go on without the late ones. */
struct Lookup
{
    Lookup() = default;
    ~Lookup() { ::close(event); }
    Q_DISABLE_COPY_MOVE(Lookup)

    const int event = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); ///< written when the last host is done
    std::mutex mutex;                                           ///< guards all below
    QHash<QString, QList<QHostAddress>> found;
    qsizetype pending = 0;
};

QList<QHostAddress> addressesOf(const QByteArray &name)
{
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM; // or each address comes once for each kind of socket
    addrinfo *first = nullptr;
    if (::getaddrinfo(name.constData(), nullptr, &hints, &first) != 0) {
        return {};
    }
    QList<QHostAddress> addresses;
    for (const addrinfo *each = first; each; each = each->ai_next) {
        addresses.append(QHostAddress(each->ai_addr));
    }
    ::freeaddrinfo(first);
    return addresses;
}

void finish(Lookup *lookup, const QString &name, const QList<QHostAddress> &addresses)
{
    const std::lock_guard locker(lookup->mutex);
    lookup->found.insert(name, addresses);
    if (--lookup->pending == 0) {
        ::eventfd_write(lookup->event, 1);
    }
}

void begin(const std::shared_ptr<Lookup> &lookup, const QString &name)
{
    try {
        std::thread([lookup, name] { finish(lookup.get(), name, addressesOf(name.toUtf8())); }).detach();
    } catch (const std::system_error &) {
        finish(lookup.get(), name, {}); // the system has no thread for it
    }
}

} // namespace

QHash<QString, QList<QHostAddress>> lookUpHosts(const QStringList &names, std::chrono::milliseconds timeout)
{
    if (names.isEmpty()) {
        return {};
    }
    const auto lookup = std::make_shared<Lookup>();
    lookup->pending = names.size();
    for (const QString &name : names) {
        begin(lookup, name);
    }
    const auto isDone = [&lookup] {
        const std::lock_guard locker(lookup->mutex);
        return lookup->pending == 0;
    };
    EventWait wait(isDone);
    QSocketNotifier notifier(lookup->event, QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, wait.context(), [&wait] { wait.wake(); });
    [[maybe_unused]] const bool areAllDone = wait.run(timeout);
    const std::lock_guard locker(lookup->mutex);
    return lookup->found;
}
