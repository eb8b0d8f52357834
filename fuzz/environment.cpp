// SPDX-License-Identifier: MIT
#include "fuzz/environment.h"

#include "contract/application.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace {

/** Most targets write files for each input: in memory where that can be, for a disk makes that many times slower. */
QString placeForFiles()
{
    const QString memory = u"/dev/shm"_s;
    if (!qEnvironmentVariableIsSet("TMPDIR") && QFileInfo(memory).isWritable()) {
        qputenv("TMPDIR", QFile::encodeName(memory));
    }
    return QDir::tempPath();
}

} // namespace

FuzzEnvironment::FuzzEnvironment(int &argc, char **argv)
    : application(argc, argv)
    , home(placeForFiles() + u"/fuzz-XXXXXX"_s)
{
    qputenv("TMPDIR", QFile::encodeName(home.path())); // gone with it, whatever the targets leave there
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(u"config"_s)));
    qputenv("USER", "alice");
    nameApplication();
    Logging::setInstance(&logger);
}

FuzzEnvironment::~FuzzEnvironment()
{
    Logging::setInstance(nullptr);
}
