// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QObject>
#include <QSocketNotifier>

#include <memory>

/**
 * Delays the end of the program by SIGINT, SIGTERM or SIGHUP, so that temporary files and child processes are cleaned
 * up first. While it lives, a signal ends the EventWait that is running, as if its timeout had passed; later waits are
 * not affected. The destructor raises the signal again, which ends the program. Signals that were ignored when the
 * program started stay ignored. At most one may exist; used on the main thread.
 */
class Interruption : public QObject
{
    Q_OBJECT

public:
    explicit Interruption(QObject *parent = nullptr);
    ~Interruption() override;

    /** The one that exists; null if there is none. */
    [[nodiscard]] static Interruption *current();

    [[nodiscard]] bool hasCaughtSignal() const { return number != 0; }

    /** The same, right after the signal and without an event loop. The signal that it finds ends no wait any more. */
    [[nodiscard]] bool poll();

    /** While it is on, signals are kept for the destructor and end no wait: for steps that must be finished. */
    void setHeldBack(bool isOn) { isHeldBack = isOn; }

signals:
    void signalCaught();

private:
    void Notifier_activated();
    [[nodiscard]] bool readSignal();

    int ends[2] = {-1, -1}; ///< the signal handler writes to the first; we read from the second
    std::unique_ptr<QSocketNotifier> notifier;
    QList<int> caught;
    int number = 0; ///< of the caught signal; 0 if none was caught
    bool isHeldBack = false;
};
