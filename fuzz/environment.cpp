// SPDX-License-Identifier: MIT
#include "fuzz/environment.h"

#include <QFile>

using namespace Qt::StringLiterals;

FuzzEnvironment::FuzzEnvironment(int &argc, char **argv)
    : application(argc, argv)
{
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(u"config"_s)));
    qputenv("USER", "alice");
    QCoreApplication::setOrganizationName(u"Halvorn Media"_s);
    QCoreApplication::setApplicationName(u"Zarvo Server"_s);
    QCoreApplication::setApplicationVersion(u"1.0.38"_s);
    Logging::setInstance(&logger);
}

FuzzEnvironment::~FuzzEnvironment()
{
    Logging::setInstance(nullptr);
}
