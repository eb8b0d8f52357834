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

/** A certificate with its key, made anew. Takes some tenths of a second. */
struct KeyPair
{
    QSslCertificate certificate;
    QSslKey key;
    QByteArray certificateText;
    QByteArray keyText;

    [[nodiscard]] static KeyPair make();
};

/**
 * Plays another server's service in a thread of its own, one connection after the other: reads one frame over TLS,
 * sends what it was told, piece by piece, and waits until the other side hangs up. Started and set from the test's
 * thread.
 */
class PeerService : public QThread
{
public:
    enum class Manner {
        Answers,         ///< as above
        HangsUp,         ///< the same, but hangs up itself
        NoTls,           ///< sends what is no TLS
        NeverEncrypts,   ///< accepts, and that is all
        FloodsHandshake, ///< sends as fast as it can what a handshake passes over, for 40 seconds at most
    };

    PeerService(const QHostAddress &address, const KeyPair &pair, Manner manner = Manner::Answers);
    ~PeerService() override;

    /** What it answers from now on. */
    void setPieces(const QList<QByteArray> &pieces_);
    [[nodiscard]] quint16 port() const { return boundPort; }
    /** All that it was sent inside TLS. */
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
