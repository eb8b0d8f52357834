// SPDX-License-Identifier: MIT
#include "client/sessions/sessionstarter.h"

#include "client/sessions/commandline.h"
#include "client/sessions/logtail.h"
#include "client/terminal/progress.h"
#include "client/terminal/textwidth.h"
#include "contract/sessiondirectory.h"
#include "contract/sessionid.h"

#include <QDir>

using namespace Qt::StringLiterals;

namespace {

constexpr int kLogLines = 10;

/** The lines of a log, indented, with control characters replaced. */
QString shownLines(const QString &log)
{
    QStringList lines;
    for (const QString &line : log.trimmed().split(u'\n')) {
        lines.append(u"  "_s + printable(line));
    }
    return lines.join(u'\n');
}

void addAgentLog(const ServerFiles &files, const QString &id, Failure *failure)
{
    QString log;
    QString error;
    const QString path = QDir(files.sessionDirectory(id)).filePath(SessionFile::kServerLog);
    if (readTail(path, kLogLines, &log, &error) && !log.isEmpty()) {
        failure->text += u"\nThe end of the agent's log, %1:\n%2"_s.arg(path, shownLines(withoutPasswords(log)));
    }
}

} // namespace

bool checkStart(const QStringList &command, const QString &geometry, Failure *failure)
{
    // After its next start the server could not read the command of such a session, and would not list it.
    if (commandLine(command).trimmed().isEmpty()) {
        return fail(failure, ExitCode::Usage, u"The command is blank."_s);
    }
    return isGeometry(geometry) ||
           fail(failure, ExitCode::Usage,
                u"The geometry \"%1\" is neither \"rootless\" nor a size like \"1280x800\" with 10 to 16384 a side and "
                "64 million pixels at most."_s.arg(geometry));
}

bool startNewSession(ClientContext &context, const QStringList &command, const QString &geometry,
                     ConnectionOffer *offer, Failure *failure)
{
    ConnectionOffer made;
    QString error;
    if (!newSessionId(&made.id, &error)) {
        return fail(failure, ExitCode::SessionFailed, error);
    }
    const QString commandText = commandLine(command);
    Json::Value answer;
    const Progress progress(u"Starting %1"_s.arg(commandText));
    if (!context.client.call(u"Live.Start"_s, jsonTexts({made.id, commandText, geometry}), &answer, failure)) {
        // These two codes speak of sessions that exist; here the new session has failed.
        if (failure->code == ExitCode::NoSuchSession || failure->code == ExitCode::WrongState) {
            failure->code = ExitCode::SessionFailed;
        }
        addAgentLog(context.files, made.id, failure);
        return false;
    }
    if (!made.readAnswer(answer)) {
        return failAnswer(failure);
    }
    made.host = localHostName();
    *offer = made;
    return true;
}
