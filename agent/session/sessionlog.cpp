// SPDX-License-Identifier: MIT
#include "agent/session/sessionlog.h"

#include "support/datetimetext.h"

#include <QDateTime>
#include <QFile>
#include <QSize>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** The server cuts lines in two at 512 characters, and this is below that. */
constexpr qsizetype kMaxLineLength = 500;

QString singleLine(const QString &text)
{
    QString line = text.left(kMaxLineLength);
    for (QChar &c : line) {
        if (c.category() == QChar::Other_Control || c == QChar::LineSeparator || c == QChar::ParagraphSeparator) {
            c = u' ';
        }
    }
    return line;
}

} // namespace

SessionLog::~SessionLog()
{
    if (descriptor != -1) {
        ::close(descriptor);
    }
}

bool SessionLog::open(const QString &path, QString *error)
{
    const int opened =
        ::open(QFile::encodeName(path).constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
    if (opened == -1) {
        *error = u"Failed to open the file \"%1\": %2"_s.arg(path, qt_error_string(errno));
        return false;
    }
    if (::fchmod(opened, 0600) != 0) {
        *error = u"Failed to set permissions on the file \"%1\": %2"_s.arg(path, qt_error_string(errno));
        ::close(opened);
        return false;
    }
    descriptor = opened;
    return true;
}

void SessionLog::write(int level, const QString &text)
{
    writeLine(singleLine(formatLine(level, text)));
}

void SessionLog::ready(const QDateTime &time)
{
    writeLine(u"RDP initialized at '%1'"_s.arg(dateTimeToText(time)));
}

void SessionLog::passwordAdded(const QString &password)
{
    writeLine(u"Added new password "_s + password);
}

void SessionLog::passwordExpired(const QString &password)
{
    writeLine(u"Expiring password "_s + password);
}

void SessionLog::clientAuthenticated(const QString &address, const QDateTime &time, const QString &password)
{
    writeLine(
        u"Client authenticated from '%1' at '%2' with password '%3'"_s.arg(address, dateTimeToText(time), password));
}

void SessionLog::clientDisconnected(const QString &address, const QDateTime &time)
{
    writeLine(u"Client disconnected from '%1' at '%2'"_s.arg(address, dateTimeToText(time)));
}

void SessionLog::screenResized(const QSize &size)
{
    writeLine(u"Screen resized to '%1x%2'"_s.arg(size.width()).arg(size.height()));
}

void SessionLog::writeLine(const QString &line)
{
    // One write per line, so that no reader sees half a line and the lines of two writers do not mix.
    const QByteArray bytes = line.toUtf8() + '\n';
    [[maybe_unused]] const ssize_t written = ::write(descriptor, bytes.constData(), static_cast<size_t>(bytes.size()));
}
