// SPDX-License-Identifier: MIT
#include "client/sessions/logtail.h"

#include <QFile>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kMaxTailBytes = 1024 * 1024;

} // namespace

bool readTail(const QString &path, int lines, QString *text, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = u"Failed to open the file \"%1\": %2"_s.arg(path, file.errorString());
        return false;
    }
    const qint64 start = std::max<qint64>(0, file.size() - kMaxTailBytes);
    const bool isSought = start == 0 || file.seek(start);
    QByteArray bytes = file.read(kMaxTailBytes);
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
    return true;
}

bool readRotatedTail(const QString &path, int lines, QString *text, QString *error)
{
    const QString old = path + u".old"_s;
    const bool hasOld = QFile::exists(old);
    QString latest;
    if ((!hasOld || QFile::exists(path)) && !readTail(path, lines, &latest, error)) {
        return false;
    }
    const int missing = lines - static_cast<int>(latest.count(u'\n'));
    QString earlier;
    if (hasOld && (lines <= 0 || missing > 0) && !readTail(old, lines > 0 ? missing : 0, &earlier, error)) {
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
