// SPDX-License-Identifier: MIT
#include "discovery/peerquery.h"

#include "discovery/peerreply.h"
#include "rpc/netstring.h"
#include "rpc/rpcmessage.h"
#include "rpc/tlsrules.h"
#include "support/json.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QHostAddress>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslSocket>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

constexpr int kExchangeTimeoutMs = 15000;

QByteArray requestFrame()
{
    Json::Value request = rpcRequest(kPeerRequestId, u"Live.ListLocalSessions"_s);
    request["params"] = Json::nullValue;
    return encodeNetString(writeJson(request));
}

/**
 * One exchange with a peer, with one deadline for all of it. It runs an event loop, because QSslSocket's waitFor...()
 * functions check their timeout only when there is nothing to read: a peer that keeps sending would block them for
 * ever.
 */
class Exchange
{
public:
    Exchange(const QHostAddress &address_, quint16 port_, QString *error_, QString *kind_)
        : address(address_)
        , port(port_)
        , error(error_)
        , kind(kind_)
        , deadline(kExchangeTimeoutMs, Qt::PreciseTimer)
    {
        alarm.setTimerType(Qt::PreciseTimer);
    }

    bool connect()
    {
        socket.connectToHost(address, port);
        return waitUntil([this] { return socket.state() == QAbstractSocket::ConnectedState; }) ||
               fail("Failed to connect to \"%1\" port \"%2\": %3");
    }

    bool encrypt(const QSslCertificate &certificate, const QSslKey &key)
    {
        QSslConfiguration configuration = socket.sslConfiguration();
        requireStrongTls(&configuration);
        configuration.setPrivateKey(key);
        configuration.setLocalCertificate(certificate);
        // Identity is the comparison below, so the system's authorities are not even loaded.
        configuration.setCaCertificates({});
        socket.setSslConfiguration(configuration);
        socket.ignoreSslErrors();
        socket.startClientEncryption();
        if (!waitUntil([this] { return socket.isEncrypted(); })) {
            return fail("Failed to connect to \"%1\" port \"%2\": %3");
        }
        return socket.peerCertificate() == certificate || fail("The certificate at \"%1\" port \"%2\" does not match");
    }

    bool send(const QByteArray &frame)
    {
        socket.write(frame);
        return waitUntil([this] { return socket.bytesToWrite() + socket.encryptedBytesToWrite() == 0; }) ||
               fail("Failed to write to \"%1\" port \"%2\": %3");
    }

    /** Waits for the next frame. */
    bool receive(QByteArray *payload)
    {
        for (;;) {
            const int outcome = decodeNetString(buffer, *payload, *error);
            if (outcome <= 0) {
                return outcome == 0;
            }
            if (!waitUntil([this] { return socket.bytesAvailable() > 0; })) {
                return fail("Failed to read from \"%1\" port \"%2\": %3");
            }
            buffer += socket.readAll();
        }
    }

private:
    /** Runs the event loop until the condition holds; false if the socket fails before that or time is up. */
    template <typename Condition>
    bool waitUntil(Condition condition)
    {
        QEventLoop loop;
        while (!condition()) {
            if (deadline.hasExpired() || socket.error() != QAbstractSocket::UnknownSocketError) {
                return false;
            }
            alarm.start(static_cast<int>(deadline.remainingTime()) + 1);
            loop.processEvents(QEventLoop::WaitForMoreEvents);
        }
        return true;
    }

    bool fail(const char *pattern)
    {
        // Not from the socket, because it forgets its peer when the connection ends.
        const QString text = QString::fromLatin1(pattern);
        if (kind) {
            *kind = text;
        }
        const QString host = address.toString();
        const QString number = QString::number(port);
        const bool isLate = socket.error() == QAbstractSocket::UnknownSocketError;
        const QString reason = isLate ? u"Network operation timed out"_s : socket.errorString();
        *error = text.contains("%3"_L1) ? text.arg(host, number, reason) : text.arg(host, number);
        return false;
    }

    const QHostAddress address;
    const quint16 port;
    QString *error;
    QString *kind; ///< may be null
    QDeadlineTimer deadline;
    QByteArray buffer; ///< received, but no frame taken from it yet
    QTimer alarm;      ///< wakes the event loop when time is up
    QSslSocket socket;
};

/** A peer pushes changes to all its clients, so a notification may come before the answer. */
bool isNotification(const QByteArray &payload)
{
    Json::Value message;
    return parseJson(payload, &message) && isRpcMessage(message) && isSessionsUpdate(message) &&
           !hasMember(message, "id");
}

} // namespace

bool fetchPeerSessions(const QHostAddress &address, quint16 port, const QSslCertificate &certificate,
                       const QSslKey &key, QList<SessionInfo> &sessions, QString &error, QString *kind)
{
    Exchange exchange(address, port, &error, kind);
    QByteArray payload;
    if (!exchange.connect() || !exchange.encrypt(certificate, key) || !exchange.send(requestFrame())) {
        return false;
    }
    do {
        if (!exchange.receive(&payload)) {
            return false;
        }
    } while (isNotification(payload));
    return readPeerReply(payload, &sessions, &error);
}
