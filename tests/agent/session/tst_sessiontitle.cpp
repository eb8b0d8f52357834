// SPDX-License-Identifier: MIT
#include "agent/session/sessiontitle.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class SessionTitleTest final : public QObject
{
    Q_OBJECT

private slots:
    void titleIsTheNameOrTheDisplay_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QString>("title");
        QTest::newRow("name") << QByteArray("a name") << u"a name"_s;
        QTest::newRow("UTF-8") << QByteArray("\xc3\xbcn\xc3\xaf") << u"\u00fcn\u00ef"_s;
        QTest::newRow("line feeds") << QByteArray("\n two\nlines\n") << u"two lines"_s;
        QTest::newRow("row of blanks") << QByteArray("a \t  b") << u"a b"_s;
        QTest::newRow("empty") << QByteArray() << u"Session :7"_s;
        QTest::newRow("blanks alone") << QByteArray(" \n\t") << u"Session :7"_s;
    }

    void titleIsTheNameOrTheDisplay()
    {
        QFETCH(QByteArray, name);
        QTEST(sessionTitle(name, 7), "title");
    }
};

ZARVO_TEST(SessionTitleTest)
#include "tst_sessiontitle.moc"
