// SPDX-License-Identifier: MIT
#pragma once

#include "fuzz/agentthread.h"

#include <QDateTime>
#include <QString>

#include <array>
#include <memory>
#include <optional>

#include <sys/types.h>

class DisplayReservation;

/**
 * Replaces all programs that the start of a session runs, and the signals to them: linking this in replaces
 * engine/launch.h and kill(). What an agent does depends on the command line of its session, which may contain:
 *   "viewer": a viewer connects at the next viewersCome()
 *   "dies": the agent ends when it is asked for a password; with "badly": with an exit code, "silently": without one
 * With the geometry "none" there is no display, and with "bad" no program.
 *
 * Agents answer at once, so that nothing waits. There is one object at a time, used by one thread at a time.
 */
class FakeAgents final
{
public:
    // Too high for the real agents on this machine.
    static constexpr quint16 kFirstDisplay = 65000;
    static constexpr quint16 kEndDisplay = 65003;

    FakeAgents();
    ~FakeAgents();
    Q_DISABLE_COPY_MOVE(FakeAgents)

    /** The present object. */
    [[nodiscard]] static FakeAgents &instance();

    /** Connects the viewers that wait for an open password. */
    void viewersCome();

    /** Starts an agent in this directory. Returns its display; none if all displays are in use. */
    [[nodiscard]] std::optional<quint16> begin(const QString &directory, const QString &command,
                                               DisplayReservation *reservation);
    /** The pid of the agent. */
    [[nodiscard]] pid_t processOf(quint16 display) const;
    /** Like kill(), but the agent must exist. */
    [[nodiscard]] int signal(pid_t process, int number);

private:
    struct Agent
    {
        AgentThread *thread = nullptr;
        QString directory; ///< empty if there is no agent
        QString command;
        QByteArray password; ///< offered and not used yet
    };

    void log(const Agent &agent, const QByteArray &line);
    void end(Agent *agent, std::optional<int> code);
    void endAsTold(Agent *agent);
    [[nodiscard]] QByteArray nextTime();

    std::array<Agent, kEndDisplay - kFirstDisplay> agents;
    int passwordCount = 0;
    QDateTime clock;
};
