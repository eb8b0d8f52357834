// SPDX-License-Identifier: MIT
#include "engine/agentlog.h"

#include "engine/session.h"
#include "support/datetimetext.h"
#include "support/filereader.h"

#include <QFile>
#include <QRegularExpression>
#include <QTextStream>

#include <array>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kMaxLineCharacters = 512;

/** One form of line: the prefix selects it, and then the pattern must match the whole line. */
struct LogEvent
{
    QLatin1StringView prefix;
    QRegularExpression pattern;
    void (*apply)(Session *session, const QRegularExpressionMatch &match);
};

void agentReady(Session *session, const QRegularExpressionMatch &match)
{
    session->started = dateTimeFromText(match.captured(1));
}

void passwordAdded(Session *session, const QRegularExpressionMatch &match)
{
    session->passwords.append(match.captured(1));
}

void passwordExpired(Session *session, const QRegularExpressionMatch &match)
{
    session->passwords.removeOne(match.captured(1));
}

void clientAuthenticated(Session *session, const QRegularExpressionMatch &match)
{
    ++session->clients;
    session->passwords.removeOne(match.captured(3)); // a password works once
    session->lastConnect = dateTimeFromText(match.captured(2));
}

void clientDisconnected(Session *session, const QRegularExpressionMatch &match)
{
    --session->clients;
    session->lastDisconnect = dateTimeFromText(match.captured(2));
}

void screenResized(Session *session, const QRegularExpressionMatch &match)
{
    session->screenSize = QSize(match.captured(1).toInt(), match.captured(2).toInt());
}

LogEvent logEvent(QLatin1StringView prefix, const QString &rest, decltype(LogEvent::apply) apply)
{
    const QRegularExpression pattern(u"\\A"_s + prefix + rest + u"\\z"_s,
                                     QRegularExpression::DotMatchesEverythingOption);
    return {prefix, pattern, apply};
}

const LogEvent *eventOfLine(const QString &line)
{
    static const std::array events = {
        logEvent("RDP initialized at "_L1, u"'(\\S*)'"_s, agentReady),
        logEvent("Added new password "_L1, u"(.*)"_s, passwordAdded),
        logEvent("Expiring password "_L1, u"(.*)"_s, passwordExpired),
        logEvent("Client authenticated from "_L1, u"'(\\S*)' at '(\\S*)' with password '(\\S*)'"_s,
                 clientAuthenticated),
        logEvent("Client disconnected from "_L1, u"'(\\S*)' at '(\\S*)'"_s, clientDisconnected),
        logEvent("Screen resized to "_L1, u"'(\\d*)x(\\d*)'"_s, screenResized),
    };
    for (const LogEvent &event : events) {
        if (line.startsWith(event.prefix)) {
            return &event;
        }
    }
    return nullptr;
}

void applyLine(Session *session, const QString &line)
{
    const LogEvent *event = eventOfLine(line);
    if (!event) {
        return;
    }
    const QRegularExpressionMatch match = event->pattern.match(line);
    if (match.hasMatch()) {
        event->apply(session, match);
    }
}

} // namespace

bool readAgentLog(Session *session, const QString &path, QString *error)
{
    if (isSpecialFile(path)) {
        *error = notRegularFileError(path);
        return false;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = u"Failed to open the file \"%1\": %2"_s.arg(file.fileName(), file.errorString());
        return false;
    }
    QTextStream stream(&file);
    QString line;
    bool isWholePiece = false;
    // An empty piece follows a line whose length is a multiple of the limit. It is not an empty line.
    while (stream.readLineInto(&line, kMaxLineCharacters) && (!line.isEmpty() || isWholePiece)) {
        isWholePiece = line.size() == kMaxLineCharacters;
        applyLine(session, line);
    }
    if (stream.status() != QTextStream::Ok) {
        *error = u"Failed to read from the file \"%1\": %2"_s.arg(file.fileName(), file.errorString());
        return false;
    }
    return true;
}
