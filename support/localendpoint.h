// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QString>

#include <memory>

class QSocketNotifier;

/**
 * A local socket that listens at a path which is used as it is, relative ones included: the toolkit's own class puts
 * those into the temporary directory. Private to the user; removed from the file system with the object.
 * Lives on the main thread.
 */
class LocalEndpoint final : public QObject
{
    Q_OBJECT

public:
    explicit LocalEndpoint(QObject *parent = nullptr);
    ~LocalEndpoint() override;

    /**
     * Starts to listen. A socket that a dead process left behind at @p path is replaced; one that still
     * answers, and anything that is no socket, is not touched.
     *
     * @param error  set only on failure: one sentence that names the path
     */
    [[nodiscard]] bool listen(const QString &path, QString *error);

signals:
    /** Somebody connected. The receiver owns @p descriptor, which is close-on-exec and non-blocking. */
    void accepted(int descriptor);

private:
    void acceptPending();

    QByteArray boundPath;
    int listener = -1;
    std::unique_ptr<QSocketNotifier> notifier;
};

/**
 * Connects to the local socket at @p path, without waiting: a listener whose queue is full counts as a failure.
 *
 * @return a close-on-exec, non-blocking descriptor that the caller owns; -1 with errno set on failure
 */
[[nodiscard]] int connectLocalSocket(const QString &path);

/**
 * Makes sure that nothing stands at @p path: removes the socket of a process that is dead.
 *
 * @param error  set only on failure: one sentence that says what is there and must stay
 */
[[nodiscard]] bool removeDeadSocket(const QString &path, QString *error);
