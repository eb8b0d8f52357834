// SPDX-License-Identifier: MIT
#pragma once

#include "discovery/announcementlimit.h"
#include "discovery/peerqueue.h"

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QTimer>

class QUdpSocket;
class SessionStore;

/**
 * Finds the other servers of the same user: announces this one by broadcast, asks each server that it hears of for its
 * sessions, and gives their list to the SessionStore. A datagram only says where to ask. The peer proves who it is by
 * its certificate.
 *
 * Lives on the main thread. Peers are asked on pool threads. Whatever is sent to us, AnnouncementLimit bounds how often
 * we answer or ask, and PeerQueue how many are asked at a time.
 */
class UdpTalker : public QObject
{
    Q_OBJECT

public:
    /**
     * @param socket         not owned; bound to @p broadcastPort unless that is 0
     * @param serverPort     where our service listens
     * @param store          not owned
     * @param keyPath        our key and certificate, read again for each query
     */
    UdpTalker(QUdpSocket *socket, const QHostAddress &broadcastAddress, quint16 broadcastPort, quint16 serverPort,
              SessionStore *store, const QString &keyPath, const QString &certPath, QObject *parent);
    /** Waits for the running queries, up to 15 seconds. Those that have no thread yet are dropped. */
    ~UdpTalker() override;

public slots:
    /** Announces to everybody that we have started. */
    void sendHello();
    /** Announces to everybody that our sessions have changed. */
    void sendUpdate();
    void sendUpdateTo(QHostAddress address, quint16 port);

private slots:
    void Socket_readyRead();

private:
    void send(const QString &method, const QHostAddress &address, quint16 port);
    void handleDatagram(const QByteArray &datagram, const QHostAddress &sender, quint16 senderPort);
    void askPeer(const QHostAddress &address, quint16 port);
    void askNext();
    void queryPeer(QHostAddress address, quint16 port, QString keyPath, QString certPath);

    QUdpSocket *socket;
    const QHostAddress broadcastAddress;
    const quint16 broadcastPort;
    const quint16 serverPort;
    SessionStore *store;
    const QString keyPath;
    const QString certPath;
    QTimer timer;
    AnnouncementLimit limit;
    PeerQueue queue; ///< each peer that is being asked has a watcher among the children
};
