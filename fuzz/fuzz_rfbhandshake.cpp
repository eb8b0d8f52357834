// SPDX-License-Identifier: MIT
#include "agent/display/backendhandshake.h"
#include "agent/door/rfbhandshake.h"
#include "agent/door/vncauth.h"
#include "fuzz/dice.h"
#include "fuzz/target.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

const QByteArray kChallenge = "0123456789abcdef";

/** The result of a handshake: its last state, all its output, and the bytes that it has not read. */
template <typename State>
struct Outcome
{
    State state;
    QByteArray output;
    QByteArray rest;

    bool operator==(const Outcome &) const = default;
};

using ClientOutcome = Outcome<RfbHandshake::State>;
using BackendOutcome = Outcome<BackendHandshake::State>;

enum class Verdict { Right, Wrong, TurnedAway };

/** Passes the input to the handshake, and gives the verdict once it waits for one. */
void receive(RfbHandshake *handshake, QByteArray *input, QByteArray *output, Verdict verdict)
{
    handshake->receive(input);
    *output += handshake->output();
    if (handshake->state() != RfbHandshake::State::Judgement) {
        return;
    }
    FUZZ_CHECK(handshake->response().size() == kVncChallengeBytes);
    if (verdict == Verdict::Right) {
        handshake->accept();
    } else {
        handshake->refuse("No");
    }
    *output += handshake->output();
    const QByteArray before = *input;
    handshake->receive(input);
    FUZZ_CHECK(*input == before && handshake->output().isEmpty()); // what follows is not for the handshake
}

template <typename Piece>
ClientOutcome playClient(QByteArray stream, Verdict verdict, Piece nextPiece)
{
    RfbHandshake handshake(kChallenge);
    if (verdict == Verdict::TurnedAway) {
        handshake.turnAway("Go away");
    }
    QByteArray output = handshake.output();
    QByteArray input;
    while (!stream.isEmpty()) {
        input += nextPiece(&stream);
        receive(&handshake, &input, &output, verdict);
    }
    return {handshake.state(), output, input};
}

template <typename Piece>
BackendOutcome playBackend(QByteArray stream, Piece nextPiece)
{
    BackendHandshake handshake;
    QByteArray output;
    QByteArray input;
    while (!stream.isEmpty()) {
        input += nextPiece(&stream);
        handshake.receive(&input);
        output += handshake.output();
    }
    return {handshake.state(), output, input};
}

QByteArray all(QByteArray *stream)
{
    return std::exchange(*stream, {});
}

/** Checks that an accepted client has sent all that its version requires: the version, the type if asked, a response.
 */
void checkWayIn(const QByteArray &said)
{
    const bool isOld = said.mid(8, 3).toInt() < 7;
    FUZZ_CHECK(said.startsWith("RFB 003.") && said.size() == (isOld ? 28 : 29));
    FUZZ_CHECK(isOld || said[12] == '\2');
}

void checkClient(const QByteArray &stream, Verdict verdict)
{
    using State = RfbHandshake::State;
    const ClientOutcome whole = playClient(stream, verdict, all);
    Dice dice(stream);
    const ClientOutcome pieces =
        playClient(stream, verdict, [&dice](QByteArray *rest) { return takePiece(rest, &dice); });
    FUZZ_CHECK(whole.state == pieces.state && whole.output == pieces.output);
    // After a refusal nothing more is read, so the unread rest depends on how the stream was split.
    FUZZ_CHECK(whole.state == State::Refused || whole.rest == pieces.rest);
    FUZZ_CHECK(whole.output.startsWith("RFB 003.008\n"));
    FUZZ_CHECK(stream.endsWith(whole.rest) && whole.state != State::Judgement);
    if (whole.state == State::Accepted) {
        FUZZ_CHECK(verdict == Verdict::Right && whole.output.endsWith(kChallenge + QByteArray(4, '\0')));
        checkWayIn(stream.first(stream.size() - whole.rest.size()));
    }
    FUZZ_CHECK(verdict != Verdict::TurnedAway || !whole.output.contains(kChallenge));
}

void checkBackend(const QByteArray &stream)
{
    using State = BackendHandshake::State;
    const BackendOutcome whole = playBackend(stream, all);
    Dice dice(stream);
    FUZZ_CHECK(whole == playBackend(stream, [&dice](QByteArray *rest) { return takePiece(rest, &dice); }));
    FUZZ_CHECK(stream.endsWith(whole.rest));
    FUZZ_CHECK(whole.state != State::Done || (stream.startsWith(kBackendGreeting) && whole.output.size() == 13));
}

void fuzzRfbHandshake(const QByteArray &input)
{
    for (const Verdict verdict : {Verdict::Right, Verdict::Wrong, Verdict::TurnedAway}) {
        checkClient(input, verdict);
    }
    checkBackend(input);
}

} // namespace

ZARVO_FUZZ(fuzzRfbHandshake)
