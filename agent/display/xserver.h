// SPDX-License-Identifier: MIT
#pragma once

#include "agent/display/displayconnection.h"

#include <QObject>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <memory>

#include <sys/types.h>

class ChildWatcher;
class DisplaySocket;
class QLocalSocket;
class QSocketNotifier;

/** What an X server is started with. A value. */
struct XServerSettings
{
    quint16 display = 0;
    QSize size;
    QString title;               ///< what viewers show
    QByteArray authorityEntries; ///< the cookies that open the display, in the form of an authority file
    QString socketFolder = QLatin1StringView(kDisplaySocketFolder); ///< tests use another one
    QString rfbSocket; ///< where it serves the screen; relative to the working directory
};

/**
 * The process of the X server behind a session, from its start to its end, with the last lines of its output. Signals
 * when the screen is served, and when the process has ended for any reason. Removes the files that a killed X server
 * leaves behind. Owned by the agent, lives on the main thread, started at most once.
 */
class XServer final : public QObject
{
    Q_OBJECT

public:
    /** @param watcher  outlives this object */
    explicit XServer(ChildWatcher *watcher, QObject *parent = nullptr);
    ~XServer() override;

    /**
     * Starts the process. ready() or ended() follows. An X server that does not serve its screen within 10 s is killed.
     *
     * @param error  set only on failure: one sentence
     */
    [[nodiscard]] bool start(const XServerSettings &settings, QString *error);

    /** Asks the process to end, and kills it after 5 s if it still runs. ended() follows if isRunning(). */
    void stop();

    [[nodiscard]] bool isRunning() const { return process > 0; }
    /** The pid; 0 when the process is not running. */
    [[nodiscard]] pid_t pid() const { return process; }

    /** Why every user of the machine can connect to the display, as one sentence; empty when only this user can. */
    [[nodiscard]] QString weakness() const;

    /** The last lines that the process wrote, oldest first; at most 20 of at most 200 characters. */
    [[nodiscard]] const QStringList &lastLines() const { return lines; }

signals:
    void ready();
    /** The process has ended, and isRunning() is false. @p reason says how, in a few words. */
    void ended(const QString &reason);

private:
    void probe();
    void Probe_readyRead();
    void dropProbe();
    [[nodiscard]] pid_t spawn(const QByteArray &program, int authority, int outputEnd, QString *error) const;
    void Watcher_ended(pid_t pid, int status);
    void Output_activated();
    void Deadline_timeout();
    void addOutput(const QByteArray &bytes);

    XServerSettings settings;
    std::unique_ptr<DisplaySocket> displaySocket;
    pid_t process = 0;
    int output = -1; ///< the end of the pipe that we read
    bool isTooLate = false;
    std::unique_ptr<QSocketNotifier> outputNotifier;
    std::unique_ptr<QLocalSocket> probeSocket;
    QTimer probeTimer;
    QTimer deadline;
    QTimer killTimer;
    QByteArray unfinishedLine;
    QStringList lines;
};
