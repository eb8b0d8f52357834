// SPDX-License-Identifier: MIT
#include "agent/session/listingwatcher.h"

#include "agent/session/agentfiles.h"

#include <QByteArray>

#include <array>
#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

/** @return 0 for a file that is missing or holds no number; nothing for one that cannot be read at the moment */
std::optional<pid_t> readPid(QLatin1StringView file)
{
    // Non-blocking, because a pipe of that name would hold up the session.
    const int descriptor = ::open(file.data(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor == -1) {
        return errno == ENOENT ? std::optional<pid_t>(0) : std::nullopt;
    }
    std::array<char, 32> text = {};
    const ssize_t length = ::read(descriptor, text.data(), text.size());
    ::close(descriptor);
    if (length == -1) {
        return std::nullopt;
    }
    return QByteArray::fromRawData(text.data(), length).trimmed().toInt();
}

/** Whether the process works in @p directory. A server uses the same test to see whether a pid is still the session's.
 */
bool worksIn(const struct stat &directory, pid_t pid)
{
    struct stat other = {};
    const QByteArray path = "/proc/" + QByteArray::number(pid) + "/cwd";
    return ::stat(path.constData(), &other) == 0 && other.st_dev == directory.st_dev &&
           other.st_ino == directory.st_ino;
}

Listing currentListing(pid_t guard)
{
    const std::optional<pid_t> monitor = readPid(SessionFile::kMonitorPid);
    if (!monitor) {
        return Listing::Unknown;
    }
    if (*monitor <= 0) {
        return Listing::Unlisted;
    }
    struct stat own = {};
    if (::stat(".", &own) != 0) {
        return Listing::Unknown;
    }
    if (!worksIn(own, *monitor)) {
        return Listing::Unlisted;
    }
    if (*monitor == guard) {
        return Listing::Listed;
    }
    // The process is either a program that started our guard, or the guard of a later run under the same id. The run
    // that takes the signals is the listed one.
    const std::optional<pid_t> signalled = readPid(SessionFile::kServerPid);
    if (!signalled) {
        return Listing::Unknown;
    }
    return *signalled == ::getpid() ? Listing::Listed : Listing::Unlisted;
}

} // namespace

ListingWatcher::ListingWatcher(ListingLimits limits, pid_t guard_, QObject *parent)
    : QObject(parent)
    , guard(guard_)
    , graceLeft(limits.grace)
{
    connect(&timer, &QTimer::timeout, this, &ListingWatcher::look);
    timer.setTimerType(Qt::PreciseTimer); // a coarse timer may fire early, and would shorten the grace
    timer.setInterval(limits.interval);
}

void ListingWatcher::start()
{
    timer.start();
    look();
}

void ListingWatcher::stop()
{
    timer.stop();
}

void ListingWatcher::look()
{
    switch (currentListing(guard)) {
    case Listing::Unknown:
        break;
    case Listing::Listed:
        timer.stop();
        break;
    case Listing::Unlisted:
        spendGrace();
        break;
    }
}

void ListingWatcher::spendGrace()
{
    if (graceLeft <= std::chrono::milliseconds::zero()) {
        timer.stop();
        emit unlisted();
        return;
    }
    graceLeft -= timer.intervalAsDuration();
}
