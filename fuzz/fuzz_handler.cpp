// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "fuzz/answercheck.h"
#include "fuzz/dice.h"
#include "fuzz/fuzzedconnection.h"
#include "fuzz/target.h"
#include "rpc/netstring.h"

using namespace Qt::StringLiterals;

namespace {

/** An update of this size makes a peer that does not read lag. */
constexpr qsizetype kMoreThanMayWait = 1024 * 1024 + 1;

struct Outcome
{
    QByteArrayList answers;
    bool isOpen = true;
};

void checkNothingIsHeld()
{
    FUZZ_CHECK(TEST_heldConnections() == 0 && TEST_heldSessions() == 0);
}

Outcome playWhole(const QByteArray &stream)
{
    Outcome outcome;
    {
        FuzzedConnection connection;
        connection.feed(stream);
        connection.finish();
        outcome = {connection.answers(), connection.isOpen()};
    }
    checkNothingIsHeld();
    return outcome;
}

/** Lets something happen between two pieces. */
void interfere(FuzzedConnection *connection, Dice *dice)
{
    switch (dice->roll(16)) {
    case 0:
    case 1:
    case 2:
    case 3:
        connection->finish();
        break;
    case 4:
    case 5:
        connection->update(1);
        break;
    case 6:
        connection->stall();
        break;
    case 7:
        connection->resume();
        break;
    case 8:
        connection->update(dice->roll(8) == 0 ? kMoreThanMayWait : 1);
        break;
    default:
        break;
    }
}

Outcome playInPieces(const QByteArray &stream)
{
    Outcome outcome;
    {
        FuzzedConnection connection;
        QByteArray rest = stream;
        Dice dice(stream);
        while (!rest.isEmpty()) {
            connection.feed(takePiece(&rest, &dice));
            interfere(&connection, &dice);
        }
        connection.resume();
        connection.finish();
        FUZZ_CHECK(!connection.isOpen() || connection.hasLastUpdate());
        outcome = {connection.answers(), connection.isOpen()};
    }
    checkNothingIsHeld();
    return outcome;
}

/** Lets the peer leave in the middle of the stream, with or without a running request. */
void playAndLeave(const QByteArray &stream)
{
    {
        FuzzedConnection connection;
        QByteArray rest = stream;
        Dice dice(stream);
        do {
            connection.feed(takePiece(&rest, &dice));
            interfere(&connection, &dice);
        } while (!rest.isEmpty() && dice.roll(8) != 0);
        // Half of the time the peer leaves. Otherwise the server ends in the middle of its work.
        if (dice.roll(2) == 0) {
            connection.leave();
            connection.finish();
            FUZZ_CHECK(connection.isLeft());
        }
    }
    checkNothingIsHeld();
}

/** Whether the result depends on how the stream is split: a long length is valid only if its colon is there. */
bool dependsOnPieces(const QByteArray &stream)
{
    QByteArray rest = stream;
    QByteArray payload;
    QString error;
    do {
        if (rest.indexOf(':') > 5) {
            return true;
        }
    } while (decodeNetString(rest, payload, error) == 0);
    return false;
}

void checkAnswers(const QByteArray &stream, const Outcome &outcome)
{
    QByteArray rest = stream;
    QByteArray payload;
    QString error;
    QByteArrayList answers = outcome.answers;
    int code = 0;
    while ((code = decodeNetString(rest, payload, error)) == 0) {
        const bool isDue = isAnswered(payload);
        FUZZ_CHECK(!isDue || !answers.isEmpty());
        checkAnswer(payload, isDue ? answers.takeFirst() : QByteArray());
    }
    FUZZ_CHECK(answers.isEmpty());
    FUZZ_CHECK(outcome.isOpen == (code == 1));
}

/** The input itself if it looks like a stream of frames. Otherwise each of its lines becomes a frame. */
QByteArray streamOf(const QByteArray &input)
{
    if (!input.isEmpty() && input[0] >= '0' && input[0] <= '9') {
        return input;
    }
    QByteArray stream;
    for (const QByteArray &line : input.split('\n')) {
        stream += encodeNetString(line);
    }
    return stream;
}

void fuzzHandler(const QByteArray &input)
{
    const QByteArray stream = streamOf(input);
    const Outcome whole = playWhole(stream);
    checkAnswers(stream, whole);
    const Outcome pieces = playInPieces(stream);
    if (!dependsOnPieces(stream)) {
        FUZZ_CHECK(pieces.answers == whole.answers && pieces.isOpen == whole.isOpen);
    } else {
        FUZZ_CHECK(pieces.answers == whole.answers.first(pieces.answers.size()));
    }
    playAndLeave(stream);
}

} // namespace

ZARVO_FUZZ(fuzzHandler)
