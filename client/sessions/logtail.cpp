// SPDX-License-Identifier: MIT
#include "client/sessions/logtail.h"

#include <QFile>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kMaxTailBytes = 1024 * 1024;

/** Twice the size at which a log is rotated: a log that cannot be rotated grows on, and must not fill the memory. */
constexpr qint64 kMaxLogBytes = qint64(32) * 1024 * 1024;

/** @param isWhole  whether the file was read from its start, so that nothing is missing before the text */
bool readEnd(const QString &path, qint64 maxBytes, int lines, QString *text, bool *isWhole, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = u"Failed to open the file \"%1\": %2"_s.arg(path, file.errorString());
        return false;
    }
    const qint64 start = std::max<qint64>(0, file.size() - maxBytes);
    const bool isSought = start == 0 || file.seek(start);
    QByteArray bytes = file.read(maxBytes);
    if (!isSought || file.error() != QFileDevice::NoError) {
        *error = u"Failed to read from the file \"%1\": %2"_s.arg(path, file.errorString());
        return false;
    }
    if (start > 0) {
        bytes.remove(0, bytes.indexOf('\n') + 1); // the first line is incomplete
    }
    if (!bytes.isEmpty() && !bytes.endsWith('\n')) {
        bytes.append('\n');
    }
    qsizetype begin = lines > 0 ? bytes.size() : 0;
    for (int count = 0; begin > 0 && count < lines; ++count) {
        // Searches for the end of the line before this one. A start position of -1 would mean the end of the text.
        begin = begin >= 2 ? bytes.lastIndexOf('\n', begin - 2) + 1 : 0;
    }
    *text = QString::fromUtf8(bytes.sliced(begin));
    *isWhole = start == 0;
    return true;
}

/** Reads more than a MiB only if that has too few lines. */
bool readLogEnd(const QString &path, int lines, QString *text, bool *isWhole, QString *error)
{
    if (lines > 0) {
        if (!readEnd(path, kMaxTailBytes, lines, text, isWhole, error)) {
            return false;
        }
        if (*isWhole || text->count(u'\n') >= lines) {
            return true;
        }
    }
    return readEnd(path, kMaxLogBytes, lines, text, isWhole, error);
}

} // namespace

bool readTail(const QString &path, int lines, QString *text, QString *error)
{
    bool isWhole = false;
    return readEnd(path, kMaxTailBytes, lines, text, &isWhole, error);
}

bool readRotatedTail(const QString &path, int lines, QString *text, QString *error)
{
    const QString old = path + u".old"_s;
    const bool hasOld = QFile::exists(old);
    const bool hasLatest = !hasOld || QFile::exists(path);
    QString latest;
    bool isWhole = true;
    if (hasLatest && !readLogEnd(path, lines, &latest, &isWhole, error)) {
        return false;
    }
    const int missing = lines - static_cast<int>(latest.count(u'\n'));
    QString earlier;
    bool isOldWhole = false;
    // If the latest log is cut off, the old one would leave a hole between them.
    if (hasOld && isWhole && (lines <= 0 || missing > 0) &&
        !readLogEnd(old, lines > 0 ? missing : 0, &earlier, &isOldWhole, error) && !hasLatest) {
        return false;
    }
    *text = earlier + latest;
    return true;
}

QString withoutPasswords(const QString &log)
{
    static const QRegularExpression passwords(
        u"(?m)^((?:Added new|Expiring) password ).*$|( with password ')[^'\\n]*'"_s);
    QString clean;
    qsizetype position = 0;
    for (const QRegularExpressionMatch &match : passwords.globalMatch(log)) {
        clean += log.mid(position, match.capturedStart() - position);
        clean += match.captured(1).isEmpty() ? match.captured(2) + u"********'"_s : match.captured(1) + u"********"_s;
        position = match.capturedEnd();
    }
    return clean + log.mid(position);
}
