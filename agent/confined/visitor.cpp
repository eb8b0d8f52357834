// SPDX-License-Identifier: MIT
#include "agent/confined/visitor.h"

#include "agent/confined/doorpackets.h"
#include "agent/confined/packet.h"
#include "agent/confined/rfbhandshake.h"
#include "agent/confined/tlsidentity.h"
#include "agent/confined/tlsrelay.h"
#include "agent/confined/waiting.h"

#include <openssl/ssl.h>

#include <array>
#include <cerrno>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace {

RfbOffer offerOf(const VisitorOrder &order)
{
    return {order.offersTls, order.offersPlain, false, order.turnsAway, order.challenge, order.reason};
}

class Visit final
{
public:
    Visit(int client_, int control_, const VisitorOrder &order, const TlsIdentity *identity_)
        : client(client_)
        , control(control_)
        , identity(identity_)
        , isTurnedAway(order.turnsAway)
        , handshake(offerOf(order))
    {
    }

    void run()
    {
        if (!shakeHands()) {
            return; // the visitor or the agent has left
        }
        if (handshake.state() == RfbHandshake::State::Refused) {
            tell({DoorPacket::kRefused, static_cast<char>(refusalCause())});
            lingerUntilRead();
            return;
        }
        if (tell({DoorPacket::kInside, ssl ? DoorPacket::kOverTls : DoorPacket::kOverTcp}) && ssl) {
            relay();
        }
    }

private:
    using State = RfbHandshake::State;

    /** @return false when either side has left in between */
    bool shakeHands()
    {
        std::string input;
        while (handshake.state() != State::Accepted && handshake.state() != State::Refused) {
            if (handshake.state() == State::StartTls) {
                if (!startTls()) {
                    return false;
                }
            } else if (handshake.state() == State::Judgement) {
                if (!judge()) {
                    return false;
                }
            } else if (!readInto(&input)) {
                return false;
            }
            handshake.receive(&input);
            if (!send(handshake.output())) {
                return false;
            }
        }
        return true;
    }

    bool startTls()
    {
        ssl = identity != nullptr ? identity->newConnection(client, &control) : nullptr;
        while (ssl) {
            const int result = SSL_accept(ssl.get());
            if (result == 1) {
                handshake.tlsStarted();
                return true;
            }
            if (!waitForTls(ssl.get(), client, result)) {
                break;
            }
        }
        tell({DoorPacket::kRefused, static_cast<char>(RefusalCause::TlsFailed)});
        return false;
    }

    bool judge()
    {
        if (!tell(DoorPacket::kResponse + handshake.response())) {
            return false;
        }
        const std::optional<std::string> verdict = receivePacket(control);
        if (!verdict) {
            return false;
        }
        if (verdict->front() == DoorPacket::kAccept) {
            handshake.accept();
        } else {
            isWrong = true;
            handshake.refuse(verdict->substr(1));
        }
        return true;
    }

    RefusalCause refusalCause() const
    {
        if (isTurnedAway) {
            return RefusalCause::TurnedAway;
        }
        if (isWrong) {
            return RefusalCause::WrongPassword;
        }
        return handshake.wantsOtherType() ? RefusalCause::NothingFits : RefusalCause::NotOurProtocol;
    }

    bool readInto(std::string *input)
    {
        std::array<char, 64> buffer = {};
        const std::size_t wanted = handshake.wantedBytes() - input->size();
        for (;;) {
            const int length = ssl ? SSL_read(ssl.get(), buffer.data(), static_cast<int>(wanted))
                                   : static_cast<int>(::read(client, buffer.data(), wanted));
            if (length > 0) {
                input->append(buffer.data(), static_cast<std::size_t>(length));
                return true;
            }
            if (ssl ? !waitForTls(ssl.get(), client, length) : !(mayRetry(length) && waitToRead(client))) {
                return false;
            }
        }
    }

    bool send(const std::string &bytes)
    {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const int left = static_cast<int>(bytes.size() - sent);
            const int length = ssl ? SSL_write(ssl.get(), bytes.data() + sent, left)
                                   : static_cast<int>(::send(client, bytes.data() + sent,
                                                             static_cast<std::size_t>(left), MSG_NOSIGNAL));
            if (length > 0) {
                sent += static_cast<std::size_t>(length);
            } else if (ssl ? !waitForTls(ssl.get(), client, length) : !(mayRetry(length) && waitToWrite(client))) {
                return false;
            }
        }
        return true;
    }

    bool tell(const std::string &packet) const { return sendPacket(control, packet); }

    /** Unread bytes would make the kernel reset the connection before our answer arrives. */
    void lingerUntilRead() const
    {
        if (ssl) {
            SSL_shutdown(ssl.get());
        }
        ::shutdown(client, SHUT_WR);
        std::array<char, 4096> buffer = {};
        for (;;) {
            const ssize_t length = ::read(client, buffer.data(), buffer.size());
            if (length <= 0 && !(mayRetry(length) && waitToRead(client))) {
                return;
            }
        }
    }

    void relay()
    {
        std::vector<int> descriptors;
        const std::optional<std::string> packet = receivePacket(control, &descriptors);
        if (packet && packet->front() == DoorPacket::kBackend && descriptors.size() == 1) {
            relayTls(ssl.get(), client, descriptors.front(), control);
        }
        for (const int descriptor : descriptors) {
            ::close(descriptor);
        }
    }

    const int client;
    const int control;
    const TlsIdentity *const identity;
    const bool isTurnedAway;
    bool isWrong = false;
    RfbHandshake handshake;
    SslPtr ssl; ///< set once TLS is being started
};

} // namespace

void serveVisitor(int client, int control, const VisitorOrder &order, const TlsIdentity *identity)
{
    Visit visit(client, control, order, identity);
    visit.run();
}
