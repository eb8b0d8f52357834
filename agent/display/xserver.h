// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <memory>

#include <sys/types.h>

class ChildWatcher;
class QLocalSocket;
class QSocketNotifier;

/** What an X server is started with. A value. */
struct XServerSettings
{
    quint16 display = 0;
    QSize size;
    QString title;               ///< viewers show it
    QByteArray authorityEntries; ///< who may connect, in the form of an authority file
    QString rfbSocket;           ///< where it serves the screen; relative to the working directory
};

/**
 * The X server behind a session: its process from the start to the end, with what it says on the way. It tells when
 * the screen is served, and when the process is gone, whoever ended it; what a killed one leaves behind is removed.
 * Owned by the agent, lives on the main thread, started at most once.
 */
class XServer final : public QObject
{
    Q_OBJECT

public:
    /** @param watcher  outlives this object */
    explicit XServer(ChildWatcher *watcher, QObject *parent = nullptr);
    ~XServer() override;

    /**
     * Starts the process. ready() or ended() follows; when the server does not serve its screen within 10 s it is
     * killed.
     *
     * @param error  set only on failure: one sentence
     */
    [[nodiscard]] bool start(const XServerSettings &settings, QString *error);

    /** Asks the process to end and kills it when it has not after 5 s. ended() follows if isRunning(). */
    void stop();

    [[nodiscard]] bool isRunning() const { return process > 0; }
    /** The process's id; 0 when it is not running. */
    [[nodiscard]] pid_t pid() const { return process; }

    /** The last lines that the process wrote, oldest first; at most 20 of at most 200 characters. */
    [[nodiscard]] const QStringList &lastLines() const { return lines; }

signals:
    void ready();
    /** The process is gone, and isRunning() is false. @p reason says how, in a few words. */
    void ended(const QString &reason);

private:
    void probe();
    void Probe_readyRead();
    void dropProbe();
    void Watcher_ended(pid_t pid, int status);
    void Output_activated();
    void Deadline_timeout();
    void addOutput(const QByteArray &bytes);

    XServerSettings settings;
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
