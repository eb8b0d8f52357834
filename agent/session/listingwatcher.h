// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QTimer>

#include <chrono>

#include <sys/types.h>
#include <unistd.h>

/** Whether a server that reads the session's directory finds the session in it. */
enum class Listing {
    Listed,
    Unlisted,
    Unknown, ///< the files cannot be read at the moment
};

/** How long a server may take to write down that there is a session. A value; the defaults are the product's. */
struct ListingLimits
{
    std::chrono::milliseconds grace{30000}; ///< counts only while we run and can read the files
    std::chrono::milliseconds interval{1000};
};

/**
 * Notices that no server knows of the session: the server was killed, or found the disk full, before it wrote down whom
 * it had started. Nobody could ever list, enter or end such a session.
 *
 * Once listed, a session counts as listed for good, whatever happens to the files: a running server keeps its sessions
 * in memory, and a session whose id is started again must run on.
 *
 * Looks into the working directory. Owned by the agent, lives on the main thread.
 */
class ListingWatcher final : public QObject
{
    Q_OBJECT

public:
    /** @param guard  the process that a server takes for the session */
    explicit ListingWatcher(ListingLimits limits = {}, pid_t guard = ::getppid(), QObject *parent = nullptr);

    /** Looks at once, and then again until the session is listed. unlisted() may follow. */
    void start();
    void stop();

signals:
    /** No server knows of the session. Emitted at most once. */
    void unlisted();

private:
    void look();
    void spendGrace();

    const pid_t guard;
    std::chrono::milliseconds graceLeft;
    QTimer timer;
};
