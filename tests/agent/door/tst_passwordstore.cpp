// SPDX-License-Identifier: MIT
#include "agent/door/passwordstore.h"
#include "agent/door/vncauth.h"
#include "tests/testmain.h"

#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class PasswordStoreTest final : public QObject
{
    Q_OBJECT

private:
    const QByteArray challenge = QByteArray("0123456789abcdef");

private slots:
    void passwordsAreRandomLettersAndDigits()
    {
        PasswordStore store;
        const QRegularExpression form(u"\\A[a-zA-Z0-9]{8}\\z"_s);
        QSet<QByteArray> seen;
        QSet<char> characters;
        for (int i = 0; i < 500; ++i) {
            const QByteArray password = store.add().password;
            QVERIFY(form.match(QString::fromLatin1(password)).hasMatch());
            seen.insert(password);
            characters.unite(QSet<char>(password.begin(), password.end()));
        }
        QCOMPARE(seen.size(), 500);
        QCOMPARE(characters.size(), 62); // all of them, in 4000 draws
    }

    void passwordIsTakenOnce()
    {
        PasswordStore store;
        const QByteArray first = store.add().password;
        const QByteArray second = store.add().password;
        QCOMPARE(store.take(challenge, vncAuthResponse(second, challenge)), std::optional(second));
        QCOMPARE(store.all(), QList<QByteArray>{first});
        QVERIFY(!store.take(challenge, vncAuthResponse(second, challenge)));
        QCOMPARE(store.take(challenge, vncAuthResponse(first, challenge)), std::optional(first));
        QVERIFY(store.all().isEmpty());
    }

    void wrongResponseUsesUpNoPassword_data()
    {
        QTest::addColumn<QByteArray>("response");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("challenge itself") << challenge;
        QTest::newRow("zeros") << QByteArray(kVncChallengeBytes, '\0');
        QTest::newRow("other password") << vncAuthResponse("nonsense", challenge);
        QTest::newRow("no password") << vncAuthResponse("", challenge);
    }

    void wrongResponseUsesUpNoPassword()
    {
        QFETCH(QByteArray, response);
        PasswordStore store;
        QVERIFY(!store.take(challenge, response));
        store.add();
        QVERIFY(!store.take(challenge, response));
        QCOMPARE(store.all().size(), 1);
    }

    void answerToAnotherChallengeIsWrong()
    {
        PasswordStore store;
        const QByteArray password = store.add().password;
        QVERIFY(!store.take(newVncChallenge(), vncAuthResponse(password, challenge)));
        QCOMPARE(store.all().size(), 1);
    }

    void newPasswordReplacesTheOldest()
    {
        PasswordStore store;
        for (qsizetype i = 0; i < PasswordStore::kMaxOpen; ++i) {
            QVERIFY(store.add().expired.isEmpty());
        }
        const QByteArray oldest = store.all().first();
        const PasswordStore::Added added = store.add();
        QCOMPARE(added.expired, oldest);
        QCOMPARE(store.all().size(), PasswordStore::kMaxOpen);
        QCOMPARE(store.all().last(), added.password);
        QVERIFY(!store.all().contains(oldest));
    }

    void takeAllEmptiesTheStore()
    {
        PasswordStore store;
        const QByteArray first = store.add().password;
        const QByteArray second = store.add().password;
        QCOMPARE(store.takeAll(), (QList<QByteArray>{first, second}));
        QVERIFY(store.all().isEmpty());
        QVERIFY(store.takeAll().isEmpty());
        QVERIFY(!store.nextEnd());
    }

    void passwordIsOpenForItsTime()
    {
        PasswordStore store;
        const PasswordStore::Clock::time_point start;
        store.setLifetime(1min);
        QVERIFY(!store.nextEnd());
        const QByteArray first = store.add(start).password;
        const QByteArray second = store.add(start + 10s).password;
        QCOMPARE(store.nextEnd(), std::optional(start + 1min));
        QVERIFY(store.takeOverdue(start + 1min - 1ns).isEmpty());
        QCOMPARE(store.takeOverdue(start + 1min), QList<QByteArray>{first});
        QCOMPARE(store.all(), QList<QByteArray>{second});
        QCOMPARE(store.nextEnd(), std::optional(start + 70s));
        QCOMPARE(store.takeOverdue(start + 1h), QList<QByteArray>{second});
        QVERIFY(!store.nextEnd());
        QVERIFY(store.takeOverdue(start + 1h).isEmpty());
    }

    // Nobody has taken it back yet, because the timer is late.
    void overduePasswordFitsNoResponse()
    {
        PasswordStore store;
        const PasswordStore::Clock::time_point start;
        store.setLifetime(1min);
        const QByteArray password = store.add(start).password;
        const QByteArray response = vncAuthResponse(password, challenge);
        QVERIFY(!store.take(challenge, response, start + 1min));
        QCOMPARE(store.all(), QList<QByteArray>{password}); // its end is still to be logged
        QCOMPARE(store.take(challenge, response, start + 1min - 1ns), std::optional(password));
    }

    void openPasswordsKeepTheirTime()
    {
        PasswordStore store;
        const PasswordStore::Clock::time_point start;
        store.setLifetime(1min);
        store.add(start);
        store.setLifetime(1h);
        QCOMPARE(store.nextEnd(), std::optional(start + 1min));
    }

    void passwordIsOpenForTenMinutesByDefault()
    {
        PasswordStore store;
        const PasswordStore::Clock::time_point start;
        store.add(start);
        QCOMPARE(store.nextEnd(), std::optional(start + 10min));
    }
};

ZARVO_TEST(PasswordStoreTest)
#include "tst_passwordstore.moc"
