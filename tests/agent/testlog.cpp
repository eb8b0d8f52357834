// SPDX-License-Identifier: MIT
#include "tests/agent/testlog.h"

#include <QFile>

#include <csignal>

namespace {

bool blockChildSignal()
{
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGCHLD);
    return ::pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0;
}

/**
 * Qt Test has a thread of its own, on which SIGCHLD would be lost. Blocked before main(), so that every thread inherits
 * the mask.
 */
[[maybe_unused]] const bool isChildSignalBlocked = blockChildSignal();

} // namespace

TestLog::TestLog()
{
    setInstance(this);
}

TestLog::~TestLog()
{
    setInstance(nullptr);
}

void TestLog::write(int level, const QString &text)
{
    lines.append(levelName(level) + QStringLiteral(": ") + text);
}

bool writeScript(const QString &path, const QByteArray &text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write("#!/bin/sh\n" + text) > 0 &&
           file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}
