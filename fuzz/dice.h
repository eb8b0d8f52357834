// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <algorithm>
#include <random>

/**
 * Makes the random decisions of a target. The same input always gives the same decisions. So the input need not encode
 * them and can be exactly the bytes on the wire, which stay readable if they are text.
 */
class Dice final
{
public:
    explicit Dice(const QByteArray &input)
        : engine(qChecksum(input) * 65537U + static_cast<unsigned>(input.size()))
    {
    }

    /** A number from 0 to @p count - 1. */
    [[nodiscard]] unsigned roll(unsigned count) { return static_cast<unsigned>(engine()) % count; }

private:
    std::minstd_rand engine;
};

/** Removes the next piece from the front of @p rest: usually a few bytes, sometimes many. */
[[nodiscard]] inline QByteArray takePiece(QByteArray *rest, Dice *dice)
{
    const unsigned most = dice->roll(4) == 0 ? 4096 : 16;
    const qsizetype size = std::min<qsizetype>(1 + dice->roll(most), rest->size());
    const QByteArray piece = rest->first(size);
    rest->remove(0, size);
    return piece;
}
