// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/**
 * Checks whether the service's answer fits the request: whether there must be one, its form, the number of answers to a
 * batch, and their ids. The results of the methods are not checked.
 *
 * @param request  the payload of one frame
 * @param answer   the whole frame that was sent for it; empty when there was none
 */
void checkAnswer(const QByteArray &request, const QByteArray &answer);

/** Whether a request is answered by a frame. */
[[nodiscard]] bool isAnswered(const QByteArray &request);
