// SPDX-License-Identifier: MIT
#include "contract/geometry.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class GeometryTest final : public QObject
{
    Q_OBJECT

private slots:
    void parses_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QSize>("size"); // invalid: refused
        QTest::newRow("usual") << u"1280x800"_s << QSize(1280, 800);
        QTest::newRow("smallest") << u"10x10"_s << QSize(10, 10);
        QTest::newRow("too narrow") << u"9x10"_s << QSize();
        QTest::newRow("too low") << u"10x9"_s << QSize();
        QTest::newRow("widest") << u"16384x4096"_s << QSize(16384, 4096);
        QTest::newRow("too wide") << u"16385x10"_s << QSize();
        QTest::newRow("too many pixels") << u"16384x4097"_s << QSize();
        QTest::newRow("leading zeros") << u"0640x00480"_s << QSize(640, 480);
        QTest::newRow("too many digits") << u"000640x480"_s << QSize();
        QTest::newRow("zero") << u"0x0"_s << QSize();
        QTest::newRow("negative") << u"-640x480"_s << QSize();
        QTest::newRow("plus") << u"+640x480"_s << QSize();
        QTest::newRow("blank") << u" 640x480"_s << QSize();
        QTest::newRow("line feed") << u"640x480\n"_s << QSize();
        QTest::newRow("depth") << u"1280x800x24"_s << QSize();
        QTest::newRow("capital") << u"640X480"_s << QSize();
        QTest::newRow("no height") << u"640x"_s << QSize();
        QTest::newRow("no width") << u"x480"_s << QSize();
        QTest::newRow("no cross") << u"640480"_s << QSize();
        QTest::newRow("empty") << QString() << QSize();
        QTest::newRow("other digits") << u"٦٤٠x٤٨٠"_s << QSize();
        QTest::newRow("huge") << u"99999999999999999999x1"_s << QSize();
    }

    void parses()
    {
        QFETCH(QString, text);
        QFETCH(QSize, size);
        const std::optional<QSize> parsed = parseGeometry(text);
        QCOMPARE(parsed.has_value(), size.isValid());
        if (parsed) {
            QCOMPARE(*parsed, size);
        }
    }

    void onlyTheExactWordMakesARootlessSession()
    {
        QCOMPARE(windowModeOf(u"rootless"_s), u"rootless"_s);
        for (const QString &geometry : {u"1280x800"_s, u"Rootless"_s, u"rootless "_s, u"desktop"_s, QString()}) {
            QCOMPARE(windowModeOf(geometry), u"desktop"_s);
        }
    }
};

ZARVO_TEST(GeometryTest)
#include "tst_geometry.moc"
