// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QString>

/**
 * Removes a file when it is destroyed. The pid file and the port file tell others that a server runs, so they must go
 * with it on every ordinary way out. Does not write the file. Used on the main thread.
 */
class InfoFile : public QObject
{
    Q_OBJECT

public:
    explicit InfoFile(QObject *parent = nullptr);
    ~InfoFile() override;

    /** The file to remove. With an empty path, the initial one, nothing is removed. */
    void setPath(const QString &newPath);
    [[nodiscard]] QString path() const;

private:
    QString filePath;
};
