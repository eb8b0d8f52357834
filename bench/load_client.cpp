// SPDX-License-Identifier: MIT
// Puts load on a TLS server from one thread. Usage:
//
//   load_client PORT CERTIFICATE KEY CONNECTIONS SECONDS frames|http REQUEST
//     Each connection always has one request under way.
//
//   load_client PORT CERTIFICATE KEY CONNECTIONS SECONDS handshakes
//     Each connection makes a full handshake, closes and connects again.
//
// Prints one line of JSON: operations per second, the latency of an operation in microseconds, both once the server is
// warm, and the number of operations since the start.
#include "bench/tls.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

enum class Kind { Frames, Http, Handshakes };

/** How long the server gets to warm up before operations count. */
constexpr auto kWarmUp = 500ms;

struct Options
{
    int port;
    int connections;
    Clock::duration duration;
    Kind kind;
    std::string request;
};

struct Peer
{
    int descriptor = -1;
    tls::Connection connection;
    std::string received;
    Clock::time_point begin;
};

class Load
{
public:
    Load(Options options_, SSL_CTX *context_)
        : options(std::move(options_))
        , context(context_)
        , peers(static_cast<size_t>(options.connections))
    {
    }

    void run()
    {
        for (Peer &peer : peers) {
            connect(peer);
        }
        const Clock::time_point start = Clock::now();
        from = start + kWarmUp;
        const Clock::time_point end = from + options.duration;
        while (Clock::now() < end) {
            std::array<epoll_event, 64> events{};
            const int count = ::epoll_wait(poll, events.data(), events.size(), 1000);
            for (int i = 0; i < count; ++i) {
                go(*static_cast<Peer *>(events[i].data.ptr));
            }
        }
        seconds = std::chrono::duration<double>(Clock::now() - from).count();
    }

    void print()
    {
        if (microseconds.empty()) {
            std::fprintf(stderr, "No operation came to its end\n");
            std::exit(1);
        }
        std::sort(microseconds.begin(), microseconds.end());
        const auto percentile = [this](double share) {
            return microseconds[static_cast<size_t>(share * static_cast<double>(microseconds.size() - 1))];
        };
        std::printf(R"({"per_second":%.1f,"p50_us":%.1f,"p99_us":%.1f,"operations":%zu})"
                    "\n",
                    static_cast<double>(microseconds.size()) / seconds, percentile(0.5), percentile(0.99), operations);
    }

private:
    void connect(Peer &peer)
    {
        peer.begin = Clock::now();
        peer.descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(options.port));
        if (::connect(peer.descriptor, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            tls::fail("connect");
        }
        const int on = 1;
        ::setsockopt(peer.descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        ::fcntl(peer.descriptor, F_SETFL, O_NONBLOCK);
        peer.connection.reset(SSL_new(context));
        SSL_set_fd(peer.connection.get(), peer.descriptor);
        SSL_set_connect_state(peer.connection.get());
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = &peer;
        ::epoll_ctl(poll, EPOLL_CTL_ADD, peer.descriptor, &event);
        go(peer);
    }

    /** Does the peer's next step. Everything sent is small enough for one write. */
    void go(Peer &peer)
    {
        if (!SSL_is_init_finished(peer.connection.get()) && !shakeHands(peer)) {
            return;
        }
        if (options.kind == Kind::Handshakes) {
            count(peer);
            close(peer);
            connect(peer);
        } else {
            receive(peer);
        }
    }

    /** Whether the handshake is done. */
    bool shakeHands(Peer &peer)
    {
        const int result = SSL_do_handshake(peer.connection.get());
        if (result != 1) {
            orFail(peer, result, "handshake");
            return false;
        }
        if (options.kind != Kind::Handshakes) {
            send(peer);
        }
        return true;
    }

    void send(Peer &peer)
    {
        peer.begin = Clock::now();
        const auto length = static_cast<int>(options.request.size());
        if (SSL_write(peer.connection.get(), options.request.data(), length) != length) {
            tls::fail("write");
        }
    }

    void receive(Peer &peer)
    {
        std::array<char, 16384> bytes{};
        int length = 0;
        while ((length = SSL_read(peer.connection.get(), bytes.data(), bytes.size())) > 0) {
            peer.received.append(bytes.data(), static_cast<size_t>(length));
            while (options.kind == Kind::Http ? takeHttpAnswer(peer) : takeFrame(peer)) {
                count(peer);
                send(peer);
            }
        }
        orFail(peer, length, "read");
    }

    /** Removes a whole answer from what has arrived. False if there is none. Skips notifications. */
    static bool takeFrame(Peer &peer)
    {
        for (;;) {
            const size_t colon = peer.received.find(':');
            const size_t end = colon == std::string::npos ? colon : colon + 2 + std::stoul(peer.received);
            if (end == std::string::npos || peer.received.size() < end) {
                return false;
            }
            const bool isNotification =
                std::string_view(peer.received).substr(0, end).find("UpdateSessions") != std::string_view::npos;
            peer.received.erase(0, end);
            if (!isNotification) {
                return true;
            }
        }
    }

    static bool takeHttpAnswer(Peer &peer)
    {
        const std::string_view field = "Content-Length: ";
        const size_t length = peer.received.find(field);
        const size_t head = peer.received.find("\r\n\r\n");
        if (length == std::string::npos || head == std::string::npos) {
            return false;
        }
        const size_t end = head + 4 + std::strtoul(peer.received.c_str() + length + field.size(), nullptr, 10);
        if (peer.received.size() < end) {
            return false;
        }
        peer.received.erase(0, end);
        return true;
    }

    void count(const Peer &peer)
    {
        const Clock::time_point now = Clock::now();
        ++operations;
        if (peer.begin >= from) {
            microseconds.push_back(std::chrono::duration<double, std::micro>(now - peer.begin).count());
        }
    }

    void close(Peer &peer)
    {
        SSL_set_quiet_shutdown(peer.connection.get(), 1);
        ::close(peer.descriptor);
        peer.connection.reset();
        peer.received.clear();
    }

    static void orFail(const Peer &peer, int result, const char *what)
    {
        bool forWriting = false;
        if (!tls::isWaiting(peer.connection.get(), result, &forWriting) || forWriting) {
            tls::fail(what);
        }
    }

    const Options options;
    SSL_CTX *context;
    const int poll = ::epoll_create1(EPOLL_CLOEXEC);
    std::vector<Peer> peers;
    std::vector<double> microseconds; ///< of each operation that counts
    size_t operations = 0;            ///< including those of the warm-up
    Clock::time_point from = Clock::time_point::max();
    double seconds = 0;
};

Kind kindOf(std::string_view name)
{
    return name == "http" ? Kind::Http : name == "frames" ? Kind::Frames : Kind::Handshakes;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 7) {
        std::fprintf(stderr, "Usage: load_client PORT CERTIFICATE KEY CONNECTIONS SECONDS frames|http|handshakes "
                             "[REQUEST]\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    const tls::Context context = tls::makeContext(TLS_client_method(), argv[2], argv[3]);
    const auto duration =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(std::atof(argv[5])));
    Load load({std::atoi(argv[1]), std::atoi(argv[4]), duration, kindOf(argv[6]), argc > 7 ? argv[7] : ""},
              context.get());
    load.run();
    load.print();
}
