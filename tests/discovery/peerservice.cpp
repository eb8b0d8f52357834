// SPDX-License-Identifier: MIT
#include "tests/discovery/peerservice.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QMutexLocker>
#include <QProcess>
#include <QQueue>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpServer>
#include <QTemporaryDir>

#include <cerrno>

#include <sys/socket.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPollMs = 20;
constexpr int kPatienceMs = 30000;

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/** A server that only collects the descriptors of its connections. */
class Door : public QTcpServer
{
public:
    QQueue<qintptr> waiting;

protected:
    void incomingConnection(qintptr descriptor) override { waiting.enqueue(descriptor); }
};

} // namespace

KeyPair KeyPair::make()
{
    const QTemporaryDir dir;
    const QString certificate = dir.filePath(u"cert"_s);
    const QString key = dir.filePath(u"key"_s);
    QProcess openssl;
    openssl.start(u"openssl"_s, {u"req"_s, u"-x509"_s, u"-newkey"_s, u"rsa:2048"_s, u"-nodes"_s, u"-batch"_s,
                                 u"-days"_s, u"365"_s, u"-keyout"_s, key, u"-out"_s, certificate});
    openssl.waitForFinished();
    const QByteArray certificateText = contentOf(certificate);
    const QByteArray keyText = contentOf(key);
    return {QSslCertificate(certificateText), QSslKey(keyText, QSsl::Rsa), certificateText, keyText};
}

PeerService::PeerService(const QHostAddress &address_, const KeyPair &pair_, Manner manner_)
    : address(address_)
    , pair(pair_)
    , manner(manner_)
{
    start();
    const QDeadlineTimer deadline(kPatienceMs);
    while (boundPort == 0 && !deadline.hasExpired()) {
        QThread::msleep(1);
    }
}

PeerService::~PeerService()
{
    ended = true;
    wait();
}

void PeerService::setPieces(const QList<QByteArray> &pieces_)
{
    const QMutexLocker locker(&mutex);
    pieces = pieces_;
}

QByteArray PeerService::received() const
{
    const QMutexLocker locker(&mutex);
    return request;
}

QSslCertificate PeerService::shown() const
{
    const QMutexLocker locker(&mutex);
    return clientCertificate;
}

void PeerService::run()
{
    Door door;
    if (!door.listen(address)) {
        return;
    }
    boundPort = door.serverPort();
    while (!ended) {
        door.waitForNewConnection(kPollMs);
        while (!door.waiting.isEmpty()) {
            ++accepted;
            serve(door.waiting.dequeue());
        }
    }
}

/** Sends, without a pause, requests for a new handshake during the first one. The other side has to ignore them. */
void PeerService::flood(qintptr descriptor) const
{
    const QByteArray record = QByteArray::fromHex("1603034000") + QByteArray(0x4000, '\0');
    const QByteArray many = record.repeated(16);
    const QDeadlineTimer deadline(40000);
    qsizetype sent = 0;
    while (!ended && !deadline.hasExpired()) {
        const ssize_t count = ::send(static_cast<int>(descriptor), many.constData() + sent,
                                     static_cast<size_t>(many.size() - sent), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count == -1 && errno != EAGAIN) {
            return;
        }
        sent = count > 0 ? (sent + count) % many.size() : sent;
    }
}

void PeerService::serve(qintptr descriptor)
{
    QSslSocket socket;
    socket.setSocketDescriptor(descriptor);
    const auto waitForHangUp = [this, &socket] {
        while (!ended && socket.state() == QAbstractSocket::ConnectedState) {
            socket.waitForDisconnected(kPollMs);
        }
    };
    if (manner == Manner::FloodsHandshake) {
        socket.waitForReadyRead(kPatienceMs); // the start of its handshake
        flood(descriptor);
        return;
    }
    if (manner == Manner::NoTls) {
        socket.write("no TLS at all\r\n");
        socket.waitForBytesWritten(kPatienceMs);
        return;
    }
    if (manner == Manner::NeverEncrypts) {
        waitForHangUp();
        return;
    }
    QSslConfiguration configuration = socket.sslConfiguration();
    configuration.setPrivateKey(pair.key);
    configuration.setLocalCertificate(pair.certificate);
    configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
    socket.setSslConfiguration(configuration);
    socket.ignoreSslErrors();
    socket.startServerEncryption();
    if (!socket.waitForEncrypted(kPatienceMs)) {
        return;
    }
    QByteArray read;
    // Check bytesAvailable() first: data that came with the end of the handshake causes no further readyRead().
    while (!read.endsWith(',') && (socket.bytesAvailable() > 0 || socket.waitForReadyRead(kPatienceMs))) {
        read += socket.readAll();
    }
    QList<QByteArray> toSend;
    {
        const QMutexLocker locker(&mutex);
        clientCertificate = socket.peerCertificate();
        request += read;
        toSend = pieces;
    }
    if (read.isEmpty()) {
        return;
    }
    for (const QByteArray &piece : std::as_const(toSend)) {
        socket.write(piece);
        while (socket.bytesToWrite() + socket.encryptedBytesToWrite() > 0 && socket.waitForBytesWritten(kPatienceMs)) {
        }
    }
    if (manner == Manner::HangsUp) {
        socket.disconnectFromHost();
    }
    waitForHangUp();
}
