// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QMutex>
#include <QSslCertificate>
#include <QSslKey>
#include <QThread>

#include <atomic>

/** A new certificate with its key. Making one takes some tenths of a second. */
struct KeyPair
{
    QSslCertificate certificate;
    QSslKey key;
    QByteArray certificateText;
    QByteArray keyText;

    [[nodiscard]] static KeyPair make();
};

/**
 * Plays the service of another server, in a thread of its own. It serves one connection after the other: reads one
 * frame over TLS, sends the pieces that it was given, and waits until the other side closes. The test's thread starts
 * it and gives it the pieces.
 */
class PeerService : public QThread
{
public:
    enum class Manner {
        Answers,         ///< as described above
        HangsUp,         ///< the same, but closes the connection itself
        NoTls,           ///< sends plain text
        NeverEncrypts,   ///< accepts the connection and does nothing else
        FloodsHandshake, ///< sends data that a handshake ignores as fast as it can, for up to 40 seconds
    };

    PeerService(const QHostAddress &address, const KeyPair &pair, Manner manner = Manner::Answers);
    ~PeerService() override;

    /** Sets the answer to further requests. */
    void setPieces(const QList<QByteArray> &pieces_);
    [[nodiscard]] quint16 port() const { return boundPort; }
    /** Everything that it has received through TLS. */
    [[nodiscard]] QByteArray received() const;
    /** The certificate that the last client showed. */
    [[nodiscard]] QSslCertificate shown() const;
    [[nodiscard]] int connections() const { return accepted; }

protected:
    void run() override;

private:
    void serve(qintptr descriptor);
    void flood(qintptr descriptor) const;

    const QHostAddress address;
    const KeyPair pair;
    const Manner manner;
    std::atomic<quint16> boundPort = 0;
    std::atomic<int> accepted = 0;
    std::atomic<bool> ended = false;
    mutable QMutex mutex; ///< guards all below
    QList<QByteArray> pieces;
    QByteArray request;
    QSslCertificate clientCertificate;
};
