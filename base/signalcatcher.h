// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>

class QSocketNotifier;

/**
 * Turns POSIX signals into Qt signals on the thread that it lives in. A signal handler may call almost nothing, so ours
 * only writes the number of the signal into a socket. The catcher reads it from the other end in the event loop.
 *
 * To use it, create a pair with createSignalPair(), set the write end, construct the catcher on the read end, connect
 * its signals, and only then install the handlers. The catcher does not own the descriptors.
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
 * Creates the connected sockets between handler and catcher, both close-on-exec.
 *
 * @param ends  set only on success: the write end, then the read end
 * @return false with errno set on failure
 */
[[nodiscard]] bool createSignalPair(int ends[2]);

/**
 * Sets where the handler writes. This is global, because nothing can be passed to a signal handler. Called once on the
 * main thread, before a handler is installed.
 */
void setSignalWriteEnd(int descriptor);

/** Installs the handler for the signal @p number. */
void catchSignal(int number);
