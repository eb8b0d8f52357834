// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QString>

#include <csignal>
#include <memory>

#include <sys/types.h>

class QSocketNotifier;

/**
 * Reaps every child of this process, also the orphans that it gets as subreaper, and says who ended. Nothing else in
 * the process may wait for children, so QProcess must not be used.
 *
 * SIGCHLD comes through a descriptor of its own and not through the handler of the other signals. Otherwise an
 * application that ends thousands of processes could fill the queue in which a request to end the session waits.
 * One per process, on the main thread, started before there is any other thread or child.
 */
class ChildWatcher final : public QObject
{
    Q_OBJECT

public:
    explicit ChildWatcher(QObject *parent = nullptr);
    ~ChildWatcher() override;

    /** @param error  set only on failure: one sentence */
    [[nodiscard]] bool start(QString *error);

signals:
    /**
     * The child @p pid ended with @p status, in the form of waitpid(). It is reaped when the slots have returned, so no
     * other process has its pid until then.
     */
    void ended(pid_t pid, int status);

private:
    void reap();

    int descriptor = -1;
    sigset_t maskBefore = {};
    std::unique_ptr<QSocketNotifier> notifier;
};
