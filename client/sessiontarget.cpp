// SPDX-License-Identifier: MIT
#include "client/sessiontarget.h"

#include "client/sessiontable.h"
#include "client/textwidth.h"

#include <functional>

using namespace Qt::StringLiterals;

namespace {

SessionList matching(const SessionList &sessions, const std::function<bool(const SessionEntry &)> &fits)
{
    SessionList found;
    for (const SessionEntry &entry : sessions) {
        if (fits(entry)) {
            found.append(entry);
        }
    }
    return found;
}

bool take(const SessionList &candidates, const QString &what, SessionEntry *found, Failure *failure)
{
    if (candidates.size() == 1) {
        *found = candidates.first();
        return true;
    }
    const QString table = sessionTable(candidates, {.legend = false, .localHost = u"here"_s});
    return fail(failure, ExitCode::Ambiguous,
                u"%1 of %2 sessions; say which:\n%3"_s.arg(what).arg(candidates.size()).arg(table.chopped(1)));
}

} // namespace

bool findSession(const SessionList &sessions, const QString &target, SessionEntry *found, Failure *failure)
{
    if (target.isEmpty()) {
        if (sessions.isEmpty()) {
            return fail(failure, ExitCode::NoSuchSession, u"There is no session."_s);
        }
        return take(sessions, u"There is a choice"_s, found, failure);
    }
    const QString quoted = u"\"%1\""_s.arg(printable(target));
    if (const SessionList whole = matching(sessions, [&](const SessionEntry &entry) { return entry.id == target; });
        !whole.isEmpty()) {
        *found = whole.first();
        return true;
    }
    if (const SessionList named = matching(sessions, [&](const SessionEntry &entry) { return entry.name == target; });
        !named.isEmpty()) {
        return take(named, quoted + u" is the name"_s, found, failure);
    }
    const SessionList begun =
        matching(sessions, [&](const SessionEntry &entry) { return entry.id.startsWith(target, Qt::CaseInsensitive); });
    if (!begun.isEmpty()) {
        return take(begun, quoted + u" begins the id"_s, found, failure);
    }
    return fail(failure, ExitCode::NoSuchSession, u"There is no session %1."_s.arg(quoted));
}
