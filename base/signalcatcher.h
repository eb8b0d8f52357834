// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>

class QSocketNotifier;

/**
 * Turns POSIX signals into Qt signals on the thread that it lives in. A signal handler may do next to
 * nothing, so ours writes the signal's number into a socket; the catcher reads it from the other end, in the
 * event loop.
 *
 * To use it: make a pair with createSignalPair(), set the write end, construct the catcher on the read end,
 * connect, and only then install the handlers. The catcher does not own either descriptor.
 */
class SignalCatcher : public QObject
{
    Q_OBJECT

public:
    explicit SignalCatcher(int readEnd, QObject *parent = nullptr);

signals:
    void gotHUP();
    void gotTERM();
    void gotINT();
    void gotUSR1();
    void gotUSR2();
    void gotSig(int number);

private slots:
    void activated();

private:
    int readEnd;
    QSocketNotifier *notifier; ///< a child of the catcher
};

/**
 * Creates the connected pair between handler and catcher, close-on-exec.
 *
 * @param ends  set only on success: the write end, then the read end
 * @return false with errno set when the system refuses
 */
[[nodiscard]] bool createSignalPair(int ends[2]);

/**
 * Where the handler writes. Process-wide, for a signal handler cannot be handed anything; set once on the
 * main thread, before any handler is installed.
 */
void setSignalWriteEnd(int descriptor);

/** Installs the handler for @p number. */
void catchSignal(int number);
