// SPDX-License-Identifier: MIT
#include "contract/sessiondirectory.h"
#include "engine/agentlog.h"
#include "engine/session.h"
#include "fuzz/target.h"
#include "support/datetimetext.h"

#include <QFile>
#include <QTemporaryDir>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

/** Writes a log with this content, always to the same path. */
QString writeLog(const QByteArray &content)
{
    static const QTemporaryDir *const folder = new QTemporaryDir;
    const QString path = folder->filePath(SessionFile::kServerLog);
    QFile file(path);
    FUZZ_CHECK(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
    return path;
}

void readInto(Session *session, const QString &path)
{
    QString error;
    FUZZ_CHECK(readAgentLog(session, path, &error) && error.isEmpty());
}

/** Whether all lines are printable and short, so that there is only one way to read them. */
bool isPlain(const QByteArray &log)
{
    const auto isPlainByte = [](char c) { return (c >= ' ' && c <= '~') || c == '\n'; };
    const QByteArrayList lines = log.split('\n');
    return std::all_of(log.begin(), log.end(), isPlainByte) &&
           std::all_of(lines.begin(), lines.end(), [](const QByteArray &line) { return line.size() < 512; });
}

/** Removes the prefix from the line. False if the line has another one. */
bool takePrefix(QByteArray *line, const char *prefix)
{
    const bool hasIt = line->startsWith(prefix);
    line->remove(0, hasIt ? static_cast<qsizetype>(qstrlen(prefix)) : 0);
    return hasIt;
}

/** The quoted words of a line that consists of such words with these texts in between; empty for any other line. */
QByteArrayList quotedWords(const QByteArray &line, const QByteArrayList &between)
{
    // A word may contain quotes, but no blanks.
    QByteArrayList parts = line.split(' ');
    QByteArrayList words;
    for (qsizetype index = 0; index < parts.size(); ++index) {
        const QByteArray &part = parts[index];
        if (index % 2 == 0 && part.size() >= 2 && part.startsWith('\'') && part.endsWith('\'')) {
            words.append(part.mid(1, part.size() - 2));
        } else if (index % 2 == 0 || part != between.value(index / 2)) {
            return {};
        }
    }
    return parts.size() == 2 * between.size() + 1 ? words : QByteArrayList();
}

QDateTime timeFrom(const QByteArray &text)
{
    return dateTimeFromText(QString::fromLatin1(text));
}

void applyResize(Session *session, const QByteArrayList &words)
{
    const QByteArrayList numbers = words.value(0).split('x');
    const auto isNumber = [](const QByteArray &text) {
        return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    };
    if (numbers.size() == 2 && isNumber(numbers[0]) && isNumber(numbers[1])) {
        session->screenSize = QSize(numbers[0].toInt(), numbers[1].toInt());
    }
}

void applyClient(Session *session, const QByteArrayList &words, int change)
{
    if (words.isEmpty()) {
        return;
    }
    session->clients += change;
    (change > 0 ? session->lastConnect : session->lastDisconnect) = timeFrom(words[1]);
    session->passwords.removeOne(QString::fromLatin1(words.value(2, "no such password")));
}

/** Applies a plain line to the record, without regular expressions. */
void applyPlainLine(Session *session, QByteArray line)
{
    if (takePrefix(&line, "RDP initialized at ")) {
        const QByteArrayList words = quotedWords(line, {});
        session->started = words.isEmpty() ? session->started : timeFrom(words[0]);
    } else if (takePrefix(&line, "Added new password ")) {
        session->passwords.append(QString::fromLatin1(line));
    } else if (takePrefix(&line, "Expiring password ")) {
        session->passwords.removeOne(QString::fromLatin1(line));
    } else if (takePrefix(&line, "Client authenticated from ")) {
        QByteArrayList words = quotedWords(line.replace(" with password ", " with-password "), {"at", "with-password"});
        applyClient(session, words, +1);
    } else if (takePrefix(&line, "Client disconnected from ")) {
        applyClient(session, quotedWords(line, {"at"}), -1);
    } else if (takePrefix(&line, "Screen resized to ")) {
        applyResize(session, quotedWords(line, {}));
    }
}

void checkPlainLog(const QByteArray &log, const Session &session)
{
    Session expected;
    for (const QByteArray &line : log.split('\n')) {
        if (line.isEmpty()) {
            break; // the reader stops here
        }
        applyPlainLine(&expected, line);
    }
    FUZZ_CHECK(session.started == expected.started && session.screenSize == expected.screenSize);
    FUZZ_CHECK(session.lastConnect == expected.lastConnect && session.lastDisconnect == expected.lastDisconnect);
    FUZZ_CHECK(session.clients == expected.clients && session.passwords == expected.passwords);
}

void fuzzAgentLog(const QByteArray &input)
{
    const QString path = writeLog(input);
    Session session;
    readInto(&session, path);
    if (isPlain(input)) {
        checkPlainLog(input, session);
    }
    // Reading again counts everything twice, but the last value of each kind stays the same.
    Session again = session;
    readInto(&again, path);
    FUZZ_CHECK(again.clients == 2 * session.clients);
    FUZZ_CHECK(again.started == session.started && again.screenSize == session.screenSize);
    FUZZ_CHECK(again.lastConnect == session.lastConnect && again.lastDisconnect == session.lastDisconnect);
}

} // namespace

ZARVO_FUZZ(fuzzAgentLog)
