// SPDX-License-Identifier: MIT
#include "agent/confined/rfbhandshake.h"
#include "agent/display/backendhandshake.h"
#include "fuzz/dice.h"
#include "fuzz/target.h"

#include <string>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

const std::string kChallenge = "0123456789abcdef";

/** The result of a handshake: its last state, all its output, and the bytes that it has not read. */
template <typename State>
struct Outcome
{
    State state;
    QByteArray output;
    QByteArray rest;

    bool operator==(const Outcome &) const = default;
};

/** Of a client's handshake also whether TLS was started. */
struct ClientOutcome
{
    RfbHandshake::State state;
    std::string output;
    std::string rest;
    bool usesTls;
};
using BackendOutcome = Outcome<BackendHandshake::State>;

enum class Verdict { Right, Wrong, TurnedAway };

RfbOffer offerOf(Verdict verdict, bool tls, bool plain, bool none)
{
    return {.tls = tls,
            .plain = plain,
            .none = none,
            .turnsAway = verdict == Verdict::TurnedAway,
            .challenge = kChallenge,
            .reason = verdict == Verdict::TurnedAway ? "Go away" : ""};
}

/** Passes the input to the handshake, starts TLS when it is to start, and gives the verdict. */
void receive(RfbHandshake *handshake, std::string *input, std::string *output, Verdict verdict)
{
    handshake->receive(input);
    *output += handshake->output();
    if (handshake->state() == RfbHandshake::State::StartTls) {
        FUZZ_CHECK(handshake->usesTls() && handshake->wantedBytes() == 0);
        handshake->tlsStarted();
        handshake->receive(input);
        *output += handshake->output();
    }
    if (handshake->state() != RfbHandshake::State::Judgement) {
        return;
    }
    FUZZ_CHECK(handshake->response().size() == kChallenge.size());
    if (verdict == Verdict::Right) {
        handshake->accept();
    } else {
        handshake->refuse("No");
    }
    *output += handshake->output();
    const std::string before = *input;
    handshake->receive(input);
    FUZZ_CHECK(*input == before && handshake->output().empty()); // what follows is not for the handshake
}

template <typename Piece>
ClientOutcome playClient(QByteArray stream, const RfbOffer &offer, Verdict verdict, Piece nextPiece)
{
    RfbHandshake handshake(offer);
    std::string output;
    std::string input;
    while (!stream.isEmpty()) {
        input += nextPiece(&stream).toStdString();
        receive(&handshake, &input, &output, verdict);
        // A reader that takes no more than it is asked for makes progress, unless it is not its turn.
        FUZZ_CHECK(handshake.wantedBytes() == 0 || handshake.wantedBytes() > input.size());
    }
    return {handshake.state(), output, input, handshake.usesTls()};
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

/** Checks that an accepted client has sent all that its version and its type require. */
void checkWayIn(const QByteArray &said, const RfbOffer &offer, bool usesTls)
{
    const bool isOld = said.mid(8, 3).toInt() < 7;
    FUZZ_CHECK(said.startsWith("RFB 003."));
    if (usesTls) {
        FUZZ_CHECK(offer.tls && !isOld && said.mid(12, 7) == QByteArray::fromHex("13000200000105") &&
                   said.size() == 35);
    } else if (offer.none && (isOld ? !offer.plain : said[12] == '\1')) {
        FUZZ_CHECK(said.size() == (isOld ? 12 : 13));
    } else {
        FUZZ_CHECK(offer.plain && said.size() == (isOld ? 28 : 29) && (isOld || said[12] == '\2'));
    }
}

void checkClient(const QByteArray &stream, const RfbOffer &offer, Verdict verdict)
{
    using State = RfbHandshake::State;
    const ClientOutcome whole = playClient(stream, offer, verdict, all);
    Dice dice(stream);
    const ClientOutcome pieces =
        playClient(stream, offer, verdict, [&dice](QByteArray *rest) { return takePiece(rest, &dice); });
    FUZZ_CHECK(whole.state == pieces.state && whole.output == pieces.output && whole.usesTls == pieces.usesTls);
    // After a refusal nothing more is read, so the unread rest depends on how the stream was split.
    FUZZ_CHECK(whole.state == State::Refused || whole.rest == pieces.rest);
    FUZZ_CHECK(stream.toStdString().ends_with(whole.rest) && whole.state != State::Judgement);
    if (whole.state == State::Accepted) {
        FUZZ_CHECK(offer.none ||
                   (verdict == Verdict::Right && whole.output.ends_with(kChallenge + std::string(4, '\0'))));
        checkWayIn(stream.first(stream.size() - static_cast<qsizetype>(whole.rest.size())), offer, whole.usesTls);
    }
    FUZZ_CHECK(verdict != Verdict::TurnedAway ||
               (whole.state != State::Accepted && whole.output.find(kChallenge) == std::string::npos));
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
        checkClient(input, offerOf(verdict, false, true, false), verdict);
        checkClient(input, offerOf(verdict, true, true, false), verdict);
        checkClient(input, offerOf(verdict, true, false, false), verdict);
        checkClient(input, offerOf(verdict, false, false, true), verdict);
    }
    checkBackend(input);
}

} // namespace

ZARVO_FUZZ(fuzzRfbHandshake)
