// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/vncauth.h"

#include <QHostAddress>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTest>

#include <utility>

/** A client that does the handshake by itself, with the password that it gets. Closes when it is refused. */
class Viewer final
{
public:
    Viewer(quint16 port, QByteArray password_, const QHostAddress &host = QHostAddress(QHostAddress::LocalHost),
           const QHostAddress &from = {})
        : password(std::move(password_))
    {
        QObject::connect(&socket, &QTcpSocket::readyRead, &socket, [this] { read(); });
        if (!from.isNull()) {
            socket.bind(from);
        }
        socket.connectToHost(host, port);
    }

    bool isIn() const { return received.size() >= 34 && received.mid(30, 4) == QByteArray(4, '\0'); }
    bool isRefused() const { return socket.state() == QAbstractSocket::UnconnectedState && !isIn(); }

    QTcpSocket socket;
    QByteArray received; ///< greeting (12 bytes), types (2), challenge (16), result (4), and what follows

private:
    void read()
    {
        const qsizetype before = received.size();
        received += socket.readAll();
        if (before < 12 && received.size() >= 12) {
            socket.write("RFB 003.008\n\x02");
        }
        if (before < 30 && received.size() >= 30) {
            socket.write(vncAuthResponse(password, received.mid(14, 16)));
        }
        if (received.size() >= 34 && !isIn()) {
            socket.disconnectFromHost();
        }
    }

    QByteArray password;
};

/** A viewer with TLS. Its handshake is done by the steps of the test. */
class TlsViewer final
{
public:
    explicit TlsViewer(quint16 port) { socket.connectToHost(QHostAddress::LocalHost, port); }

    /** @return whether it is let in */
    [[nodiscard]] bool logIn(const QByteArray &password)
    {
        socket.write(QByteArray("RFB 003.008\n") + QByteArray::fromHex("13000200000105"));
        if (!waitFor(12 + 3 + 2 + 6 + 1)) { // greeting, types, version of VeNCrypt, its types, and that TLS begins
            return false;
        }
        socket.readAll();
        socket.setPeerVerifyMode(QSslSocket::VerifyNone);
        socket.startClientEncryption();
        if (!waitFor(kVncChallengeBytes)) {
            return false;
        }
        socket.write(vncAuthResponse(password, socket.readAll()));
        return waitFor(4) && socket.read(4) == QByteArray(4, '\0');
    }

    [[nodiscard]] bool waitFor(qint64 bytes)
    {
        return QTest::qWaitFor([this, bytes] { return socket.bytesAvailable() >= bytes; }, 30000);
    }

    QSslSocket socket;
};
