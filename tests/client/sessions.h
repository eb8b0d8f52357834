// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/sessionentry.h"

/** A session of this host; its id begins with @p digits, and zeros follow. */
inline SessionEntry makeSession(const QString &digits, const QString &name,
                                const QString &permission = QStringLiteral("connect"))
{
    SessionEntry entry;
    entry.id = digits.leftJustified(32, u'0');
    entry.name = name;
    entry.windowMode = QStringLiteral("desktop");
    entry.started = QStringLiteral("2026-01-31T23:59:58");
    entry.permissions = {permission, QStringLiteral("terminate")};
    return entry;
}
