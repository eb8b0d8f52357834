// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "contract/sessionid.h"
#include "contract/userdirectory.h"
#include "engine/session.h"
#include "engine/sessionfiles.h"
#include "engine/sessionloading.h"
#include "engine/supervision.h"
#include "fuzz/agentthread.h"
#include "fuzz/target.h"
#include "live/sessionstore.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {

const QString kId = u"0123456789abcdef0123456789abcdef"_s;

/** A sessions directory with one session, whose files come from the input. Removed with the object. */
class SessionsDirectory final
{
public:
    /** @param content  the files one after the other, each after a line "@NAME" */
    explicit SessionsDirectory(const QByteArray &content)
    {
        FUZZ_CHECK(QDir().mkpath(session()));
        QByteArray name;
        QByteArrayList lines;
        for (const QByteArray &line : content.split('\n')) {
            if (!line.startsWith('@')) {
                lines.append(line);
                continue;
            }
            write(name, lines);
            name = line.mid(1);
            lines.clear();
        }
        write(name, lines);
    }
    ~SessionsDirectory() { QDir(path()).removeRecursively(); }
    Q_DISABLE_COPY_MOVE(SessionsDirectory)

    [[nodiscard]] static QString path()
    {
        static const QTemporaryDir *const folder = new QTemporaryDir;
        return folder->filePath(UserFile::kSessions);
    }
    [[nodiscard]] static QString session() { return sessionDirectory(path(), kId); }

private:
    /** Changes the name so that the file stays within the directory. "%" becomes the pid of a living agent. */
    static void write(QByteArray name, const QByteArrayList &lines)
    {
        name.replace('/', '_').replace('\0', '_');
        QFile file(session() + u'/' + QString::fromLatin1(name.left(64)));
        if (!name.isEmpty() && file.open(QIODevice::WriteOnly)) {
            file.write(lines.join('\n').replace('%', QByteArray::number(agent().id())));
        }
    }

public:
    [[nodiscard]] static AgentThread &agent()
    {
        static auto *const thread = new AgentThread;
        return *thread;
    }
};

bool isOneWord(const QString &text)
{
    return std::none_of(text.begin(), text.end(), [](QChar c) { return c.isSpace(); });
}

/** Checks that a number is the same after it was written and read. */
void checkNumberFile(qint32 number)
{
    const QString path = SessionsDirectory::session() + u"/number"_s;
    QString error;
    qint32 again = 0;
    FUZZ_CHECK(writeNumberFile(path, number, &error) && readNumberFile(path, &again, &error));
    FUZZ_CHECK(again == number && error.isEmpty());
}

void checkRecord(const Session &session)
{
    FUZZ_CHECK(session.directory == SessionsDirectory::session());
    FUZZ_CHECK(isOneWord(session.name) && isOneWord(session.windowMode));
    FUZZ_CHECK(session.started.isNull() && session.passwords.isEmpty() && session.clients == 0);
    checkNumberFile(session.monitorPid);
}

/** @return whether the registry must know the session */
bool checkRefresh(Session *session)
{
    const int code = refreshSession(session);
    FUZZ_CHECK(code == SessionOk || code == ReadFailed);
    FUZZ_CHECK(session->broken == (code != SessionOk));
    // A pid in the file is that of the agent only if the process works in the directory.
    FUZZ_CHECK(session->exited == (session->monitorPid != SessionsDirectory::agent().id()));
    FUZZ_CHECK(session->exited || code == SessionOk);
    // kill() is replaced at link time and finds no process.
    const int outcome = signalSession(*session, SIGTERM);
    FUZZ_CHECK(outcome == ReadFailed || outcome == UnknownError);
    return code == SessionOk;
}

/** Checks that the registry finds a readable session and forgets one that has ended. */
void checkStore(bool isUsable, bool isAlive)
{
    {
        SessionStore store(SessionsDirectory::path(), 0, 0, QString());
        FUZZ_CHECK(store.sessionIds() == (isUsable ? QStringList{kId} : QStringList()));
        QList<SessionInfo> sessions;
        FUZZ_CHECK(store.listSessions(sessions) == SessionOk);
        FUZZ_CHECK(sessions.size() == TEST_heldSessions());
        store.refreshAll(sessions);
        FUZZ_CHECK(sessions.size() == (isAlive ? 1 : 0) && sessions.size() == TEST_heldSessions());
        FUZZ_CHECK(!isAlive || sessions[0].id == kId);
        store.suspendIdle(0);
    }
    FUZZ_CHECK(TEST_heldSessions() == 0);
}

void fuzzSessionFiles(const QByteArray &input)
{
    const SessionsDirectory directory(input);
    SessionsDirectory::agent().enter(QFile::encodeName(SessionsDirectory::session()));
    Session session;
    const int code = loadSession(&session, SessionsDirectory::session());
    FUZZ_CHECK(code == SessionOk || code == ReadFailed);
    FUZZ_CHECK(session.directory.isEmpty() == (code != SessionOk));
    if (code != SessionOk) {
        checkStore(false, false);
    } else if (!QFile::exists(agentSocketPath(session.display))) { // otherwise a real session of this machine has it
        checkRecord(session);
        const bool isUsable = checkRefresh(&session);
        checkStore(isUsable, isUsable && !session.exited);
    }
    SessionsDirectory::agent().leave();
}

} // namespace

ZARVO_FUZZ(fuzzSessionFiles)
