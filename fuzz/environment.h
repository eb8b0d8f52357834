// SPDX-License-Identifier: MIT
#pragma once

#include "base/logging.h"

#include <QCoreApplication>
#include <QTemporaryDir>

/** Drops every line. */
class SilentLogger final : public Logging
{
public:
    SilentLogger() { setLevel(LogDebug3); }
    void write(int, const QString &) override {}
};

/**
 * What the code under test needs: an application object, a logger and an empty home directory. Made once, at the start
 * of the process, and kept until its end.
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
