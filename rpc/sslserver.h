// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QSslCertificate>
#include <QSslKey>
#include <QTcpServer>

/**
 * Accepts TLS connections and admits only clients that present the server's own certificate. The handshake succeeds for
 * everybody. Admission is the comparison of certificates after it, before a request is read. Lives on the main thread.
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
    bool isFull = false; ///< there was no descriptor for the last connection; logged once until there is one again
};
