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

/** @return 0 for a file that is missing or holds no number; nothing when it cannot be told */
std::optional<pid_t> pidIn(QLatin1StringView file)
{
    // A pipe of that name must not hold up the session.
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

/** Whether this process works in our directory, by which a server tells whether it is still the one of the session. */
std::optional<bool> worksHere(pid_t pid)
{
    struct stat own = {};
    struct stat other = {};
    if (::stat(".", &own) != 0) {
        return std::nullopt;
    }
    const QByteArray directory = "/proc/" + QByteArray::number(pid) + "/cwd";
    return ::stat(directory.constData(), &other) == 0 && other.st_dev == own.st_dev && other.st_ino == own.st_ino;
}

/** Whether a server that reads the directory finds this session in it. */
std::optional<bool> isListed(pid_t guard)
{
    const std::optional<pid_t> monitor = pidIn(SessionFile::kMonitorPid);
    if (!monitor || *monitor <= 0) {
        return monitor ? std::optional(false) : std::nullopt;
    }
    const std::optional<bool> isAlive = worksHere(*monitor);
    if (!isAlive || !*isAlive || *monitor == guard) {
        return isAlive;
    }
    // Either a program in front of ours, or the agent of a later start under the same id, which takes the signals now.
    const std::optional<pid_t> signalled = pidIn(SessionFile::kServerPid);
    return signalled ? std::optional(*signalled == ::getpid()) : std::nullopt;
}

} // namespace

ListingWatcher::ListingWatcher(ListingLimits limits, pid_t guard_, QObject *parent)
    : QObject(parent)
    , guard(guard_)
    , left(limits.grace)
{
    connect(&timer, &QTimer::timeout, this, &ListingWatcher::look);
    timer.setTimerType(Qt::PreciseTimer); // others come early, and the grace is given in full
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
    const std::optional<bool> listed = isListed(guard);
    if (!listed) {
        return;
    }
    if (*listed) {
        timer.stop();
        return;
    }
    if (left <= std::chrono::milliseconds::zero()) {
        timer.stop();
        emit unlisted();
        return;
    }
    left -= timer.intervalAsDuration();
}
