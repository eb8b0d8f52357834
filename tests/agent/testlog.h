// SPDX-License-Identifier: MIT
#pragma once

#include "base/logging.h"
#include "tests/helpers/files.h"
#include "tests/helpers/fulldisk.h"

#include <QStringList>

/** Collects what is logged during its life, as "Level: text". Main thread only. */
class TestLog final : public Logging
{
public:
    TestLog();
    ~TestLog() override;

    void write(int level, const QString &text) override;

    QStringList lines;
};

/** Writes a shell script that can be run. */
[[nodiscard]] bool writeScript(const QString &path, const QByteArray &text);
