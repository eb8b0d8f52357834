// SPDX-License-Identifier: MIT
#pragma once

#include "agent/confined/handshakesignature.h"

#include <openssl/types.h>

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QThreadPool>

#include <functional>
#include <memory>
#include <string>

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
     * Makes a signature. One that is not a server's is refused.
     *
     * @param wanted  if it has expired when its turn comes, no signature is made, and @p done is not called
     * @param done    gets the signature; an empty one on failure. Called on the main thread
     */
    void sign(const HandshakeSignature &request, std::weak_ptr<void> wanted,
              std::function<void(const std::string &)> done);

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
    [[nodiscard]] bool load(QString *error);

    const QString certificatePath;
    const QString keyPath;
    Stamp certificateStamp;
    Stamp keyStamp;
    QByteArray certificate;
    QString lastProblem;        ///< logged once, until it changes
    QElapsedTimer sinceFailure; ///< running after a failure, which may be over any moment
    std::shared_ptr<EVP_PKEY> key;
    QThreadPool signers; ///< one thread
};
