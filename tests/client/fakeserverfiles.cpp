// SPDX-License-Identifier: MIT
#include "tests/client/fakeserverfiles.h"

#include "tests/helpers/files.h"

#include <QDir>
#include <QFile>

#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

bool FakeServerFiles::make()
{
    ::prctl(PR_SET_NAME, "zarvo_server");
    return makeTestIdentity(dir, u"server"_s, QString(), &identity) &&
           QFile::rename(dir.filePath(u"server.cert"_s), dir.filePath(u"server_cert"_s)) &&
           QFile::rename(dir.filePath(u"server.key"_s), dir.filePath(u"server_key"_s)) &&
           QDir(dir.path()).mkpath(u"host"_s);
}

void FakeServerFiles::name(quint16 port) const
{
    putFile(dir.filePath(u"host/server_pid"_s), QByteArray::number(::getpid()));
    putFile(dir.filePath(u"host/server_port"_s), QByteArray::number(port));
}

void FakeServerFiles::remove() const
{
    QFile::remove(dir.filePath(u"host/server_pid"_s));
    QFile::remove(dir.filePath(u"host/server_port"_s));
}

Settings FakeServerFiles::settings() const
{
    Settings settings{};
    settings.userPath = dir.filePath(u"host"_s);
    return settings;
}
