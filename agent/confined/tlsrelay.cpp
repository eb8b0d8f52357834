// SPDX-License-Identifier: MIT
#include "agent/confined/tlsrelay.h"

#include "agent/confined/waiting.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <array>
#include <cerrno>
#include <memory>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/** Bytes on their way in one direction. */
class Buffer final
{
public:
    /** The X server writes large updates, and each round costs system calls. Eight TLS records. */
    static constexpr std::size_t kBytes = 128 * 1024;

    [[nodiscard]] bool isEmpty() const { return begin == end; }
    [[nodiscard]] const char *data() const { return bytes.data() + begin; }
    [[nodiscard]] std::size_t size() const { return end - begin; }
    void drop(std::size_t count) { begin += count; }
    [[nodiscard]] char *fill() { return bytes.data(); }
    void setFilled(std::size_t count)
    {
        begin = 0;
        end = count;
    }

private:
    std::array<char, kBytes> bytes = {};
    std::size_t begin = 0;
    std::size_t end = 0;
};

class Relay final
{
public:
    Relay(SSL *ssl_, int client_, int backend_, int control_)
        : ssl(ssl_)
        , client(client_)
        , backend(backend_)
        , control(control_)
    {
    }

    void run()
    {
        for (;;) {
            clientEvents = 0;
            backendEvents = 0;
            const bool isUploaded = upload();
            const bool isDownloaded = download(); // in each round, or one direction would starve the other
            if (isOver) {
                SSL_shutdown(ssl);
                return;
            }
            if (!isUploaded && !isDownloaded && !wait()) {
                return;
            }
        }
    }

private:
    /** From the client to the X server. @return whether something was moved */
    bool upload()
    {
        if (toBackend.isEmpty()) {
            const int length = SSL_read(ssl, toBackend.fill(), static_cast<int>(Buffer::kBytes));
            if (length <= 0) {
                noteTls(length);
                return false;
            }
            toBackend.setFilled(static_cast<std::size_t>(length));
        }
        return write();
    }

    bool write()
    {
        const ssize_t length = ::send(backend, toBackend.data(), toBackend.size(), MSG_NOSIGNAL);
        if (length > 0) {
            toBackend.drop(static_cast<std::size_t>(length));
            return true;
        }
        backendEvents |= POLLOUT;
        isOver = isOver || !mayRetry(length);
        return false;
    }

    /** From the X server to the client. */
    bool download()
    {
        if (toClient.isEmpty()) {
            const ssize_t length = ::read(backend, toClient.fill(), Buffer::kBytes);
            if (length <= 0) {
                backendEvents |= POLLIN;
                isOver = isOver || !mayRetry(length);
                return false;
            }
            toClient.setFilled(static_cast<std::size_t>(length));
        }
        // One record at a time. All of them, because each look at the other direction costs a system call.
        while (!toClient.isEmpty()) {
            const int length = SSL_write(ssl, toClient.data(), static_cast<int>(toClient.size()));
            if (length <= 0) {
                noteTls(length);
                return false;
            }
            toClient.drop(static_cast<std::size_t>(length));
        }
        return true;
    }

    void noteTls(int result)
    {
        const int reason = SSL_get_error(ssl, result);
        ERR_clear_error(); // the next call would find this one's errors
        if (reason == SSL_ERROR_WANT_READ) {
            clientEvents |= POLLIN;
        } else if (reason == SSL_ERROR_WANT_WRITE) {
            clientEvents |= POLLOUT;
        } else {
            isOver = true;
        }
    }

    /** @return false when the agent has closed the control socket */
    bool wait() const
    {
        std::array<pollfd, 3> entries = {
            {{client, clientEvents, 0}, {backend, backendEvents, 0}, {control, POLLIN, 0}}};
        // An end without events would be reported at once, for ever, while the other direction waits.
        for (pollfd &entry : entries) {
            if (entry.events == 0) {
                entry.fd = -1;
            }
        }
        const int count = ::poll(entries.data(), entries.size(), -1);
        return (count > 0 || errno == EINTR) && entries.back().revents == 0;
    }

    SSL *const ssl;
    const int client;
    const int backend;
    const int control;
    short clientEvents = 0;
    short backendEvents = 0;
    bool isOver = false;
    Buffer toBackend;
    Buffer toClient;
};

} // namespace

void relayTls(SSL *ssl, int client, int backend, int control)
{
    const auto relay = std::make_unique<Relay>(ssl, client, backend, control); // too large for a small stack
    relay->run();
}
