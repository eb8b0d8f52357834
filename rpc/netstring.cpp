// SPDX-License-Identifier: MIT
#include "rpc/netstring.h"

using namespace Qt::StringLiterals;

namespace {

constexpr int kDecoded = 0;
constexpr int kIncomplete = 1;
constexpr int kInvalid = -1;

/** The digits of kMaxFrameBytes. A longer buffer without a colon is invalid. */
constexpr qsizetype kMaxLengthDigits = 5;

/** Reads the length before the colon. False for a sign, for anything after the digits, and above the limit. */
bool parseLength(const QByteArray &prefix, qsizetype *length)
{
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    bool isNumber = false;
    const unsigned long value = prefix.toULong(&isNumber, 10);
    // toULong() accepts a sign, and blanks and NUL characters after the digits. Blanks before them are allowed.
    const bool endsInDigit = !prefix.isEmpty() && isDigit(prefix.back()) && !prefix.contains('\0');
    if (!isNumber || !endsInDigit || prefix.contains('+') || prefix.contains('-') || value > kMaxFrameBytes) {
        return false;
    }
    *length = static_cast<qsizetype>(value);
    return true;
}

} // namespace

QByteArray encodeNetString(const QByteArray &payload)
{
    const QByteArray length = QByteArray::number(payload.size());
    QByteArray frame;
    frame.reserve(length.size() + payload.size() + 2);
    return frame.append(length).append(':').append(payload).append(',');
}

int decodeNetString(QByteArray &buffer, QByteArray &payload, QString &error)
{
    const auto fail = [&error](const QString &text) {
        error = text;
        return kInvalid;
    };

    const qsizetype colon = buffer.indexOf(':');
    if (colon < 0) {
        return buffer.size() > kMaxLengthDigits ? fail(u"Invalid NetString length"_s) : kIncomplete;
    }
    qsizetype length = 0;
    if (!parseLength(buffer.first(colon), &length)) {
        return fail(u"Invalid NetString length"_s);
    }
    switch (takeNetString(&buffer, colon, length, &payload)) {
    case NetStringTaking::Taken:
        return kDecoded;
    case NetStringTaking::Incomplete:
        return kIncomplete;
    case NetStringTaking::NoComma:
        break;
    }
    return fail(u"Missing NetString comma"_s);
}

NetStringTaking takeNetString(QByteArray *buffer, qsizetype colon, qsizetype length, QByteArray *payload)
{
    const qsizetype frameBytes = colon + length + 2;
    if (buffer->size() < frameBytes) {
        return NetStringTaking::Incomplete;
    }
    if (buffer->at(frameBytes - 1) != ',') {
        return NetStringTaking::NoComma;
    }
    *payload = buffer->sliced(colon + 1, length);
    buffer->remove(0, frameBytes);
    return NetStringTaking::Taken;
}
