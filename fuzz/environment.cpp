// SPDX-License-Identifier: MIT
#include "fuzz/environment.h"

#include "contract/application.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace {

/** A directory in memory if there is one: most targets write files for each input, and a disk is many times slower. */
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
    qputenv("TMPDIR", QFile::encodeName(home.path())); // removed at the end with everything that targets leave there
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
