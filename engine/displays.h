// SPDX-License-Identifier: MIT
#pragma once

#include <QHash>
#include <QMutex>

#include <optional>

/**
 * Whether nobody listens on this TCP port of the loopback address: only a refused connection says so. Blocks
 * for up to 1000 ms; callable from any thread.
 */
[[nodiscard]] bool isPortFree(quint16 port);

/**
 * The display numbers of our sessions, from before they are started until they have left the registry: nothing on the
 * system shows yet that they are taken while an agent is slow. Two sessions on one display would see each other's
 * state, passwords included. Callable from any thread.
 */
class DisplayReservations
{
public:
    /** Reserves the number; false when it is reserved already. */
    [[nodiscard]] bool insert(quint16 display);
    /** Reserves the number once more, whoever else has. */
    void hold(quint16 display);
    /** Takes back one insert() or hold(). */
    void remove(quint16 display);

private:
    QMutex mutex;                 ///< guards the table
    QHash<quint16, int> displays; ///< how often each is reserved, never 0
};

/** One number in such a set, for as long as this object lives. Used by one thread. */
class DisplayReservation
{
public:
    explicit DisplayReservation(DisplayReservations *all);
    ~DisplayReservation();
    Q_DISABLE_COPY_MOVE(DisplayReservation)

    /** Gives up the number held so far and reserves this one, unless another start has. */
    [[nodiscard]] bool take(quint16 display);
    void release();
    /** Leaves the number reserved for good. */
    void keep();

private:
    DisplayReservations *all; ///< not owned
    std::optional<quint16> held;
};

/**
 * The first display number from @p base up to, but not including, @p limit (in 16 bits) whose ports, sockets and lock
 * file nobody uses, an outgoing connection on the agent's port included; nothing when there is none. Blocks for up to
 * 2000 ms for each number tried; callable from any thread.
 *
 * @param reservation  where given, holds the number afterwards; numbers that others hold are passed over
 */
[[nodiscard]] std::optional<quint16> findOpenDisplay(quint16 base, quint16 limit,
                                                     DisplayReservation *reservation = nullptr);

/**
 * Removes what processes of this user that were killed have left of the display: the agent's socket, the X socket when
 * nobody listens on them, and the X lock file when its process is gone. The display could never be found open
 * otherwise. Call it once the display's agent is gone and before its number may be given away again; callable from any
 * thread.
 */
void removeStaleDisplayFiles(quint16 display);
