// SPDX-License-Identifier: MIT
#include "fuzz/dice.h"
#include "fuzz/target.h"
#include "rpc/netstring.h"

#include <optional>

using namespace Qt::StringLiterals;

namespace {

struct Outcome
{
    int code = 1;
    qsizetype payloadStart = 0;
    qsizetype payloadSize = 0;
};

bool isBlank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/** Reads the number before the colon byte by byte: blanks, then digits, and nothing else. */
std::optional<qsizetype> lengthOf(const QByteArray &prefix)
{
    qsizetype at = 0;
    while (at < prefix.size() && isBlank(prefix[at])) {
        ++at;
    }
    if (at == prefix.size()) {
        return std::nullopt;
    }
    qsizetype length = 0;
    for (; at < prefix.size(); ++at) {
        if (prefix[at] < '0' || prefix[at] > '9') {
            return std::nullopt;
        }
        length = length * 10 + (prefix[at] - '0');
        if (length > 65536) {
            return std::nullopt;
        }
    }
    return length;
}

/** The result of a decoder that is written in another way. */
Outcome expected(const QByteArray &buffer)
{
    const qsizetype colon = buffer.indexOf(':');
    if (colon < 0) {
        return {buffer.size() > 5 ? -1 : 1};
    }
    const std::optional<qsizetype> length = lengthOf(buffer.first(colon));
    if (!length) {
        return {-1};
    }
    if (buffer.size() - colon < *length + 2) {
        return {1};
    }
    return {buffer[colon + 1 + *length] == ',' ? 0 : -1, colon + 1, *length};
}

/** Decodes a frame and checks all that decodeNetString() promises. */
int decodeChecked(QByteArray *buffer, QByteArray *payload)
{
    const QByteArray before = *buffer;
    const Outcome outcome = expected(before);
    QString error;
    *payload = "untouched";
    const int code = decodeNetString(*buffer, *payload, error);
    FUZZ_CHECK(code == outcome.code);
    FUZZ_CHECK(error.isEmpty() == (code >= 0));
    if (code != 0) {
        FUZZ_CHECK(*buffer == before && *payload == "untouched");
        return code;
    }
    FUZZ_CHECK(*payload == before.mid(outcome.payloadStart, outcome.payloadSize));
    FUZZ_CHECK(*buffer == before.mid(outcome.payloadStart + outcome.payloadSize + 1));
    return code;
}

/** Checks that an encoded payload is decoded to the same bytes. */
void checkRoundTrip(const QByteArray &payload)
{
    QByteArray frame = encodeNetString(payload);
    QByteArray again;
    QString error;
    FUZZ_CHECK(decodeNetString(frame, again, error) == (payload.size() > kMaxFrameBytes ? -1 : 0));
    FUZZ_CHECK(payload.size() > kMaxFrameBytes || (again == payload && frame.isEmpty()));
}

void decodeWhole(QByteArray stream)
{
    QByteArray payload;
    while (decodeChecked(&stream, &payload) == 0) {
        checkRoundTrip(payload);
    }
}

void decodeInPieces(QByteArray stream, Dice dice)
{
    QByteArray buffer;
    QByteArray payload;
    int code = 1;
    while (!stream.isEmpty() && code >= 0) {
        buffer += takePiece(&stream, &dice);
        do {
            code = decodeChecked(&buffer, &payload);
        } while (code == 0);
    }
}

void fuzzNetString(const QByteArray &input)
{
    checkRoundTrip(input);
    decodeWhole(input);
    decodeInPieces(input, Dice(input));
}

} // namespace

ZARVO_FUZZ(fuzzNetString)
