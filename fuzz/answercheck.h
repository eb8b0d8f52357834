// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/**
 * Checks an answer of the service against the request that it is for: whether there has to be one, of which form it
 * is, how many there are in a batch, and whose "id" they carry. What the methods answer is not looked at.
 *
 * @param request  the payload of one frame
 * @param answer   the whole frame that was sent for it; empty when there was none
 */
void checkAnswer(const QByteArray &request, const QByteArray &answer);

/** Whether a request makes one frame of answer. */
[[nodiscard]] bool isAnswered(const QByteArray &request);
