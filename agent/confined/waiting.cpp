// SPDX-License-Identifier: MIT
#include "agent/confined/waiting.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>

#include <poll.h>

namespace {

bool wait(int socket, short events)
{
    pollfd entry = {socket, events, 0};
    int count = -1;
    do {
        count = ::poll(&entry, 1, -1);
    } while (count == -1 && errno == EINTR);
    return count == 1;
}

} // namespace

bool mayRetry(ssize_t result)
{
    return result == -1 && (errno == EAGAIN || errno == EINTR);
}

bool waitToRead(int socket)
{
    return wait(socket, POLLIN);
}

bool waitToWrite(int socket)
{
    return wait(socket, POLLOUT);
}

bool waitForTls(const SSL *ssl, int socket, int result)
{
    const int reason = SSL_get_error(ssl, result);
    ERR_clear_error(); // the next call would find this one's errors
    if (reason == SSL_ERROR_WANT_READ) {
        return waitToRead(socket);
    }
    return reason == SSL_ERROR_WANT_WRITE && waitToWrite(socket);
}
