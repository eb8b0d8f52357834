// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/doorkey.h"
#include "agent/door/frontdoor.h"
#include "agent/door/passwordstore.h"
#include "support/hostaddress.h"
#include "tests/agent/fakebackend.h"
#include "tests/agent/testlog.h"
#include "tests/agent/viewers.h"
#include "tests/helpers/threadreception.h"
#include "tests/helpers/tlspair.h"

#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include <sys/socket.h>

/** A front door with all that it needs, for the tests of it. */
class DoorTest : public QObject
{
protected:
    QTemporaryDir directory;
    std::unique_ptr<TestLog> log;
    std::unique_ptr<FakeBackend> backend;
    const TlsPair pair = TlsPair::make();
    PasswordStore passwords;
    std::unique_ptr<DoorKey> key;
    std::unique_ptr<ThreadReception> reception;
    TcpPeer localHost = TcpPeer::Ours; ///< whose the connections from 127.0.0.1 are; others are from other hosts
    std::unique_ptr<FrontDoor> door;

    static QHostAddress address(int last) { return QHostAddress(0x7f000000U + static_cast<quint32>(last)); }

    DoorRules rules()
    {
        DoorRules made;
        made.limits = {std::chrono::seconds(20), std::chrono::milliseconds(1)};
        made.findPeer = [this](int socket) {
            const QHostAddress peer = peerAddressOf(socket);
            return peer == QHostAddress(QHostAddress::LocalHost) || peer == QHostAddress(QHostAddress::LocalHostIPv6)
                       ? localHost
                       : TcpPeer::OtherHost;
        };
        return made;
    }

    HandshakeHelpers helpers() { return {reception.get(), key.get(), &passwords, nullptr}; }

    void makeDoor(const DoorRules &chosen)
    {
        door = std::make_unique<FrontDoor>(helpers(), directory.filePath(QStringLiteral("rfb")), chosen);
        QString error;
        QVERIFY2(door->listen(QHostAddress::Any, 0, &error), qPrintable(error));
    }

    /** Makes the door once more, so that it offers TLS. */
    void makeDoorWithTls()
    {
        putFile(directory.filePath(QStringLiteral("key")), pair.keyPem);
        putFile(directory.filePath(QStringLiteral("certificate")), pair.certificatePem);
        makeDoor(rules());
    }

    QString localPath() const { return directory.filePath(QStringLiteral("local")); }

    static qsizetype countConnected(const std::vector<std::unique_ptr<QTcpSocket>> &sockets)
    {
        return std::count_if(sockets.begin(), sockets.end(), [](const std::unique_ptr<QTcpSocket> &socket) {
            return socket->state() == QAbstractSocket::ConnectedState;
        });
    }

    [[nodiscard]] std::unique_ptr<QTcpSocket> connectFrom(const QHostAddress &address) const
    {
        auto socket = std::make_unique<QTcpSocket>();
        socket->bind(address);
        socket->connectToHost(QHostAddress::LocalHost, door->port());
        return socket;
    }

    void setUp()
    {
        log = std::make_unique<TestLog>();
        backend = std::make_unique<FakeBackend>(FakeBackend::Manner::Echo);
        QVERIFY(backend->listen(directory.filePath(QStringLiteral("rfb"))));
        passwords.takeAll();
        QFile::remove(directory.filePath(QStringLiteral("certificate")));
        localHost = TcpPeer::Ours;
        key = std::make_unique<DoorKey>(directory.filePath(QStringLiteral("certificate")),
                                        directory.filePath(QStringLiteral("key")));
        reception = std::make_unique<ThreadReception>();
        makeDoor(rules());
    }

    void tearDown()
    {
        door.reset();
        reception.reset();
        backend.reset();
        log.reset();
    }

private:
    static QHostAddress peerAddressOf(int socket)
    {
        sockaddr_storage storage = {};
        socklen_t size = sizeof storage;
        ::getpeername(socket, reinterpret_cast<sockaddr *>(&storage), &size);
        return withoutIPv4Mapping(QHostAddress(reinterpret_cast<const sockaddr *>(&storage)));
    }
};
