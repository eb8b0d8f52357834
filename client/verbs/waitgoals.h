// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

/** What "wait" can wait for. Those that are no state of a listed session mean that it has ended. */
[[nodiscard]] inline QStringList waitGoals()
{
    return {QStringLiteral("connected"), QStringLiteral("suspended"), QStringLiteral("ended")};
}
