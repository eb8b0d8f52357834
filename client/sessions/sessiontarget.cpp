// SPDX-License-Identifier: MIT
#include "client/sessions/sessiontarget.h"

#include "client/sessions/sessiontable.h"
#include "client/terminal/textwidth.h"

#include <algorithm>
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
                u"%1 of %2 sessions; say which:\n%3"_s.arg(what, QString::number(candidates.size()), table.chopped(1)));
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
    const auto isNamed = [&](const SessionEntry &entry) { return entry.name == target; };
    const auto isBegun = [&](const SessionEntry &entry) { return entry.id.startsWith(target, Qt::CaseInsensitive); };
    // A target may be the name of one session and begin the id of another; only the user knows which one is meant.
    const SessionList fitting = matching(sessions, [&](const SessionEntry &e) { return isNamed(e) || isBegun(e); });
    if (fitting.isEmpty()) {
        return fail(failure, ExitCode::NoSuchSession, u"There is no session %1."_s.arg(quoted));
    }
    const bool areNamed = std::all_of(fitting.begin(), fitting.end(), isNamed);
    const bool areBegun = std::all_of(fitting.begin(), fitting.end(), isBegun);
    const QString what = areNamed   ? u" is the name"_s
                         : areBegun ? u" begins the id"_s
                                    : u" is the name or begins the id"_s;
    return take(fitting, quoted + what, found, failure);
}
