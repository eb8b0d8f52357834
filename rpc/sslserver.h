// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QSslCertificate>
#include <QSslKey>
#include <QTcpServer>

/**
 * Accepts TLS connections and lets only those clients stay that present the server's own certificate. The
 * handshake completes for everybody; the comparison that follows it, before any request is read, is the
 * whole admission. Lives on the main thread.
 */
class SslServer : public QTcpServer
{
    Q_OBJECT

public:
    explicit SslServer(QObject *parent = nullptr);

    void setPrivateKey(const QSslKey &key);
    void setLocalCertificate(const QSslCertificate &certificate);
    /** Chain certificates that are offered with the local one. */
    void setExtraCertificates(const QList<QSslCertificate> &certificates);

protected:
    void incomingConnection(qintptr socketDescriptor) override;

private slots:
    void socketEncrypted();

private:
    QSslKey privateKey;
    QSslCertificate localCertificate;
    QList<QSslCertificate> extraCertificates;
    bool isFull = false; ///< the last connection found no descriptor left for it
};
