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

/** How often we announce ourselves without a change. Shorter than kExpirySeconds, or peers would forget us. */
constexpr auto kRepeatInterval = 300000ms;
/** How long a peer's list is valid: longer than the peer takes to announce itself again. */
constexpr qint64 kExpirySeconds = 400;
/** After so many datagrams the event loop handles other events. */
constexpr int kMaxDatagramsAtOnce = 256;
/** More than the longest datagram. */
constexpr qsizetype kMaxDatagramBytes = 65536;

/** The addresses of all interfaces. One that is down counts, too: our own datagrams may still carry its address. */
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

/** Escapes line ends and control characters: a peer's message could forge lines of the log or control a terminal. */
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

/** @param kind  empty if the peer has proved that it is ours, so that no stranger can cause the failure */
void logFailure(const QString &kind, const QString &text)
{
    if (kind.isEmpty()) {
        logMessage(LogWarning, text);
    } else {
        Logging::instance()->logOfStrangers(LogWarning, kind, text);
    }
}

QString ownUser()
{
    return qEnvironmentVariable("USER");
}

/**
 * A query occupies a thread of the pool, which makes another one for the requests. If the system cannot give us one
 * more, the query is dropped. The peer's last list stays valid, and the peer will announce itself again.
 */
bool hasThreadFor(const PeerQueue::Peer &peer)
{
    QString error;
    if (canHaveThreads(1, &error)) {
        return true;
    }
    logStrangerMessage(LogWarning, u"Failed to connect to \"%1\" port \"%2\": %3"_s, peer.first.toString(),
                       QString::number(peer.second), error);
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
    , limit(AnnouncementLimit::Clock::now())
{
    connect(socket, &QUdpSocket::readyRead, this, &UdpTalker::Socket_readyRead);
    connect(&timer, &QTimer::timeout, this, &UdpTalker::sendUpdate);
    timer.start(kRepeatInterval);
}

UdpTalker::~UdpTalker()
{
    const auto watchers = findChildren<QFutureWatcher<void> *>();
    for (QFutureWatcher<void> *watcher : watchers) {
        watcher->cancel(); // or waitForFinished() would run a query that has no thread yet on this one
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
    // A failure is ignored, because the next announcement follows anyway.
    socket->writeDatagram(Announcement{method, serverPort, ownUser()}.toDatagram(), address, port);
    if (!wasBound) {
        socket->close(); // sending has bound it, but without discovery nobody may reach us
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
        // Do not ask hasPendingDatagrams() first. The system announces a damaged datagram, but drops it when that
        // function looks at it. Nothing would be read then, and Qt emits no readyRead() until something has been read.
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
        logStrangerMessage(LogWarning, u"Received invalid JSON"_s);
    }
    if (!announcement || announcement->user != ownUser()) {
        return;
    }
    const bool isHello = announcement->method == "HELLO"_L1;
    if (!isHello && announcement->method != "UPDATE"_L1) {
        return;
    }
    if (!limit.admits(sender, AnnouncementLimit::Clock::now())) {
        logStrangerMessage(LogWarning, u"Ignored an announcement from \"%1\", because there are too many"_s,
                           sender.toString());
        return;
    }
    askPeer(sender, announcement->port);
    if (isHello) {
        sendUpdateTo(sender, senderPort);
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
            // The pool does not wait until its threads have really ended. What OpenSSL keeps for a thread would leak,
            // or be freed while the library cleans up at the end of the process.
            OPENSSL_thread_stop();
        }));
    }
}

void UdpTalker::queryPeer(QHostAddress address, quint16 port, QString keyPath_, QString certPath_)
{
    // A query mostly waits, so its thread must not count while clients' requests need the pool.
    QThreadPool::globalInstance()->releaseThread();
    QSslKey key;
    QSslCertificate certificate;
    QString error;
    if (!readCredentials(keyPath_, certPath_, &key, &certificate, &error)) {
        Logging::instance()->logOfStrangers(LogWarning, error, error); // any datagram makes us read them again
    } else {
        const QString location = u"%1:%2"_s.arg(address.toString()).arg(port);
        QList<SessionInfo> sessions;
        QString kind;
        if (fetchPeerSessions(address, port, certificate, key, sessions, error, &kind)) {
            QMetaObject::invokeMethod(
                this, [this, address] { limit.trust(address, AnnouncementLimit::Clock::now()); }, Qt::QueuedConnection);
            store->storeRemoteSessions(location, QDateTime::currentDateTime().addSecs(kExpirySeconds), sessions);
        } else {
            logFailure(kind, onOneLine(error));
            store->forgetRemoteSessions(location);
        }
    }
    QThreadPool::globalInstance()->reserveThread();
}
