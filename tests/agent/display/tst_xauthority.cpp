// SPDX-License-Identifier: MIT
#include "agent/display/xauthority.h"
#include "tests/agent/authorityentry.h"
#include "tests/testmain.h"

#include <QTest>

#include <X11/Xauth.h>

class XAuthorityTest final : public QObject
{
    Q_OBJECT

private slots:
    void readsOneEntryAfterTheOther()
    {
        const std::string first = authorityEntry("7").toStdString();
        const std::string second = authorityEntry("8", "SOMETHING-ELSE", QByteArray("a\0b", 3)).toStdString();
        const std::string content = first + second;
        XAuthorityReader reader(content);
        QVERIFY(!reader.isAtEnd());
        const std::optional<XAuthorityEntry> one = reader.next();
        QVERIFY(one);
        QCOMPARE(one->family, static_cast<unsigned short>(FamilyLocal));
        QCOMPARE(one->address, std::string("host"));
        QCOMPARE(one->display, std::string("7"));
        QCOMPARE(one->method, std::string(kXCookieMethod));
        QCOMPARE(one->data, std::string(16, 'c'));
        QCOMPARE(authorityText(*one), first);
        const std::optional<XAuthorityEntry> two = reader.next();
        QVERIFY(two);
        QCOMPARE(two->display, std::string("8"));
        QCOMPARE(two->method, std::string("SOMETHING-ELSE"));
        QCOMPARE(two->data, std::string("a\0b", 3));
        QCOMPARE(authorityText(*two), second);
        QVERIFY(reader.isAtEnd());
        QVERIFY(!reader.next());
    }

    void emptyContentIsAtItsEnd()
    {
        XAuthorityReader reader("");
        QVERIFY(reader.isAtEnd());
        QVERIFY(!reader.next());
    }

    void entryMayHaveEmptyFields()
    {
        const std::string content = authorityEntry("", "", {}).toStdString();
        XAuthorityReader reader(content);
        const std::optional<XAuthorityEntry> entry = reader.next();
        QVERIFY(entry);
        QVERIFY(entry->display.empty() && entry->method.empty() && entry->data.empty());
        QCOMPARE(authorityText(*entry), content);
        QVERIFY(reader.isAtEnd());
    }

    // The second entry claims to be longer than what follows.
    void damagedRestIsNoEnd()
    {
        const std::string content =
            (authorityEntry("7") + QByteArray::fromHex("0100ffff") + authorityEntry("8")).toStdString();
        XAuthorityReader reader(content);
        QVERIFY(reader.next());
        QVERIFY(!reader.next());
        QVERIFY(!reader.isAtEnd());
    }

    void cookieIsThatOfItsDisplay()
    {
        const std::string content =
            (authorityEntry("7", "MIT-MAGIC-COOKIE-1", "other") + authorityEntry("8", "SOMETHING-ELSE", "no") +
             authorityEntry("8", "MIT-MAGIC-COOKIE-1", QByteArray("a\0b", 3)))
                .toStdString();
        QVERIFY(findXCookie(content, "8") == std::string("a\0b", 3));
        QVERIFY(findXCookie(content, "7") == std::string("other"));
        QVERIFY(!findXCookie(content, "9"));
        QVERIFY(!findXCookie("", "8"));
    }

    void noTruncationHoldsTheCookie()
    {
        const std::string content = authorityEntry("8", "MIT-MAGIC-COOKIE-1", "cookie").toStdString();
        for (std::size_t length = 0; length < content.size(); ++length) {
            QVERIFY(!findXCookie(content.substr(0, length), "8"));
        }
        QVERIFY(findXCookie(content, "8"));
    }
};

ZARVO_TEST(XAuthorityTest)
#include "tst_xauthority.moc"
