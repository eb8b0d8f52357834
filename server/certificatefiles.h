// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <vector>

#include <sys/stat.h>

/**
 * The files of the server's certificate and key. Makes them at the first start, and removes them again when they turn
 * out to be useless. Used on the main thread during start-up.
 */
class CertificateFiles final
{
public:
    CertificateFiles(const QString &certificatePath, const QString &keyPath);

    /**
     * Creates the self-signed certificate and its key with the "openssl" program, unless there is a certificate
     * already. Blocks for as long as that takes.
     *
     * @param error  set only on failure: one sentence; what a failed run has written stays
     */
    [[nodiscard]] bool createIfMissing(QString *error);

    /**
     * Removes what createIfMissing() has written. A file stays if the run of "openssl" did not touch it, or if somebody
     * has changed it since: another host with the same home directory may be starting, too.
     */
    void removeCreated() const;

private:
    struct CreatedFile
    {
        QString path; ///< of the file itself, where the user has put a symlink in its place
        struct stat state;
    };

    const QString certificatePath;
    const QString keyPath;
    std::vector<CreatedFile> created;
};
