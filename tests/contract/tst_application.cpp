// SPDX-License-Identifier: MIT
#include "contract/application.h"
#include "tests/testmain.h"

#include <QRegularExpression>
#include <QTest>

using namespace Qt::StringLiterals;

class TestApplication : public QObject
{
    Q_OBJECT

private slots:
    void applicationHasTheNamesOfTheSettingsFile()
    {
        nameApplication();
        QCOMPARE(QCoreApplication::organizationName(), u"Halvorn Media"_s);
        QCOMPARE(QCoreApplication::applicationName(), u"Zarvo Server"_s);
    }

    void versionHasThreeNumbers()
    {
        nameApplication();
        static const QRegularExpression form(u"\\A[0-9]+\\.[0-9]+\\.[0-9]+\\z"_s);
        QVERIFY(form.match(QCoreApplication::applicationVersion()).hasMatch());
    }
};

ZARVO_TEST(TestApplication)
#include "tst_application.moc"
