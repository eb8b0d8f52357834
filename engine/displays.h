// SPDX-License-Identifier: MIT
#pragma once

#include <QHash>
#include <QMutex>

#include <optional>

/**
 * Whether no process listens on this TCP port of the loopback address. Only a refused connection proves it. Blocks for
 * up to 1000 ms; callable from any thread.
 */
[[nodiscard]] bool isPortFree(quint16 port);

/**
 * The display numbers of our sessions, from before their start until they have left the registry. Until an agent is
 * ready nothing on the system shows that its number is taken, and two sessions on one display would see each other's
 * state, including passwords. Callable from any thread.
 */
class DisplayReservations
{
public:
    /** Reserves the number; false when it is already reserved. */
    [[nodiscard]] bool insert(quint16 display);
    /** Reserves the number, also when it is already reserved. */
    void hold(quint16 display);
    /** Undoes one insert() or hold(). The number is free when all are undone. */
    void remove(quint16 display);

private:
    QMutex mutex;                 ///< guards the table
    QHash<quint16, int> displays; ///< how often each is reserved, never 0
};

/** Reserves one number at a time, as long as this object lives. Used by one thread. */
class DisplayReservation
{
public:
    explicit DisplayReservation(DisplayReservations *all);
    ~DisplayReservation();
    Q_DISABLE_COPY_MOVE(DisplayReservation)

    /** Releases the number held so far and reserves this one; false when it is already reserved. */
    [[nodiscard]] bool take(quint16 display);
    void release();
    /** Leaves the number reserved until the server ends. */
    void keep();

private:
    DisplayReservations *all; ///< not owned
    std::optional<quint16> held;
};

/**
 * The first free display number from @p base up to, but not including, @p limit (in 16 bits); nothing when all are in
 * use. A number is free when its ports, sockets and lock file are unused. Whatever would make the agent or its X server
 * fail counts as a use: an outgoing connection on the agent's port, a listener for IPv6 alone, an abstract socket with
 * the name of X's, a dangling symlink. Blocks for up to 2000 ms per number tried; callable from any thread.
 *
 * @param reservation  if given, holds the number afterwards, and numbers that are already reserved are skipped
 */
[[nodiscard]] std::optional<quint16> findOpenDisplay(quint16 base, quint16 limit,
                                                     DisplayReservation *reservation = nullptr);

/**
 * Removes the stale files of the display that killed processes of this user have left: the agent's socket and the X
 * socket when no process listens on them, and the X lock file when its process is gone. Otherwise the display would
 * never be free again. Call it after the display's agent has ended and before its number is released; callable from
 * any thread.
 */
void removeStaleDisplayFiles(quint16 display);
