// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <vector>

#include <sys/stat.h>

/**
 * The files of the server's certificate and key. Creates them at the first start, and removes them again if they turn
 * out to be useless. Used on the main thread during start-up.
 */
class CertificateFiles final
{
public:
    CertificateFiles(const QString &certificatePath, const QString &keyPath);

    /**
     * Creates the self-signed certificate and its key with the "openssl" program, unless there is a certificate
     * already. Refuses to write where others could read or replace the files. Blocks until the program has ended.
     *
     * @param error  set only on failure: one sentence. Files that a failed run has written stay
     */
    [[nodiscard]] bool createIfMissing(QString *error);

    /**
     * Removes the files that createIfMissing() has written. A file stays if "openssl" did not write it, or if it has
     * changed since: a server on another host may use the same home directory.
     */
    void removeCreated() const;

private:
    struct CreatedFile
    {
        QString path; ///< with symlinks resolved, so that a symlink of the user stays
        struct stat state;
    };

    const QString certificatePath;
    const QString keyPath;
    std::vector<CreatedFile> created;
};
