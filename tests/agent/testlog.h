// SPDX-License-Identifier: MIT
#pragma once

#include "server/logging.h"

#include <QStringList>

#include <sys/resource.h>

/** Collects what is logged during its life, as "Level: text". Main thread only. */
class TestLog final : public Logging
{
public:
    TestLog();
    ~TestLog() override;

    void write(int level, const QString &text) override;

    QStringList lines;
};

/** The whole file at @p path; empty when there is none. */
[[nodiscard]] QByteArray contentOf(const QString &path);

/** While it lives, no file of this process can be given any content, as on a full disk. */
class FullDisk final
{
public:
    FullDisk();
    ~FullDisk();
    FullDisk(const FullDisk &) = delete;
    FullDisk &operator=(const FullDisk &) = delete;

private:
    rlimit before = {};
};

/** Writes a shell script that can be run. */
[[nodiscard]] bool writeScript(const QString &path, const QByteArray &text);
