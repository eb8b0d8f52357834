// SPDX-License-Identifier: MIT
#include "contract/sessionerror.h"
#include "tests/testmain.h"

#include <QTest>

#include <limits>

class TestSessionError : public QObject
{
    Q_OBJECT

private slots:
    void everyCodeHasItsNumberAndSentence_data();
    void everyCodeHasItsNumberAndSentence();
    void anyOtherNumberHasNoSentence_data();
    void anyOtherNumberHasNoSentence();
    void noNumberBesideTheCodesHasASentence();
};

void TestSessionError::everyCodeHasItsNumberAndSentence_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("sentence");
    const auto add = [](const char *name, int code, int number, const char *sentence) {
        QTest::newRow(name) << code << number << QString::fromLatin1(sentence);
    };
    add("UnknownError", UnknownError, -99, "An unknown error occurred.");
    add("NotInitialized", NotInitialized, -98, "The object is not initialized.");
    add("InvalidCredentials", InvalidCredentials, -97, "The given credentials are not valid.");
    add("InvalidToken", InvalidToken, -96, "The given token is invalid.");
    add("PermissionDenied", PermissionDenied, -95, "You do not have permission to perform this operation.");
    add("NoSuchSession", NoSuchSession, -94, "No session exists with the given id.");
    add("NotASession", NotASession, -93, "The path does not contain session information.");
    add("InvalidState", InvalidState, -92, "The requested operation can not be started from the current state.");
    add("NoSuchPath", NoSuchPath, -91, "The path does not exist.");
    add("NoOpenDisplay", NoOpenDisplay, -89, "Failed to find an open display.");
    add("CookieFailed", CookieFailed, -88, "Failed to generate an xauthority cookie.");
    add("DirectoryFailed", DirectoryFailed, -87, "Failed to create the session directory.");
    add("ReadFailed", ReadFailed, -86, "Failed to read a session file.");
    add("AgentFailed", AgentFailed, -84, "Failed to start the agent.");
    add("ApplicationFailed", ApplicationFailed, -83, "Failed to start the application.");
    add("ScreenShotFailed", ScreenShotFailed, -82, "Failed to start the screen shot application.");
    add("WriteFailed", WriteFailed, -80, "Failed to write a session file.");
    add("TimedOut", TimedOut, -77, "Timed out waiting for the agent.");
}

void TestSessionError::everyCodeHasItsNumberAndSentence()
{
    QFETCH(int, code);
    QFETCH(QString, sentence);
    QTEST(code, "number");
    QCOMPARE(errorMessage(code), sentence);
}

void TestSessionError::anyOtherNumberHasNoSentence_data()
{
    QTest::addColumn<int>("number");
    for (const int number : {-100, -90, -85, -81, -79, -78, -76, -1, 0, 1, 77, 99, std::numeric_limits<int>::min(),
                             std::numeric_limits<int>::max()}) {
        QTest::addRow("%d", number) << number;
    }
}

void TestSessionError::anyOtherNumberHasNoSentence()
{
    QFETCH(int, number);
    QCOMPARE(errorMessage(number), QString());
}

void TestSessionError::noNumberBesideTheCodesHasASentence()
{
    int count = 0;
    for (int number = -70000; number <= 70000; ++number) {
        count += errorMessage(number).isEmpty() ? 0 : 1;
    }
    QCOMPARE(count, 18);
}

ZARVO_TEST(TestSessionError)

#include "tst_sessionerror.moc"
