// SPDX-License-Identifier: MIT
#include "fuzz/fakeagents.h"

#include "contract/geometry.h"
#include "contract/sessionerror.h"
#include "engine/displays.h"
#include "engine/launch.h"
#include "engine/session.h"
#include "engine/sessionfiles.h"
#include "fuzz/target.h"
#include "support/datetimetext.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <csignal>

using namespace Qt::StringLiterals;

namespace {

FakeAgents *current = nullptr;

QString pathOf(const QString &directory, QLatin1StringView file)
{
    return QDir(directory).filePath(file);
}

/** Writes nothing if the agent's directory is gone, because a later start with the same id may have removed it. */
void put(const QString &path, const QByteArray &content, QIODevice::OpenMode mode)
{
    QFile file(path);
    if (file.open(mode)) {
        FUZZ_CHECK(file.write(content) == content.size());
    }
}

bool describe(const QString &directory, quint16 display, const QString &windowMode, const QString &name, QString *error)
{
    return writeNumberFile(pathOf(directory, SessionFile::kDisplay), display, error) &&
           writeTextFile(pathOf(directory, SessionFile::kWindowMode), windowMode, error) &&
           writeTextFile(pathOf(directory, SessionFile::kName), name, error);
}

} // namespace

FakeAgents::FakeAgents()
    : clock(QDate(2026, 1, 31), QTime(12, 0))
{
    static std::array<AgentThread, kEndDisplay - kFirstDisplay> *const threads =
        new std::array<AgentThread, kEndDisplay - kFirstDisplay>;
    for (size_t index = 0; index < agents.size(); ++index) {
        agents[index].thread = &(*threads)[index];
    }
    current = this;
}

FakeAgents::~FakeAgents()
{
    for (Agent &agent : agents) {
        agent.thread->leave();
    }
    current = nullptr;
}

FakeAgents &FakeAgents::instance()
{
    FUZZ_CHECK(current);
    return *current;
}

void FakeAgents::viewersCome()
{
    for (Agent &agent : agents) {
        if (!agent.password.isEmpty() && agent.command.contains(u"viewer"_s)) {
            log(agent,
                "Client authenticated from '192.0.2.1' at '" + nextTime() + "' with password '" + agent.password + "'");
            agent.password.clear();
        }
    }
}

std::optional<quint16> FakeAgents::begin(const QString &directory, const QString &command,
                                         DisplayReservation *reservation)
{
    for (size_t index = 0; index < agents.size(); ++index) {
        Agent &agent = agents[index];
        const auto display = static_cast<quint16>(kFirstDisplay + index);
        if (agent.directory.isEmpty() && reservation->take(display)) {
            agent.directory = directory;
            agent.command = command;
            agent.thread->enter(QFile::encodeName(directory));
            QFile::remove(pathOf(directory, SessionFile::kServerLog));
            log(agent, "RDP initialized at '" + nextTime() + "'");
            put(pathOf(directory, SessionFile::kServerPid), QByteArray::number(agent.thread->id()),
                QIODevice::WriteOnly);
            return display;
        }
    }
    return std::nullopt;
}

pid_t FakeAgents::processOf(quint16 display) const
{
    return agents.at(display - kFirstDisplay).thread->id();
}

int FakeAgents::signal(pid_t process, int number)
{
    for (Agent &agent : agents) {
        if (agent.thread->id() != process) {
            continue;
        }
        if (agent.directory.isEmpty()) {
            errno = ESRCH;
            return -1;
        }
        if (number == SIGTERM || (number == SIGUSR1 && agent.command.contains(u"dies"_s))) {
            endAsTold(&agent);
        } else if (number == SIGUSR1) {
            agent.password = "password" + QByteArray::number(++passwordCount);
            log(agent, "Added new password " + agent.password);
        } else {
            FUZZ_CHECK(number == SIGUSR2);
            log(agent, "Client disconnected from '192.0.2.1' at '" + nextTime() + "'");
        }
        return 0;
    }
    FUZZ_CHECK(!"a signal to a stranger");
    return -1;
}

void FakeAgents::log(const Agent &agent, const QByteArray &line)
{
    put(pathOf(agent.directory, SessionFile::kServerLog), line + '\n', QIODevice::Append);
}

void FakeAgents::endAsTold(Agent *agent)
{
    if (agent->command.contains(u"silently"_s)) {
        end(agent, std::nullopt);
    } else {
        end(agent, agent->command.contains(u"badly"_s) ? 3 : 0);
    }
}

void FakeAgents::end(Agent *agent, std::optional<int> code)
{
    if (code) {
        put(pathOf(agent->directory, SessionFile::kServerExit), QByteArray::number(*code), QIODevice::WriteOnly);
    }
    agent->thread->leave();
    agent->directory.clear();
    agent->password.clear();
}

QByteArray FakeAgents::nextTime()
{
    clock = clock.addSecs(1);
    return dateTimeToText(clock).toLatin1();
}

int startSession(Session *session, const QString &directory, quint16 base, quint16 limit, const QString &geometry,
                 const QString &name, DisplayReservation *reservation)
{
    FUZZ_CHECK(base == FakeAgents::kFirstDisplay && limit == FakeAgents::kEndDisplay);
    if (geometry == u"bad"_s) {
        return AgentFailed;
    }
    FUZZ_CHECK(QDir().mkpath(directory));
    QFile::remove(pathOf(directory, SessionFile::kServerExit));
    FakeAgents &agents = FakeAgents::instance();
    const std::optional<quint16> display =
        geometry == u"none"_s ? std::nullopt : agents.begin(directory, name, reservation);
    if (!display) {
        return NoOpenDisplay;
    }
    const QString windowMode = windowModeOf(geometry);
    const pid_t process = agents.processOf(*display);
    QString error;
    FUZZ_CHECK(describe(directory, *display, windowMode, name, &error));
    FUZZ_CHECK(writeNumberFile(pathOf(directory, SessionFile::kMonitorPid), process, &error));

    *session = Session();
    session->directory = directory;
    session->display = *display;
    session->monitorPid = process;
    session->windowMode = windowMode;
    session->name = name;
    session->logStamp = epoch();
    return SessionOk;
}

int startApplication(const Session &session, const QString &command)
{
    FUZZ_CHECK(!session.directory.isEmpty());
    return command.contains(u"no program"_s) ? ApplicationFailed : SessionOk;
}

/** Replaces kill() at link time, so that no input can make the code send a signal to a real process. */
extern "C" int __wrap_kill(pid_t process, int number)
{
    FUZZ_CHECK(process > 0);
    if (!current) {
        errno = ESRCH; // without fake agents no process exists
        return -1;
    }
    return current->signal(process, number);
}
