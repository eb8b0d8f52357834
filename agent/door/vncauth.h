// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/** The length of a challenge and of its response. */
inline constexpr qsizetype kVncChallengeBytes = 16;

/** A fresh challenge from the system's random generator. */
[[nodiscard]] QByteArray newVncChallenge();

/**
 * What a client that knows @p password answers to @p challenge: the challenge, encrypted with DES under the first eight
 * bytes of the password.
 *
 * @param challenge  of kVncChallengeBytes
 * @return as many bytes; empty when the challenge has another length or the cipher is not available.
 *         equalInConstantTime() never matches an empty response
 */
[[nodiscard]] QByteArray vncAuthResponse(const QByteArray &password, const QByteArray &challenge);

/** Compares secrets in a time that depends only on their length. An empty secret equals nothing, not even itself. */
[[nodiscard]] bool equalInConstantTime(const QByteArray &a, const QByteArray &b);
