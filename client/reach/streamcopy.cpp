// SPDX-License-Identifier: MIT
#include "client/reach/streamcopy.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/** As much as a pipe holds, so that a slow reader lets few bytes wait here. */
constexpr qsizetype kBlockBytes = 64 * 1024;

bool isReady(int descriptor, short what)
{
    pollfd state = {descriptor, what, 0};
    return ::poll(&state, 1, 0) == 1;
}

bool isTransient(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

/** Like read(), but never waits. */
ssize_t readSome(int source, char *data, size_t size)
{
    const ssize_t received = ::recv(source, data, size, MSG_DONTWAIT);
    if (received != -1 || errno != ENOTSOCK) {
        return received;
    }
    if (!isReady(source, POLLIN)) {
        errno = EAGAIN;
        return -1;
    }
    return ::read(source, data, size);
}

/** Like write(), but never waits. */
ssize_t writeSome(int target, const char *data, size_t size)
{
    const ssize_t sent = ::send(target, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent != -1 || errno != ENOTSOCK) {
        return sent;
    }
    if (!isReady(target, POLLOUT)) {
        errno = EAGAIN;
        return -1;
    }
    // A pipe that is ready takes this much without waiting.
    return ::write(target, data, std::min(size, size_t{PIPE_BUF}));
}

} // namespace

StreamCopy::StreamCopy(int source_, int target_, QObject *parent)
    : QObject(parent)
    , source(source_)
    , target(target_)
    , reader(source_, QSocketNotifier::Read)
    , writer(target_, QSocketNotifier::Write)
{
    reader.setEnabled(false);
    writer.setEnabled(false);
    connect(&reader, &QSocketNotifier::activated, this, &StreamCopy::Reader_activated);
    connect(&writer, &QSocketNotifier::activated, this, &StreamCopy::writePending);
}

void StreamCopy::start(const QByteArray &first)
{
    pending = first;
    writePending();
}

void StreamCopy::Reader_activated()
{
    pending.resize(kBlockBytes);
    const ssize_t count = readSome(source, pending.data(), static_cast<size_t>(kBlockBytes));
    if (count == -1 && isTransient(errno)) {
        pending.clear();
        return;
    }
    pending.truncate(std::max<qsizetype>(count, 0));
    if (count <= 0) {
        end(); // a source that fails has ended, too
        return;
    }
    writePending();
}

void StreamCopy::writePending()
{
    while (written < pending.size()) {
        const ssize_t count =
            writeSome(target, pending.constData() + written, static_cast<size_t>(pending.size() - written));
        if (count == -1 && !isTransient(errno)) {
            refusal = errno;
            end();
            return;
        }
        if (count == -1) {
            break;
        }
        written += count;
    }
    const bool isWritten = written == pending.size();
    if (isWritten) {
        pending.clear();
        written = 0;
    }
    reader.setEnabled(isWritten);
    writer.setEnabled(!isWritten);
}

void StreamCopy::end()
{
    reader.setEnabled(false);
    writer.setEnabled(false);
    ::shutdown(target, SHUT_WR); // fails for a pipe or a file, which end when they are closed
    emit ended();
}
