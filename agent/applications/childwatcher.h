// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QString>

#include <csignal>
#include <memory>

#include <sys/types.h>

class QSocketNotifier;

/**
 * Reaps every child of this process, those included that it inherits as subreaper, and says who ended. It is the one
 * place that waits for children; nothing else in the process may, the toolkit's process class included.
 *
 * SIGCHLD comes through a descriptor of its own and not through the handler of the other signals: an application that
 * ends thousands of processes must not fill the queue in which a request to end the session waits.
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
    /** The child @p pid ended with @p status, in the form of waitpid(). Nobody else gets its number before the
     * receivers return. */
    void ended(pid_t pid, int status);

private:
    void reap();

    int descriptor = -1;
    sigset_t maskBefore = {};
    std::unique_ptr<QSocketNotifier> notifier;
};
