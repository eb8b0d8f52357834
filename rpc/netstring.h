// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/*
 * NetString frames: the payload's length in decimal digits, a colon, the payload, a comma. Both functions are
 * callable from any thread.
 */

/** The longest payload in bytes that the decoder takes. The encoder has no limit. */
inline constexpr qsizetype kMaxFrameBytes = 65536;

[[nodiscard]] QByteArray encodeNetString(const QByteArray &payload);

/**
 * Takes one frame off the front of @p buffer.
 *
 * @param buffer   loses the frame on success, otherwise unchanged
 * @param payload  set only on success
 * @param error    set only when the front of the buffer is no frame: there is no way to go on from there
 * @return 0 on success, 1 when more bytes are needed, -1 when the front of the buffer is no frame
 */
[[nodiscard]] int decodeNetString(QByteArray &buffer, QByteArray &payload, QString &error);
