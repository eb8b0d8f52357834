// SPDX-License-Identifier: MIT
#include "base/infofile.h"

#include <QFile>

InfoFile::InfoFile(QObject *parent)
    : QObject(parent)
{
}

InfoFile::~InfoFile()
{
    if (!filePath.isEmpty()) {
        QFile::remove(filePath);
    }
}

void InfoFile::setPath(const QString &newPath)
{
    filePath = newPath;
}

QString InfoFile::path() const
{
    return filePath;
}
