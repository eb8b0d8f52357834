// SPDX-License-Identifier: MIT
#pragma once

#include "rpc/strangerlimit.h"

#include <QHash>
#include <QList>
#include <QQueue>
#include <QSslCertificate>
#include <QSslKey>
#include <QTcpServer>
#include <QTimer>

class ClientSocket;
class SilentConnection;

/**
 * Accepts TLS connections and admits only clients that present the server's own certificate. The handshake succeeds for
 * everybody. Admission is the comparison of certificates after it, before a request is read. Lives on the main thread.
 *
 * Clients of another host or user are strangers until they are admitted. Their number is bounded (StrangerLimit), they
 * cost little until they send something, and their handshakes begin one at a time, so that they delay nobody else.
 */
class SslServer : public QTcpServer
{
    Q_OBJECT

public:
    explicit SslServer(QObject *parent = nullptr);
    ~SslServer() override;
    Q_DISABLE_COPY_MOVE(SslServer)

    void setPrivateKey(const QSslKey &key);
    void setLocalCertificate(const QSslCertificate &certificate);
    /** Chain certificates that are offered with the local one. */
    void setExtraCertificates(const QList<QSslCertificate> &certificates);

protected:
    void incomingConnection(qintptr socketDescriptor) override;

private slots:
    void socketEncrypted();

private:
    struct Stranger
    {
        SilentConnection *silent = nullptr; ///< until its turn to begin a handshake
        ClientSocket *socket = nullptr;     ///< from then on
    };

    void pauseAfterMany();
    void acceptMore();
    [[nodiscard]] bool closeIfFull(qintptr socketDescriptor);
    void receiveStranger(int socketDescriptor);
    void closeExcess();
    void beginNextHandshake();
    void removeStranger(StrangerLimit::Id id);
    /** Starts TLS. Returns none, and closes the descriptor, if that fails. */
    [[nodiscard]] ClientSocket *addClient(qintptr socketDescriptor);
    [[nodiscard]] bool startTls(ClientSocket *socket);

    QSslKey privateKey;
    QSslCertificate localCertificate;
    QList<QSslCertificate> extraCertificates;
    bool isFull = false; ///< there was no descriptor for the last connection; logged once until there is one again
    int acceptedAtOnce = 0;
    StrangerLimit limit;
    QHash<StrangerLimit::Id, Stranger> strangers; ///< those that the limit counts
    QQueue<StrangerLimit::Id> speakers;           ///< those that wait for their handshake
    QTimer acceptTimer;
    QTimer handshakeTimer;
};
