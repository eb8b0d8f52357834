// SPDX-License-Identifier: MIT
// The fastest server that ours is compared with: it sends every byte back, on one thread, with epoll and OpenSSL only.
// Usage: echo_server CERTIFICATE KEY. Prints its port.
#include "bench/tls.h"

#include <array>
#include <csignal>
#include <memory>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Client
{
    int descriptor;
    tls::Connection connection;
};

int listenOnLoopback()
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(listener, reinterpret_cast<sockaddr *>(&address), size) != 0 || ::listen(listener, 1024) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size) != 0) {
        tls::fail("listen");
    }
    std::printf("%d\n", ntohs(address.sin_port));
    std::fflush(stdout);
    return listener;
}

void watch(int poll, int descriptor, void *what)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.ptr = what;
    if (::epoll_ctl(poll, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        tls::fail("epoll_ctl");
    }
}

void accept(int poll, int listener, SSL_CTX *context)
{
    const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor == -1) {
        return;
    }
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto *client = new Client{descriptor, tls::Connection(SSL_new(context))};
    SSL_set_fd(client->connection.get(), descriptor);
    SSL_set_accept_state(client->connection.get());
    watch(poll, descriptor, client);
}

/** Sends back what the client has sent, which is small enough for one write. False if the client has gone. */
bool serve(const Client &client)
{
    std::array<char, 16384> bytes{};
    SSL *connection = client.connection.get();
    for (;;) {
        const int length = SSL_read(connection, bytes.data(), bytes.size());
        if (length <= 0) {
            bool forWriting = false;
            return tls::isWaiting(connection, length, &forWriting);
        }
        if (SSL_write(connection, bytes.data(), length) != length) {
            return false;
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "Usage: echo_server CERTIFICATE KEY\n");
        return 2;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::signal(SIGPIPE, SIG_IGN);
    const tls::Context context = tls::makeContext(TLS_server_method(), argv[1], argv[2]);
    SSL_CTX_set_num_tickets(context.get(), 0); // as in our server
    const int listener = listenOnLoopback();
    const int poll = ::epoll_create1(EPOLL_CLOEXEC);
    watch(poll, listener, nullptr);
    for (;;) {
        std::array<epoll_event, 64> events{};
        const int count = ::epoll_wait(poll, events.data(), events.size(), -1);
        for (int i = 0; i < count; ++i) {
            auto *client = static_cast<Client *>(events[i].data.ptr);
            if (!client) {
                accept(poll, listener, context.get());
            } else if (!serve(*client)) {
                ::close(client->descriptor);
                delete client;
            }
        }
    }
}
