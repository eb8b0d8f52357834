// SPDX-License-Identifier: MIT
#pragma once

#include "client/server/serverstatus.h"
#include "client/terminal/exitcode.h"

#include <QString>

#include <chrono>
#include <functional>

/**
 * Decides how a program that has no connection to the server goes on: it waits, starts a server, or gives up. Reads no
 * clock, file or process itself, so that a table of cases can test it. One per wait for a server.
 */
class ConnectionJudge
{
public:
    /** What the program knows after one attempt to connect. */
    struct Observation
    {
        std::chrono::milliseconds time{0}; ///< since the wait began
        ServerStatus server;               ///< as the attempt found it; the detail says why there is no connection
        bool isLaunching = false;          ///< the program that we started last still runs in the foreground
        QString launchMessages;            ///< what it wrote to standard error
        bool isLate = false;               ///< the user's own deadline has passed
    };

    enum class Action {
        Wait,   ///< look again in a moment
        Start,  ///< start a server, then look again
        GiveUp, ///< the failure is set
    };

    struct Verdict
    {
        Action action = Action::Wait;
        Failure failure;
    };

    /**
     * @param mayStart               whether a server may be started
     * @param describeOtherServers   called when servers with other files prevent the start: a sentence about them
     */
    ConnectionJudge(bool mayStart, std::function<QString()> describeOtherServers);

    /** Called once before the first start and after each attempt, with ascending times. */
    [[nodiscard]] Verdict judge(const Observation &seen);

private:
    [[nodiscard]] Verdict judgeStarts(const Observation &seen);
    [[nodiscard]] Verdict startAt(std::chrono::milliseconds time);
    [[nodiscard]] bool isOtherServerProved(std::chrono::milliseconds time) const;

    const bool mayStart;
    const std::function<QString()> describeOtherServers;
    bool hasStarted = false;
    std::chrono::milliseconds lastStart{0};
    std::chrono::milliseconds lastSeen{0}; ///< when the files last showed a server
    int silentStarts = 0;                  ///< that ended without a message since then
};
