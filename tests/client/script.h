// SPDX-License-Identifier: MIT
#pragma once

#include "tests/helpers/files.h"

#include <QFile>
#include <QString>

/** Makes a program of a shell script, without its first line. */
inline void putScript(const QString &path, const QByteArray &text)
{
    putFile(path, "#!/bin/sh\n" + text);
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}
