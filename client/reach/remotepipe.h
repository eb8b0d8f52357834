// SPDX-License-Identifier: MIT
#pragma once

#include "client/reach/remotehost.h"
#include "client/terminal/exitcode.h"

#include <QByteArray>
#include <QProcess>
#include <QString>

/**
 * The stream of a session of another host: ssh runs "zarvoctl pipe" there. The destructor ends ssh. Used on the main
 * thread.
 */
class RemotePipe final : public QObject
{
    Q_OBJECT

public:
    explicit RemotePipe(const RemoteHost &host, QObject *parent = nullptr);
    ~RemotePipe() override;

    /**
     * Starts ssh and waits for the first bytes of the session, so that a failure is known before a viewer starts.
     * @param failure  set only on failure: with the exit code of the zarvoctl there, or NoServer if ssh fails
     */
    [[nodiscard]] bool open(const QString &id, Failure *failure);

    /** The descriptor of the stream, which the caller takes over. */
    [[nodiscard]] int takeStream();

    /** What open() has read from the stream already. */
    [[nodiscard]] QByteArray begin() const { return received; }

private:
    void Stream_readable();
    void Process_readyReadStandardError();
    [[nodiscard]] bool hasBegun() const;
    [[nodiscard]] bool start(const QStringList &command, Failure *failure);

    const RemoteHost &host;
    QProcess process;
    int stream = -1;
    QByteArray received;
    QString errors;
    bool hasEnded = false; ///< the stream
};
