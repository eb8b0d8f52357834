// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/**
 * Another host of the user that gets a new certificate, by its zarvoctl over ssh or the command in ZARVO_SSH. Used on
 * the main thread; each call blocks until ssh has ended.
 */
class CertificateHost final
{
public:
    /** @param name  as ssh takes it: a host, an alias in its settings, or USER@HOST */
    explicit CertificateHost(const QString &name);

    [[nodiscard]] QString name() const { return host; }

    /** Whether the name can be given to ssh: it is no option and holds no shell syntax. */
    [[nodiscard]] static bool isValidName(const QString &name);

    /**
     * Stores the pair there, without using it. The key goes through standard input.
     * @param id     the pair's name, which the host must tell as well
     * @param error  set only on failure: one clause
     */
    [[nodiscard]] bool store(const QByteArray &pair, const QString &id, QString *error);

    /** The name of its user path's folder, which hosts with the same home have side by side. Set by store(). */
    [[nodiscard]] QString folderName() const { return folder; }

    /** Puts a stored pair into use there, and restarts its server if one runs. */
    [[nodiscard]] bool use(const QString &id, QString *error) const;

    /** Removes a stored pair that is not in use. Errors are ignored. */
    void discard(const QString &id) const;

private:
    [[nodiscard]] bool run(const QStringList &arguments, const QByteArray &input, QByteArray *output,
                           QString *error) const;

    QString host;
    QString folder;
};
