// SPDX-License-Identifier: MIT
#pragma once

#include <openssl/types.h>

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QThreadPool>

#include <functional>
#include <memory>

/**
 * The server's certificate and private key, as far as the front door needs them: the certificate to show, and
 * signatures. Signs on a thread of its own, because a signature takes a millisecond and strangers can cause many. Owned
 * by the agent, lives on the main thread.
 */
class DoorKey final : public QObject
{
    Q_OBJECT

public:
    /** @param certificatePath and @param keyPath  the pair's; both empty: there is none */
    DoorKey(QString certificatePath, QString keyPath, QObject *parent = nullptr);
    ~DoorKey() override;

    /** Reads the pair if it was replaced since the last call. @return whether certificatePem() has changed */
    [[nodiscard]] bool refresh();

    /** Empty if there is no pair. */
    [[nodiscard]] const QByteArray &certificatePem() const { return certificate; }

    /**
     * Does one operation with the private key.
     *
     * @param isPadded  whether @p bytes are padded to the length of the key already; if not, PKCS#1 is used
     * @param context   @p done is not called any more once this object is destroyed
     * @param done      gets the signature; an empty one on failure. Called on the main thread
     */
    void sign(const QByteArray &bytes, bool isPadded, QObject *context, std::function<void(QByteArray)> done);

private:
    /** What tells a replaced file. */
    struct Stamp
    {
        quint64 device = 0;
        quint64 inode = 0;
        qint64 seconds = 0;
        qint64 nanoseconds = 0;
        bool operator==(const Stamp &) const = default;
    };
    [[nodiscard]] static Stamp stampOf(const QString &path);
    void load();

    const QString certificatePath;
    const QString keyPath;
    Stamp certificateStamp;
    Stamp keyStamp;
    QByteArray certificate;
    std::shared_ptr<EVP_PKEY> key;
    QThreadPool signers; ///< one thread
};
