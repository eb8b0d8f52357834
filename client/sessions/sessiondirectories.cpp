// SPDX-License-Identifier: MIT
#include "client/sessions/sessiondirectories.h"

#include "client/sessions/sessiontarget.h"
#include "contract/sessiondirectory.h"
#include "contract/sessionid.h"
#include "support/filereader.h"

#include <QDir>
#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxNumberBytes = 16;

SessionList sessionsOnDisk(const ServerFiles &files)
{
    SessionList sessions;
    const QStringList names = QDir(files.sessionsPath()).entryList({kSessionDirectoryPrefix + u'*'}, QDir::Dirs);
    for (const QString &name : names) {
        SessionEntry entry;
        entry.id = name.sliced(kSessionDirectoryPrefix.size());
        sessions.append(entry);
    }
    return sessions;
}

} // namespace

bool findSessionDirectory(ClientContext &context, const QString &target, QString *directory, Failure *failure)
{
    SessionEntry session;
    SessionList listed;
    Failure noServer;
    if (context.connectToServer(ServerConnector::Start::Forbidden, &noServer) &&
        context.listLocal(&listed, &noServer)) {
        if (findSession(listed, target, &session, failure)) {
            *directory = context.files.sessionDirectory(session.id);
            return true;
        }
        if (failure->code == ExitCode::Ambiguous) {
            return false;
        }
    }
    if (!findSession(sessionsOnDisk(context.files), target, &session, failure)) {
        // findLocal() tells a session of another host from one that does not exist.
        const bool mayBeElsewhere = failure->code == ExitCode::NoSuchSession && context.client.isConnected();
        if (!mayBeElsewhere || !context.findLocal(target, &session, failure)) {
            return false;
        }
    }
    *directory = context.files.sessionDirectory(session.id);
    return true;
}

bool readSessionDisplay(const QString &directory, quint16 *display, Failure *failure)
{
    QByteArray text;
    QString error;
    if (!readFile(QDir(directory).filePath(SessionFile::kDisplay), kMaxNumberBytes, &text, &error)) {
        return fail(failure, ExitCode::SessionFailed, error + u'.');
    }
    bool isNumber = false;
    const ushort number = text.trimmed().toUShort(&isNumber);
    if (!isNumber) {
        return fail(failure, ExitCode::SessionFailed,
                    u"The session in \"%1\" has no valid display number."_s.arg(directory));
    }
    *display = number;
    return true;
}

Failure fileFailure(const QString &directory, const Failure &failure)
{
    const bool hasText = !failure.text.isEmpty(); // no text: the user interrupted us
    const bool hasEnded = hasText && failure.code == ExitCode::SessionFailed && !QFileInfo(directory).isDir();
    return hasEnded ? Failure{ExitCode::NoSuchSession, u"The session has ended."_s} : failure;
}
