// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <algorithm>
#include <random>

/**
 * Decisions that a target makes beside its input: random, and the same again for the same input, so that an input
 * can be what travels on the wire and nothing else, and is a plain text where that is one.
 */
class Dice final
{
public:
    explicit Dice(const QByteArray &input)
        : engine(qChecksum(input) * 65537U + static_cast<unsigned>(input.size()))
    {
    }

    /** One of 0 to @p count - 1. */
    [[nodiscard]] unsigned roll(unsigned count) { return static_cast<unsigned>(engine()) % count; }

private:
    std::minstd_rand engine;
};

/** Cuts off the front of @p rest what arrives next: mostly a few bytes, now and then many. */
[[nodiscard]] inline QByteArray takePiece(QByteArray *rest, Dice *dice)
{
    const unsigned most = dice->roll(4) == 0 ? 4096 : 16;
    const qsizetype size = std::min<qsizetype>(1 + dice->roll(most), rest->size());
    const QByteArray piece = rest->first(size);
    rest->remove(0, size);
    return piece;
}
