// SPDX-License-Identifier: MIT
#pragma once

#include "tests/helpers/files.h"

#include <QFile>
#include <QString>

/** Writes an executable shell script; @p text comes after its first line. */
inline void putScript(const QString &path, const QByteArray &text)
{
    putFile(path, "#!/bin/sh\n" + text);
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}
