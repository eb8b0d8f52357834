// SPDX-License-Identifier: MIT
#include "rpc/framereader.h"

#include "rpc/netstring.h"

#include <QByteArrayView>

#include <algorithm>

namespace {

/** The digits of kMaxPayloadBytes. */
constexpr qsizetype kMaxLengthDigits = 8;

bool isDigit(char character)
{
    return character >= '0' && character <= '9';
}

} // namespace

FrameReader::Result FrameReader::next(QByteArray *payload)
{
    const QByteArrayView prefix = QByteArrayView(buffer).first(std::min(buffer.size(), kMaxLengthDigits + 1));
    const qsizetype colon = prefix.indexOf(':');
    const QByteArrayView digits = colon < 0 ? prefix : prefix.first(colon);
    if (!std::all_of(digits.begin(), digits.end(), isDigit) || colon == 0 || digits.size() > kMaxLengthDigits) {
        return Result::Invalid;
    }
    if (colon < 0) {
        return Result::Partial;
    }
    const qsizetype length = digits.toByteArray().toLongLong();
    if (length > kMaxPayloadBytes) {
        return Result::Invalid;
    }
    switch (takeNetString(&buffer, colon, length, payload)) {
    case NetStringTaking::Taken:
        return Result::Frame;
    case NetStringTaking::Incomplete:
        return Result::Partial;
    case NetStringTaking::NoComma:
        break;
    }
    return Result::Invalid;
}
