// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/*
 * NetString frames: the payload's length in decimal digits, a colon, the payload, a comma. All functions are
 * callable from any thread.
 */

/** The longest payload in bytes that the decoder accepts. The encoder has no limit. */
inline constexpr qsizetype kMaxFrameBytes = 65536;

[[nodiscard]] QByteArray encodeNetString(const QByteArray &payload);

/**
 * Removes one frame from the front of @p buffer.
 *
 * @param buffer   loses the frame on success, otherwise unchanged
 * @param payload  set only on success
 * @param error    set only when the result is -1
 * @return 0 on success, 1 when more bytes are needed, -1 when there is no valid frame and the stream is broken for good
 */
[[nodiscard]] int decodeNetString(QByteArray &buffer, QByteArray &payload, QString &error);

enum class NetStringTaking {
    Taken,
    Incomplete, ///< more bytes are needed
    NoComma,    ///< another byte stands in the comma's place
};

/**
 * The second half of decoding, once the length is known: removes a frame from the front of @p buffer.
 *
 * @param colon    where the colon stands in @p buffer
 * @param length   of the payload, in bytes
 * @param buffer   loses the frame when it is taken, otherwise unchanged
 * @param payload  set only when the frame is taken
 */
[[nodiscard]] NetStringTaking takeNetString(QByteArray *buffer, qsizetype colon, qsizetype length, QByteArray *payload);
