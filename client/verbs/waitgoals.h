// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

/** What "wait" can wait for. "ended" is no state of a listed session: an ended session is not listed any more. */
[[nodiscard]] inline QStringList waitGoals()
{
    return {QStringLiteral("connected"), QStringLiteral("suspended"), QStringLiteral("ended")};
}
