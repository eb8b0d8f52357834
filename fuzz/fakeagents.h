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
 * Stands in for all programs that a start of a session runs, and for the signals sent to them: linking this in
 * replaces engine/launch.h and kill(). What an agent does depends on the command line of its session:
 *   contains "viewer": a viewer connects at the next viewersCome()
 *   contains "dies": ends when a password is asked for, contains "badly": with a code, "silently": without one
 * and a geometry of "none" finds no display, while "bad" finds no program.
 *
 * Always answers at once, so that nothing ever waits. One at a time; used by one thread at a time.
 */
class FakeAgents final
{
public:
    // So high that nobody else on this machine has an agent there.
    static constexpr quint16 kFirstDisplay = 65000;
    static constexpr quint16 kEndDisplay = 65003;

    FakeAgents();
    ~FakeAgents();
    Q_DISABLE_COPY_MOVE(FakeAgents)

    /** The one that there is. */
    [[nodiscard]] static FakeAgents &instance();

    /** Those who wait for a password that is open use it. */
    void viewersCome();

    /** Starts an agent in this directory; gives the display. Nothing when all displays are in use. */
    [[nodiscard]] std::optional<quint16> begin(const QString &directory, const QString &command,
                                               DisplayReservation *reservation);
    /** The number of the agent's process. */
    [[nodiscard]] pid_t processOf(quint16 display) const;
    /** Like kill(), but that there must be such an agent. */
    [[nodiscard]] int signal(pid_t process, int number);

private:
    struct Agent
    {
        AgentThread *thread = nullptr;
        QString directory; ///< empty when there is no agent
        QString command;
        QByteArray password; ///< open, not yet used
    };

    void log(const Agent &agent, const QByteArray &line);
    void end(Agent *agent, std::optional<int> code);
    void endAsTold(Agent *agent);
    [[nodiscard]] QByteArray nextTime();

    std::array<Agent, kEndDisplay - kFirstDisplay> agents;
    int passwordCount = 0;
    QDateTime clock;
};
