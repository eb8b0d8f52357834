// SPDX-License-Identifier: MIT
#pragma once

#include "tests/helpers/files.h"

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QMutexLocker>
#include <QString>

#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/**
 * An agent's state socket, served by a thread of its own. It sends every client the state and closes, or misbehaves in
 * one of the ways below. Its functions are callable from any thread.
 */
class AgentSocket final
{
public:
    enum class Manner {
        AnswerAndClose,    ///< as an agent does
        AnswerInPieces,    ///< the same, byte by byte
        AnswerAndLinger,   ///< never closes the connection
        NeverAnswer,       ///< accepts and sends nothing
        Flood,             ///< never stops sending
        AnswerAndHearMore, ///< closes its own direction and records what the client sends
    };

    explicit AgentSocket(const QString &path_, const QByteArray &state = {}, Manner manner_ = Manner::AnswerAndClose)
        : path(path_)
        , manner(manner_)
        , states{state}
    {
        listenOnPath();
        if (::pipe2(wake, O_CLOEXEC) != 0) {
            qFatal("Failed to make a pipe");
        }
        thread = std::thread([this] { serve(); });
    }
    ~AgentSocket()
    {
        ::close(wake[1]);
        thread.join();
        ::close(wake[0]);
        ::close(listener);
        for (const int connection : open) {
            ::close(connection);
        }
        QFile::remove(path);
    }
    Q_DISABLE_COPY_MOVE(AgentSocket)

    /** Sends this state from now on. */
    void setState(const QByteArray &state) { setStates({state}); }
    /** Sends these states one after the other, then always the last one. */
    void setStates(const QList<QByteArray> &next)
    {
        const QMutexLocker locker(&mutex);
        states = next;
    }
    /** Sends the content that this file has at the moment of a connection. */
    void setStateFile(const QString &file)
    {
        const QMutexLocker locker(&mutex);
        stateFile = file;
    }

    /** How many clients have connected. */
    [[nodiscard]] int calls() const
    {
        const QMutexLocker locker(&mutex);
        return callCount;
    }
    /** What clients have sent, with AnswerAndHearMore. */
    [[nodiscard]] QByteArray heard() const
    {
        const QMutexLocker locker(&mutex);
        return heardBytes;
    }
    /** How many clients have disconnected, with AnswerAndHearMore. */
    [[nodiscard]] int disconnections() const
    {
        const QMutexLocker locker(&mutex);
        return goodbyeCount;
    }

private:
    void listenOnPath()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const QByteArray name = QFile::encodeName(path);
        std::strncpy(address.sun_path, name.constData(), sizeof address.sun_path - 1);
        listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            ::listen(listener, 64) != 0) {
            qFatal("Failed to listen on %s", name.constData());
        }
    }

    /** Whether the socket is ready; false once the object is being destroyed. */
    [[nodiscard]] bool waitUntil(int socket, short events) const
    {
        pollfd polled[] = {{socket, events, 0}, {wake[0], POLLIN, 0}};
        while (::poll(polled, 2, -1) < 0) {
        }
        return polled[1].revents == 0;
    }

    void serve()
    {
        while (waitUntil(listener, POLLIN)) {
            const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection >= 0) {
                attend(connection);
            }
        }
    }

    void attend(int connection)
    {
        const QByteArray state = nextState();
        switch (manner) {
        case Manner::AnswerAndClose:
            send(connection, state);
            break;
        case Manner::AnswerInPieces:
            for (const char byte : state) {
                send(connection, QByteArray(1, byte));
                std::this_thread::yield();
            }
            break;
        case Manner::AnswerAndLinger:
            send(connection, state);
            open.push_back(connection);
            return;
        case Manner::NeverAnswer:
            open.push_back(connection);
            return;
        case Manner::Flood:
            while (send(connection, QByteArray(65536, ' '))) {
            }
            break;
        case Manner::AnswerAndHearMore:
            send(connection, state);
            ::shutdown(connection, SHUT_WR);
            hear(connection);
            break;
        }
        ::close(connection);
    }

    QByteArray nextState()
    {
        const QMutexLocker locker(&mutex);
        ++callCount;
        if (!stateFile.isEmpty()) {
            return contentOf(stateFile);
        }
        return states.size() > 1 ? states.takeFirst() : states.constFirst();
    }

    /** Whether all bytes were sent. A client that does not read does not keep the destructor waiting. */
    bool send(int connection, const QByteArray &bytes) const
    {
        qsizetype done = 0;
        while (done < bytes.size()) {
            if (!waitUntil(connection, POLLOUT)) {
                return false;
            }
            const ssize_t sent = ::send(connection, bytes.constData() + done, static_cast<size_t>(bytes.size() - done),
                                        MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent < 0 && errno != EAGAIN) {
                return false;
            }
            done += sent > 0 ? static_cast<qsizetype>(sent) : 0;
        }
        return true;
    }

    void hear(int connection)
    {
        char bytes[256];
        while (waitUntil(connection, POLLIN)) {
            const ssize_t count = ::read(connection, bytes, sizeof bytes);
            const QMutexLocker locker(&mutex);
            if (count <= 0) {
                ++goodbyeCount;
                return;
            }
            heardBytes.append(bytes, static_cast<qsizetype>(count));
        }
    }

    const QString path;
    const Manner manner;
    int listener = -1;
    int wake[2] = {-1, -1}; ///< closing its write end stops the thread
    std::vector<int> open;  ///< connections kept open; used only by the thread while it runs

    mutable QMutex mutex; ///< guards all below
    QList<QByteArray> states;
    QString stateFile;
    int callCount = 0;
    QByteArray heardBytes;
    int goodbyeCount = 0;

    std::thread thread;
};
