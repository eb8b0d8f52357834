// SPDX-License-Identifier: MIT
#include "agent/confined/doorpackets.h"
#include "agent/confined/rfbhandshake.h"
#include "agent/confined/tlsidentity.h"
#include "agent/confined/visitor.h"
#include "fuzz/dice.h"
#include "fuzz/rawsocket.h"
#include "fuzz/target.h"
#include "tests/agent/confined/fakeagent.h"
#include "tests/helpers/tlspair.h"

#include <csignal>

#include <sys/socket.h>
#include <unistd.h>

namespace {

const std::string kChallenge = "0123456789abcdef";
/** More would not fit into the socket's buffer. */
constexpr qsizetype kMostBytes = 64 * 1024;

/** The certificate of all inputs. */
class Identity final
{
public:
    [[nodiscard]] static const Identity &instance()
    {
        static const auto *const identity = new Identity;
        return *identity;
    }
    [[nodiscard]] EVP_PKEY *key() const { return pair.key.get(); }
    [[nodiscard]] const TlsIdentity *tls() const { return identity.get(); }

private:
    Identity() { ::signal(SIGPIPE, SIG_IGN); } // as in the process

    const TlsPair pair = TlsPair::make();
    const std::unique_ptr<TlsIdentity> identity =
        TlsIdentity::fromPem({pair.certificatePem.constData(), static_cast<size_t>(pair.certificatePem.size())});
};

VisitorOrder orderOf(unsigned choice)
{
    VisitorOrder order;
    order.offersTls = choice % 4 != 0;
    order.offersPlain = choice % 2 == 0;
    order.turnsAway = choice % 16 == 15;
    order.challenge = kChallenge;
    order.reason = order.offersPlain ? "" : "Use TLS";
    return order;
}

/** What the visitor should have reached without TLS, and what it should have heard until TLS. */
struct Expectation
{
    explicit Expectation(const QByteArray &input, const VisitorOrder &order)
        : handshake({order.offersTls, order.offersPlain, false, order.turnsAway, order.challenge, order.reason})
    {
        std::string rest = input.toStdString();
        handshake.receive(&rest);
        heard = handshake.output();
    }

    RfbHandshake handshake;
    std::string heard;
};

void checkPackets(FakeAgent *agent, const Expectation &expected, bool isAccepted)
{
    using State = RfbHandshake::State;
    const State state = expected.handshake.state();
    const bool hasAnswered = state == State::Judgement;
    FUZZ_CHECK(agent->count(DoorPacket::kSign) <= (state == State::StartTls ? 1 : 0));
    FUZZ_CHECK(agent->count(DoorPacket::kResponse) == (hasAnswered ? 1 : 0));
    // Nobody can answer the challenge inside of TLS with bytes that are chosen before it starts.
    FUZZ_CHECK(agent->count(DoorPacket::kInside) == (hasAnswered && isAccepted ? 1 : 0));
    FUZZ_CHECK(!agent->hasReceived({DoorPacket::kInside, DoorPacket::kOverTls}));
    FUZZ_CHECK(agent->count(DoorPacket::kRefused) <= 1);
    FUZZ_CHECK(state != State::Refused || agent->count(DoorPacket::kRefused) == 1);
    FUZZ_CHECK(!hasAnswered || agent->hasReceived(DoorPacket::kResponse + expected.handshake.response()));
}

void fuzzVisitor(const QByteArray &input)
{
    const Identity &identity = Identity::instance();
    const QByteArray bytes = input.left(kMostBytes);
    Dice dice(bytes);
    const VisitorOrder order = orderOf(dice.roll(16));
    const bool isAccepted = dice.roll(2) == 0;
    const Expectation expected(bytes, order);
    std::pair<RawSocket, int> ends = RawSocket::pair();
    FUZZ_CHECK(ends.first.write(bytes) == bytes.size());
    ends.first.shutDownWriting();
    int controls[2] = {-1, -1};
    FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, controls) == 0);
    FakeAgent agent(controls[0], identity.key(), isAccepted ? std::string{DoorPacket::kAccept} : "rNo");
    serveVisitor(ends.second, controls[1], order, identity.tls());
    ::close(controls[1]);
    ::close(ends.second);
    agent.waitForTheEnd();
    checkPackets(&agent, expected, isAccepted);
    FUZZ_CHECK(ends.first.readAll().startsWith(QByteArray::fromStdString(expected.heard)));
}

} // namespace

ZARVO_FUZZ(fuzzVisitor)
