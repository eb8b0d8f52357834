// SPDX-License-Identifier: MIT
#include "agent/display/xcookie.h"
#include "tests/testmain.h"

#include <QTest>

namespace {

std::string counted(const std::string &text)
{
    return {std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size() & 0xFF)} + text};
}

std::string entry(const std::string &display, const std::string &name, const std::string &data)
{
    return std::string("\x01\x00", 2) + counted("host") + counted(display) + counted(name) + counted(data);
}

} // namespace

class TestXCookie : public QObject
{
    Q_OBJECT

private slots:
    void found()
    {
        const std::string file = entry("7", "MIT-MAGIC-COOKIE-1", "other") + entry("8", "SOMETHING-ELSE", "no") +
                                 entry("8", "MIT-MAGIC-COOKIE-1", std::string("a\0b", 3));
        QVERIFY(findXCookie(file, "8") == std::string("a\0b", 3));
        QVERIFY(findXCookie(file, "7") == std::string("other"));
        QVERIFY(!findXCookie(file, "9"));
        QVERIFY(!findXCookie("", "8"));
    }

    void everyCut()
    {
        const std::string file = entry("8", "MIT-MAGIC-COOKIE-1", "cookie");
        for (std::size_t length = 0; length < file.size(); ++length) {
            QVERIFY(!findXCookie(file.substr(0, length), "8"));
        }
        QVERIFY(findXCookie(file, "8"));
    }
};

ZARVO_TEST(TestXCookie)
#include "tst_xcookie.moc"
