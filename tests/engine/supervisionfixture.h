// SPDX-License-Identifier: MIT
#pragma once

#include "engine/session.h"
#include "tests/engine/systemfault.h"
#include "tests/helpers/agentprocess.h"
#include "tests/helpers/agentsocket.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/files.h"
#include "tests/helpers/reserveddisplays.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

/** A session's directory and a display for its agent. For tests of supervision.h. */
class SupervisionFixture
{
protected:
    void setUp()
    {
        folder = std::make_unique<QTemporaryDir>();
        directory = folder->filePath(QStringLiteral("session"));
        QVERIFY(QDir().mkpath(directory));
        logger = std::make_unique<CollectingLogger>();
        displays = std::make_unique<ReservedDisplays>();
        fault = SystemFault();
    }

    void tearDown()
    {
        fault = SystemFault();
        displays.reset();
        logger.reset();
        folder.reset();
    }

    [[nodiscard]] QString file(const QString &name) const { return directory + QLatin1Char('/') + name; }
    [[nodiscard]] QString socketPath() const { return agentSocketPath(displays->first()); }

    /** A session whose agent is this process. */
    [[nodiscard]] Session sessionOf(qint32 pid) const
    {
        Session session;
        session.directory = directory;
        session.display = displays->first();
        session.monitorPid = pid;
        session.logStamp = epoch();
        return session;
    }

    /** Rows of files without a number: "content" (null if there is no file) and "line", the warning. */
    static void addUnreadableNumbers()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("line");
        const QString notOpened = QStringLiteral("Failed to open the file \"%1\": No such file or directory");
        const QString notRead = QStringLiteral("Failed to read from the file \"%1\": Unknown error");
        QTest::newRow("missing") << QByteArray() << notOpened;
        QTest::newRow("empty") << QByteArray("") << notRead;
        QTest::newRow("no number") << QByteArray("none") << notRead;
    }

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<ReservedDisplays> displays;
    QString directory;
};
