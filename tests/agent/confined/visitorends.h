// SPDX-License-Identifier: MIT
#pragma once

#include <openssl/ssl.h>

#include <QByteArray>
#include <QtGlobal>

#include <algorithm>
#include <array>
#include <memory>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

/** A test that waits for bytes fails after this time instead of waiting for ever. */
inline constexpr timeval kLongestWait = {30, 0};

/** Both ends of a new connection. The first one blocks, for at most kLongestWait; the second one does not. */
[[nodiscard]] inline std::array<int, 2> makePair()
{
    std::array<int, 2> ends = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        qFatal("Failed to make a pair of sockets");
    }
    ::setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &kLongestWait, sizeof kLongestWait);
    ::setsockopt(ends[0], SOL_SOCKET, SO_SNDTIMEO, &kLongestWait, sizeof kLongestWait);
    ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
    return ends;
}

/** Both ends of a new control socket. */
[[nodiscard]] inline std::array<int, 2> makeControlPair()
{
    std::array<int, 2> ends = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        qFatal("Failed to make a pair of sockets");
    }
    return ends;
}

/** Reads exactly @p count bytes; fewer if the other end closes first. */
[[nodiscard]] inline QByteArray readBytes(int socket, qsizetype count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    const ssize_t length = ::recv(socket, bytes.data(), static_cast<size_t>(count), MSG_WAITALL);
    return bytes.first(std::max<ssize_t>(length, 0));
}

/** Reads until the other end closes. A null array if it does not within kLongestWait. */
[[nodiscard]] inline QByteArray readToTheEnd(int socket)
{
    QByteArray all("");
    std::array<char, 4096> buffer = {};
    for (;;) {
        const ssize_t length = ::read(socket, buffer.data(), buffer.size());
        if (length <= 0) {
            return length == 0 ? all : QByteArray();
        }
        all.append(buffer.data(), length);
    }
}

inline void writeBytes(int socket, const QByteArray &bytes)
{
    [[maybe_unused]] const ssize_t sent =
        ::send(socket, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL);
}

/** The client's side of TLS, on a blocking socket. */
class TlsPeer final
{
public:
    /** @param protocol  the only one that it speaks */
    TlsPeer(int socket, int protocol)
        : context(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free)
        , ssl(nullptr, &SSL_free)
    {
        SSL_CTX_set_min_proto_version(context.get(), protocol);
        SSL_CTX_set_max_proto_version(context.get(), protocol);
        SSL_CTX_set_security_level(context.get(), 0); // so that it can offer what the server must refuse
        ssl.reset(SSL_new(context.get()));
        SSL_set_fd(ssl.get(), socket);
    }

    [[nodiscard]] bool connect() { return SSL_connect(ssl.get()) == 1; }
    [[nodiscard]] SSL *get() const { return ssl.get(); }

    bool write(const QByteArray &bytes)
    {
        return SSL_write(ssl.get(), bytes.constData(), static_cast<int>(bytes.size())) == bytes.size();
    }

    /** Exactly @p count bytes; fewer at the end. */
    [[nodiscard]] QByteArray read(qsizetype count)
    {
        QByteArray bytes(count, Qt::Uninitialized);
        qsizetype done = 0;
        while (done < count) {
            const int length = SSL_read(ssl.get(), bytes.data() + done, static_cast<int>(count - done));
            if (length <= 0) {
                break;
            }
            done += length;
        }
        return bytes.first(done);
    }

private:
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context;
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl;
};
