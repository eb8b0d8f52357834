// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/**
 * Splits the stream of a server into frames. A server sends longer frames than it accepts, so the limit here is higher
 * than that of decodeNetString(), and the length must consist of digits only. Used on one thread.
 */
class FrameReader
{
public:
    /** The longest payload that is accepted: a list of some ten thousand sessions. */
    static constexpr qsizetype kMaxPayloadBytes = 16 * 1024 * 1024;

    void append(const QByteArray &bytes) { buffer.append(bytes); }

    enum class Result {
        Frame,   ///< the payload is set
        Partial, ///< more bytes are needed
        Invalid, ///< the stream is broken: the next frame cannot be found any more
    };

    [[nodiscard]] Result next(QByteArray *payload);

private:
    QByteArray buffer;
};
