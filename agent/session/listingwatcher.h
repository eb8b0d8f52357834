// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QTimer>

#include <chrono>

#include <sys/types.h>
#include <unistd.h>

/** How long a server may take to write down that there is a session. A value; the defaults are the product's. */
struct ListingLimits
{
    std::chrono::milliseconds grace{30000}; ///< of time in which we run and can look: a disk that hangs costs nothing
    std::chrono::milliseconds interval{1000};
};

/**
 * Notices that no server knows of the session, as when the server was killed, or found the disk full, before it had
 * written down whom it had started. Nobody could ever list, enter or end such a session.
 *
 * Whoever was listed once is never taken for unknown again, whatever becomes of the files: a server that runs keeps its
 * sessions in memory, and one that is replaced under its id is to run on. What cannot be told, for the files cannot be
 * read at the moment, does not count.
 *
 * Looks into the working directory. Owned by the agent, lives on the main thread.
 */
class ListingWatcher final : public QObject
{
    Q_OBJECT

public:
    /** @param guard  the process that a server takes for the session */
    explicit ListingWatcher(ListingLimits limits = {}, pid_t guard = ::getppid(), QObject *parent = nullptr);

    /** Looks at once, and from then on until it is settled. unlisted() may follow, from the event loop. */
    void start();
    void stop();

signals:
    /** No server knows of the session. Emitted at most once. */
    void unlisted();

private:
    void look();

    const pid_t guard;
    std::chrono::milliseconds left; ///< of the grace
    QTimer timer;
};
