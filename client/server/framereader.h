// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/**
 * Takes the server's frames off a stream. The server answers with longer frames than it takes, so this has a
 * limit of its own. Bytes are not moved again for each part that arrives. A plain object, used on one thread.
 */
class FrameReader
{
public:
    /** The longest payload that is taken: a list of some ten thousand sessions. */
    static constexpr qsizetype kMaxPayloadBytes = 16 * 1024 * 1024;

    void append(const QByteArray &bytes) { buffer.append(bytes); }

    enum class Result {
        Frame,   ///< the payload is set
        Partial, ///< more bytes are needed
        Invalid, ///< what arrived is no frame; there is no way to go on
    };

    [[nodiscard]] Result next(QByteArray *payload);

private:
    QByteArray buffer;
};
