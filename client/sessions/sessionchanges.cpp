// SPDX-License-Identifier: MIT
#include "client/sessions/sessionchanges.h"

#include <QHash>

#include <utility>

namespace {

using Key = std::pair<QString, QString>;

/** Id and location, because two hosts may use the same id. */
Key keyOf(const SessionEntry &entry)
{
    return {entry.id, entry.location};
}

QHash<Key, SessionEntry> byKey(const SessionList &sessions)
{
    QHash<Key, SessionEntry> entries;
    for (const SessionEntry &entry : sessions) {
        entries.insert(keyOf(entry), entry);
    }
    return entries;
}

const char *kindName(SessionChange::Kind kind)
{
    switch (kind) {
    case SessionChange::Kind::Added:
        return "added";
    case SessionChange::Kind::Changed:
        return "changed";
    case SessionChange::Kind::Removed:
        return "removed";
    }
    return "";
}

} // namespace

Json::Value SessionChange::toJson() const
{
    Json::Value value(Json::objectValue);
    value["event"] = kindName(kind);
    value["session"] = session.toJson();
    return value;
}

QList<SessionChange> sessionChanges(const SessionList &before, const SessionList &after)
{
    const QHash<Key, SessionEntry> earlier = byKey(before);
    const QHash<Key, SessionEntry> later = byKey(after);
    QList<SessionChange> changes;
    for (const SessionEntry &entry : before) {
        if (!later.contains(keyOf(entry))) {
            changes.append({SessionChange::Kind::Removed, entry});
        }
    }
    for (const SessionEntry &entry : after) {
        const auto known = earlier.constFind(keyOf(entry));
        if (known == earlier.constEnd()) {
            changes.append({SessionChange::Kind::Added, entry});
        } else if (*known != entry) {
            changes.append({SessionChange::Kind::Changed, entry});
        }
    }
    return changes;
}
