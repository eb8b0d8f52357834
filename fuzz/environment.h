// SPDX-License-Identifier: MIT
#pragma once

#include "base/logging.h"

#include <QCoreApplication>
#include <QTemporaryDir>

/** Takes every line and drops it. */
class SilentLogger final : public Logging
{
public:
    SilentLogger() { setLevel(LogDebug3); }
    void write(int, const QString &) override {}
};

/**
 * What the code under test finds around it: an application, a logger, and a home directory of its own. Made once, at
 * the beginning of a process, and kept until its end.
 */
class FuzzEnvironment final
{
public:
    FuzzEnvironment(int &argc, char **argv);
    ~FuzzEnvironment();
    Q_DISABLE_COPY_MOVE(FuzzEnvironment)

private:
    QCoreApplication application;
    QTemporaryDir home;
    SilentLogger logger;
};
