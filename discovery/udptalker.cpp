// SPDX-License-Identifier: MIT
#include "discovery/udptalker.h"

#include "base/logging.h"
#include "discovery/announcement.h"
#include "discovery/peerquery.h"
#include "live/sessionstore.h"
#include "support/credentials.h"
#include "support/hostaddress.h"
#include "support/systemthreads.h"

#include <openssl/crypto.h>

#include <QFutureWatcher>
#include <QNetworkInterface>
#include <QSslCertificate>
#include <QSslKey>
#include <QThreadPool>
#include <QUdpSocket>
#include <QtConcurrentRun>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** So often everybody is told of us even without a change, before peers forget what they know. */
constexpr auto kRepeatInterval = 300000ms;
/** How long a peer's list counts: longer than it takes the peer to announce itself again. */
constexpr qint64 kExpirySeconds = 400;
/** After so many datagrams everybody else has his turn. */
constexpr int kMaxDatagramsAtOnce = 256;
/** More than a datagram can hold. */
constexpr qsizetype kMaxDatagramBytes = 65536;

/** Those of every interface, also of one that is down: it may still be what a datagram of ours names. */
QList<QHostAddress> allOwnAddresses()
{
    QList<QHostAddress> addresses;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            addresses.append(entry.ip());
        }
    }
    return addresses;
}

/** With a peer's own words in it a text could pass for several lines of the log, or command a terminal. */
QString onOneLine(const QString &text)
{
    QString line;
    line.reserve(text.size());
    for (const QChar c : text) {
        const bool breaksLine = c.category() == QChar::Other_Control || c.category() == QChar::Separator_Line ||
                                c.category() == QChar::Separator_Paragraph;
        line += breaksLine ? u"\\u%1"_s.arg(uint(c.unicode()), 4, 16, QChar(u'0')) : QString(c);
    }
    return line;
}

QString ownUser()
{
    return qEnvironmentVariable("USER");
}

/**
 * A query takes one of the pool's threads from the requests, which have another one made when they need it. Where there
 * is none to be had it is given up: the peer will speak again, and what it said last is no less true for our want.
 */
bool hasThreadFor(const PeerQueue::Peer &peer)
{
    QString error;
    if (canHaveThreads(1, &error)) {
        return true;
    }
    logMessage(LogWarning, u"Failed to connect to \"%1\" port \"%2\": %3"_s.arg(peer.first.toString(),
                                                                                QString::number(peer.second), error));
    return false;
}

} // namespace

UdpTalker::UdpTalker(QUdpSocket *socket_, const QHostAddress &broadcastAddress_, quint16 broadcastPort_,
                     quint16 serverPort_, SessionStore *store_, const QString &keyPath_, const QString &certPath_,
                     QObject *parent)
    : QObject(parent)
    , socket(socket_)
    , broadcastAddress(broadcastAddress_)
    , broadcastPort(broadcastPort_)
    , serverPort(serverPort_)
    , store(store_)
    , keyPath(keyPath_)
    , certPath(certPath_)
    , timer(this)
{
    connect(socket, &QUdpSocket::readyRead, this, &UdpTalker::Socket_readyRead);
    connect(&timer, &QTimer::timeout, this, &UdpTalker::sendUpdate);
    timer.start(kRepeatInterval);
}

UdpTalker::~UdpTalker()
{
    const auto watchers = findChildren<QFutureWatcher<void> *>();
    for (QFutureWatcher<void> *watcher : watchers) {
        watcher->cancel(); // what has no thread yet would be asked by this one
    }
    for (QFutureWatcher<void> *watcher : watchers) {
        watcher->waitForFinished();
    }
}

void UdpTalker::sendHello()
{
    send(u"HELLO"_s, broadcastAddress, broadcastPort);
}

void UdpTalker::sendUpdate()
{
    send(u"UPDATE"_s, broadcastAddress, broadcastPort);
}

void UdpTalker::sendUpdateTo(QHostAddress address, quint16 port)
{
    send(u"UPDATE"_s, address, port);
}

