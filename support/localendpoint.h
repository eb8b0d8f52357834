// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QString>

#include <memory>

class QSocketNotifier;

/**
 * A listening local socket, private to the user. Uses its path unchanged, because QLocalServer would put a relative one
 * into the temporary directory. Removes the socket's file when it is destroyed. Lives on the main thread.
 */
class LocalEndpoint final : public QObject
{
    Q_OBJECT

public:
    explicit LocalEndpoint(QObject *parent = nullptr);
    ~LocalEndpoint() override;

    /**
     * Starts to listen. Replaces a stale socket of a dead process at @p path, but no socket that still answers and no
     * other kind of file.
     *
     * @param error  set only on failure: one sentence that names the path
     */
    [[nodiscard]] bool listen(const QString &path, QString *error);

signals:
    /**
     * A client of this user, or of root, has connected. Those of others are closed at once. The receiver owns
     * @p descriptor, which is close-on-exec and non-blocking.
     */
    void accepted(int descriptor);

private:
    void acceptPending();

    QByteArray boundPath;
    int listener = -1;
    std::unique_ptr<QSocketNotifier> notifier;
};

/**
 * Connects to the local socket at @p path. Never waits: it fails if the listener's queue is full. The listener must be
 * a process of this user or of root, because anybody may have put a socket there.
 *
 * @return a close-on-exec, non-blocking descriptor that the caller owns; -1 with errno set on failure: EPERM if the
 *         listener is another user's
 */
[[nodiscard]] int connectLocalSocket(const QString &path);

/** The same for the socket with the abstract @p name, which has no file. The name is given without its leading zero. */
[[nodiscard]] int connectAbstractSocket(const QByteArray &name);

/**
 * Makes a listening socket at @p path that only this user can connect to. Replaces a stale socket of a dead process,
 * but no socket that still answers and no other kind of file. The file stays when the socket is closed.
 *
 * @param error  set only on failure: one sentence that names the path
 * @return a close-on-exec, non-blocking descriptor that the caller owns; -1 on failure
 */
[[nodiscard]] int listenPrivately(const QString &path, int backlog, QString *error);

/**
 * Takes the abstract @p name, so that nobody else can have it. Connections to it are refused until the caller listens.
 *
 * @param error  set only on failure: one sentence that names the socket
 * @return a close-on-exec, non-blocking descriptor that the caller owns; -1 on failure
 */
[[nodiscard]] int bindAbstractSocket(const QByteArray &name, QString *error);

/**
 * Removes the stale socket of a dead process at @p path. Succeeds if nothing is there.
 *
 * @param error  set only on failure: one sentence that says what is there and was not removed
 */
[[nodiscard]] bool removeDeadSocket(const QString &path, QString *error);
