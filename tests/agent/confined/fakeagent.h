// SPDX-License-Identifier: MIT
#pragma once

#include "agent/confined/doorpackets.h"
#include "agent/confined/handshakesignature.h"
#include "agent/confined/packet.h"
#include "tests/helpers/tlspair.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

/**
 * Plays the agent at the control socket of one visitor, in a thread: signs, judges each response in the same way, and
 * hands the X server's socket over. Without that socket it breaks off a visitor that has been let in over TLS.
 */
class FakeAgent final
{
public:
    /** @param key  null: no signature is given. @param verdict  the packet that answers a response */
    FakeAgent(int control_, EVP_PKEY *key_, std::string verdict_ = {DoorPacket::kAccept}, int backend_ = -1)
        : control(control_)
        , key(key_)
        , verdict(std::move(verdict_))
        , backend(backend_)
        , thread([this] { run(); })
    {
    }
    ~FakeAgent() { finish(); }
    Q_DISABLE_COPY_MOVE(FakeAgent)

    /** Closes its end and waits for the thread. */
    void finish()
    {
        if (!thread.joinable()) {
            return;
        }
        ::shutdown(control, SHUT_RDWR);
        thread.join();
        ::close(control);
    }

    /** Waits until the other end is closed, so that packets() is complete. */
    void waitForTheEnd()
    {
        thread.join();
        ::close(control);
    }

    /** The packets that it has received. */
    [[nodiscard]] std::vector<std::string> packets()
    {
        const std::lock_guard lock(mutex);
        return received;
    }

    /** How many of them begin with @p first. */
    [[nodiscard]] qsizetype count(char first)
    {
        const std::vector<std::string> all = packets();
        return std::count_if(all.begin(), all.end(),
                             [first](const std::string &packet) { return packet.front() == first; });
    }

    [[nodiscard]] bool hasReceived(const std::string &packet)
    {
        const std::vector<std::string> all = packets();
        return std::find(all.begin(), all.end(), packet) != all.end();
    }

private:
    void run()
    {
        while (const std::optional<std::string> packet = receivePacket(control)) {
            {
                const std::lock_guard lock(mutex);
                received.push_back(*packet);
            }
            answer(*packet);
        }
    }

    void answer(const std::string &packet) const
    {
        if (packet.front() == DoorPacket::kSign) {
            const std::optional<HandshakeSignature> request = HandshakeSignature::fromPacket(packet);
            send(DoorPacket::kSignature + (key != nullptr && request ? request->sign(key) : std::string()));
        } else if (packet.front() == DoorPacket::kResponse) {
            send(verdict);
        } else if (packet == std::string{DoorPacket::kInside, DoorPacket::kOverTls}) {
            if (backend == -1) {
                ::shutdown(control, SHUT_RDWR); // the X server could not be reached
            } else {
                send({DoorPacket::kBackend}, {backend});
            }
        }
    }

    void send(const std::string &packet, std::initializer_list<int> descriptors = {}) const
    {
        [[maybe_unused]] const bool isSent = sendPacket(control, packet, descriptors); // the visitor may have left
    }

    const int control;
    EVP_PKEY *const key;
    const std::string verdict;
    const int backend;
    std::mutex mutex; ///< guards received
    std::vector<std::string> received;
    std::thread thread; // last, because it uses all other members
};
