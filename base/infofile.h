// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QString>

/**
 * Removes the file at its path when it is destroyed, so that the files which tell others of a running server
 * go with it on every ordinary way out. It does not write the file. Used on the main thread.
 */
class InfoFile : public QObject
{
    Q_OBJECT

public:
    explicit InfoFile(QObject *parent = nullptr);
    ~InfoFile() override;

    /** The file to remove; an empty path, as at the beginning, removes nothing. */
    void setPath(const QString &newPath);
    [[nodiscard]] QString path() const;

private:
    QString filePath;
};