void UdpTalker::send(const QString &method, const QHostAddress &address, quint16 port)
{
    const bool wasBound = socket->state() == QAbstractSocket::BoundState;
    // Nobody can be told of a failure, and the next announcement follows anyway.
    socket->writeDatagram(Announcement{method, serverPort, ownUser()}.toDatagram(), address, port);
    if (!wasBound) {
        socket->close(); // sending has bound it to a port, where anybody would reach a server without discovery
    }
}

void UdpTalker::Socket_readyRead()
{
    auto *source = qobject_cast<QUdpSocket *>(sender());
    if (!source) {
        return;
    }
    const QList<QHostAddress> ownAddresses = allOwnAddresses();
    QByteArray buffer(kMaxDatagramBytes, Qt::Uninitialized);
    for (int count = 0; count < kMaxDatagramsAtOnce; ++count) {
        QHostAddress peer;
        quint16 peerPort = 0;
        // Without a look whether there is one: the system announces a damaged datagram and drops it when it is looked
        // at, and a socket that nobody has read from since its last readyRead() emits no other.
        const qint64 length = source->readDatagram(buffer.data(), buffer.size(), &peer, &peerPort);
        if (length < 0) {
            return;
        }
        peer = withoutIPv4Mapping(peer);
        if (!ownAddresses.contains(peer)) {
            handleDatagram(buffer.first(length), peer, peerPort);
        }
    }
}

void UdpTalker::handleDatagram(const QByteArray &datagram, const QHostAddress &sender, quint16 senderPort)
{
    bool isJson = false;
    const std::optional<Announcement> announcement = Announcement::fromDatagram(datagram, &isJson);
    if (!isJson) {
        logMessage(LogWarning, u"Received invalid JSON"_s);
    }
    if (!announcement || announcement->user != ownUser()) {
        return;
    }
    if (announcement->method == "HELLO"_L1) {
        askPeer(sender, announcement->port);
        sendUpdateTo(sender, senderPort);
    } else if (announcement->method == "UPDATE"_L1) {
        askPeer(sender, announcement->port);
    }
}

void UdpTalker::askPeer(const QHostAddress &address, quint16 port)
{
    queue.add({address, port});
    askNext();
}

void UdpTalker::askNext()
{
    while (const std::optional<PeerQueue::Peer> peer = queue.next()) {
        if (!hasThreadFor(*peer)) {
            queue.finish(*peer);
            continue;
        }
        auto *watcher = new QFutureWatcher<void>(this);
        connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher, peer = *peer] {
            watcher->deleteLater();
            queue.finish(peer);
            askNext();
        });
        watcher->setFuture(QtConcurrent::run([this, peer = *peer] {
            queryPeer(peer.first, peer.second, keyPath, certPath);
            // The pool does not wait for the very end of its threads, and the process would leave what the library
            // keeps for each, or free it under the library's own clean-up.
            OPENSSL_thread_stop();
        }));
    }
}

void UdpTalker::queryPeer(QHostAddress address, quint16 port, QString keyPath_, QString certPath_)
{
    // A query does nothing but wait; clients' requests need the pool's threads meanwhile.
    QThreadPool::globalInstance()->releaseThread();
    QSslKey key;
    QSslCertificate certificate;
    QString error;
    if (!readPrivateKey(keyPath_, &key, &error) || !readCertificate(certPath_, &certificate, &error)) {
        logMessage(LogWarning, error);
    } else {
        const QString location = u"%1:%2"_s.arg(address.toString()).arg(port);
        QList<SessionInfo> sessions;
        if (fetchPeerSessions(address, port, certificate, key, sessions, error)) {
            store->storeRemoteSessions(location, QDateTime::currentDateTime().addSecs(kExpirySeconds), sessions);
        } else {
            logMessage(LogWarning, onOneLine(error));
            store->forgetRemoteSessions(location);
        }
    }
    QThreadPool::globalInstance()->reserveThread();
}
