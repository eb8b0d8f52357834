// SPDX-License-Identifier: MIT
#include "tests/client/doctorinput.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestDoctorAgent : public QObject
{
    Q_OBJECT

private slots:
    void missingFileMeansDefaults()
    {
        QCOMPARE(texts(checkAgentSettings(surroundings.input())),
                 QStringList{u"OK All settings of the bundled agent have their defaults"_s});
    }

    void settingsOfTheTableAreValid()
    {
        DoctorInput input = surroundings.input();
        for (const AgentSettingRow &row : agentSettingTable()) {
            input.agentFile.values.insert(row.key, QString(row.defaultText));
        }
        QCOMPARE(texts(checkAgentSettings(input)), QStringList{u"OK \"%1\" is valid"_s.arg(input.agentFile.path)});
    }

    void whatTheAgentReportsIsAWarning()
    {
        DoctorInput input = surroundings.input();
        input.agentProblems = {u"The setting %1 is wrong"_s};
        input.agentFile.values = {{u"Colour"_s, u"red"_s}};
        const QList<Finding> findings = checkAgentSettings(input);
        QCOMPARE(texts(findings),
                 (QStringList{u"WARN There is no setting Colour; it is ignored"_s, u"WARN The setting %1 is wrong"_s}));
        QVERIFY(haveRemedies(findings));
    }

    void unreadableFileIsAFailure()
    {
        DoctorInput input = surroundings.input();
        input.agentFile.path = surroundings.path("bin"); // a directory
        QCOMPARE(
            texts(checkAgentSettings(input)),
            QStringList{u"FAIL \"%1\" cannot be read: all settings have their defaults"_s.arg(input.agentFile.path)});
    }

    void plainConnectionsFromTheNetworkAreNoted()
    {
        DoctorInput input = surroundings.input();
        input.agentSettings.allowPlainFromNetwork = true;
        const QList<Finding> findings = checkAgentSettings(input);
        QCOMPARE(findings.size(), 1);
        QVERIFY(texts(findings).first().startsWith(u"WARN AllowPlainFromNetwork is true: "_s));
        QVERIFY(haveRemedies(findings));
    }

    void missingConfinementIsAWarningThatTellsWhatRemains_data()
    {
        QTest::addColumn<bool>("canFilterSystemCalls");
        QTest::addColumn<bool>("canHideFiles");
        QTest::addColumn<QStringList>("found");
        QTest::newRow("both") << true << true << QStringList{u"OK The kernel has seccomp and Landlock"_s};
        QTest::newRow("no Landlock") << true << false
                                     << QStringList{u"WARN The kernel has no Landlock. Only seccomp"_s};
        QTest::newRow("no seccomp") << false << true << QStringList{u"WARN The kernel has no seccomp. A stranger"_s};
        QTest::newRow("neither") << false << false
                                 << QStringList{u"WARN The kernel has no seccomp and no Landlock. A stranger"_s,
                                                u"WARN The kernel has no Landlock"_s};
    }
    void missingConfinementIsAWarningThatTellsWhatRemains()
    {
        QFETCH(QStringList, found);
        DoctorInput input = surroundings.input();
        QFETCH(bool, canFilterSystemCalls);
        QFETCH(bool, canHideFiles);
        input.canFilterSystemCalls = canFilterSystemCalls;
        input.canHideFiles = canHideFiles;
        const QList<Finding> findings = checkConfinement(input);
        QCOMPARE(findings.size(), found.size());
        for (qsizetype i = 0; i < found.size(); ++i) {
            QVERIFY2(texts(findings)[i].startsWith(found[i]), qPrintable(texts(findings)[i]));
        }
        QVERIFY(haveRemedies(findings));
    }

private:
    const DoctorSurroundings surroundings;
};

ZARVO_TEST(TestDoctorAgent)

#include "tst_doctoragent.moc"
