// SPDX-License-Identifier: MIT
#pragma once

#include <QMutex>
#include <QSet>

#include <optional>

/**
 * Whether nobody listens on this TCP port of the loopback address: only a refused connection says so. Blocks
 * for up to 1000 ms; callable from any thread.
 */
[[nodiscard]] bool isPortFree(quint16 port);

/**
 * The display numbers of sessions that are being started: nothing on the system shows yet that they are taken. Two
 * sessions on one display would see each other's state, passwords included. Callable from any thread.
 */
class DisplayReservations
{
public:
    /** Reserves the number; false when it is reserved already. */
    [[nodiscard]] bool insert(quint16 display);
    void remove(quint16 display);

private:
    QMutex mutex; ///< guards the set
    QSet<quint16> displays;
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

private:
    DisplayReservations *all; ///< not owned
    std::optional<quint16> held;
};

/**
 * The first display number from @p base up to, but not including, @p limit (in 16 bits) whose ports, sockets and lock
 * file nobody uses; nothing when there is none. Blocks for up to 2000 ms for each number tried; callable from any
 * thread.
 *
 * @param reservation  where given, holds the number afterwards; numbers that others hold are passed over
 */
[[nodiscard]] std::optional<quint16> findOpenDisplay(quint16 base, quint16 limit,
                                                     DisplayReservation *reservation = nullptr);
