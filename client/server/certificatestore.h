// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QDir>
#include <QString>

/**
 * The user's certificates and keys, and the pair that is in use. Each pair is in a folder of its own, named after the
 * certificate's fingerprint. The files that the server reads are symlinks through one further symlink, which names the
 * folder. So one rename exchanges certificate and key together, and a crash at any moment leaves a whole pair.
 *
 *     server_cert -> server_pair/cert      server_key -> server_pair/key      server_pair -> server_pair-ID
 *
 * Other hosts may share the folder. Used by one thread; runs "openssl" and blocks until it ends.
 */
class CertificateStore final
{
public:
    CertificateStore(const QString &certificatePath, const QString &keyPath);
    ~CertificateStore();
    Q_DISABLE_COPY_MOVE(CertificateStore)

    /**
     * Makes a new pair and stores it beside the one in use. Fails if another store has made one and still lives,
     * because each would remove the pair of the other.
     * @param id     set only on success: names the pair
     * @param error  set only on failure: one sentence
     */
    [[nodiscard]] bool create(QString *id, QString *error);

    /** Stores a pair that another host has made. Succeeds as well if the hosts share the folder, so that it is there.
     */
    [[nodiscard]] bool add(const QByteArray &certificate, const QByteArray &key, QString *id, QString *error);

    /** Reads the texts of a stored pair, which must belong together. */
    [[nodiscard]] bool read(const QString &id, QByteArray *certificate, QByteArray *key, QString *error) const;

    /** Puts a stored pair into use. The pair before it stays stored, for hosts that have not noticed yet. */
    [[nodiscard]] bool use(const QString &id, QString *error);

    /** Whether this pair is in use. */
    [[nodiscard]] bool isUsed(const QString &id) const;

    /** Removes a stored pair unless it is in use. */
    void discard(const QString &id) const;

    [[nodiscard]] static bool isValidId(const QString &id);

private:
    /** Makes the folder of certificate and key, and refuses it if others can write there. */
    [[nodiscard]] bool makeFolder(QString *error) const;
    [[nodiscard]] bool makePairFolder(QString *name, QString *error) const;
    /** Gives the folder of a new pair its final name. Removes it on failure. */
    [[nodiscard]] bool keep(const QString &name, QString *id, QString *error) const;
    /** Moves the pair in use into a folder, so that all names are symlinks. What they show does not change. */
    [[nodiscard]] bool adopt(QString *error) const;
    [[nodiscard]] bool putLink(const QString &target, const QString &name, QString *error) const;
    [[nodiscard]] QString linkTarget(const QString &name) const;
    [[nodiscard]] bool lock(QString *error);
    void removePair(const QString &name) const;
    /** Spares young ones: another host that shares the folder may be about to use them. */
    void removeOldPairs(const QString &used, const QString &previous) const;

    const QString certificatePath;
    const QString keyPath;
    const QDir folder;
    int lockDescriptor = -1; ///< the folder, locked from create() on
};
