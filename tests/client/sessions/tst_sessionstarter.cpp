// SPDX-License-Identifier: MIT
#include "client/sessions/sessionstarter.h"
#include "tests/client/servedcontext.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr int kFailed = -32000;
constexpr int kNoSuchSession = -32094;
constexpr int kInvalidState = -32092;
constexpr int kAgentTimedOut = -32077;

} // namespace

class TestSessionStarter : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        requests.clear();
        log = QByteArray();
        refusal = 0;
        answer = Json::Value(Json::objectValue);
        answer["port"] = 4711;
        answer["password"] = "secret12";
        answer["geometry"] = "800x600";
        answer["windowMode"] = "desktop";
    }

    void argumentsAreChecked_data()
    {
        QTest::addColumn<QStringList>("command");
        QTest::addColumn<QString>("geometry");
        QTest::addColumn<QString>("text");
        const QString blank = u"The command is blank."_s;
        QTest::newRow("size") << QStringList{u"xterm"_s} << u"800x600"_s << QString();
        QTest::newRow("rootless") << QStringList{u"xterm"_s} << u"rootless"_s << QString();
        QTest::newRow("empty command") << QStringList{QString()} << u"800x600"_s << blank;
        QTest::newRow("blank command") << QStringList{u" \t "_s} << u"800x600"_s << blank;
        QTest::newRow("no size") << QStringList{u"xterm"_s} << u"800"_s << u"The geometry \"800\" is neither"_s;
        QTest::newRow("empty size") << QStringList{u"xterm"_s} << QString() << u"The geometry \"\" is neither"_s;
    }
    void argumentsAreChecked()
    {
        QFETCH(QStringList, command);
        QFETCH(QString, geometry);
        QFETCH(QString, text);
        failure = {};
        QCOMPARE(checkStart(command, geometry, &failure), text.isEmpty());
        QCOMPARE(failure.code, text.isEmpty() ? ExitCode::Done : ExitCode::Usage);
        QVERIFY2(failure.text.startsWith(text), qPrintable(failure.text));
    }

    void startedSessionIsOffered()
    {
        ConnectionOffer offer;
        QVERIFY(start({u"xterm"_s, u"-T"_s, u"a title"_s}, &offer));
        QCOMPARE(requests.size(), 1);
        const Json::Value &params = requests.first()["params"];
        QCOMPARE(stringFromJson(requests.first()["method"]), u"Live.Start"_s);
        QCOMPARE(stringFromJson(params[0]), offer.id);
        QCOMPARE(stringFromJson(params[1]), u"xterm -T 'a title'"_s);
        QCOMPARE(stringFromJson(params[2]), u"800x600"_s);
        QCOMPARE(offer.port, quint16(4711));
        QCOMPARE(offer.password, u"secret12"_s);
        QCOMPARE(offer.host, localHostName());
    }

    void eachSessionHasANewId()
    {
        static const QRegularExpression form(u"\\A[0-9A-F]{32}\\z"_s, QRegularExpression::CaseInsensitiveOption);
        ConnectionOffer first;
        ConnectionOffer second;
        QVERIFY(start({u"xterm"_s}, &first) && start({u"xterm"_s}, &second));
        QVERIFY2(form.match(first.id).hasMatch(), qPrintable(first.id));
        QVERIFY(first.id != second.id);
    }

    void failedStartHasItsExitCode_data()
    {
        QTest::addColumn<int>("error");
        QTest::addColumn<ExitCode>("code");
        QTest::newRow("any") << kFailed << ExitCode::SessionFailed;
        QTest::newRow("no such session") << kNoSuchSession << ExitCode::SessionFailed;
        QTest::newRow("wrong state") << kInvalidState << ExitCode::SessionFailed;
        QTest::newRow("agent timed out") << kAgentTimedOut << ExitCode::TimedOut;
    }
    void failedStartHasItsExitCode()
    {
        QFETCH(int, error);
        refusal = error;
        QVERIFY(!start({u"xterm"_s}));
        QTEST(failure.code, "code");
        QCOMPARE(failure.text, u"No."_s);
    }

    void failureShowsTheEndOfTheAgentsLog()
    {
        refusal = kFailed;
        log = "line 1\n";
        for (int line = 2; line <= 11; ++line) {
            log += "line " + QByteArray::number(line) + '\n';
        }
        QVERIFY(!start({u"xterm"_s}));
        const QStringList lines = failure.text.split(u'\n');
        QCOMPARE(lines.size(), 12);
        QCOMPARE(lines[0], u"No."_s);
        QVERIFY2(lines[1].startsWith("The end of the agent's log, "_L1), qPrintable(lines[1]));
        QCOMPARE(lines[2], u"  line 2"_s);
        QCOMPARE(lines[11], u"  line 11"_s);
    }

    void shownLogHoldsNoPasswordAndNoControlCharacter()
    {
        refusal = kFailed;
        log = "Added new password secret12\n\x1b[31mred\n";
        QVERIFY(!start({u"xterm"_s}));
        QVERIFY2(!failure.text.contains("secret12"_L1), qPrintable(failure.text));
        QVERIFY2(failure.text.endsWith(u"\n  Added new password ********\n  \uFFFD[31mred"_s),
                 qPrintable(failure.text));
    }

    void answerWithoutAPortIsAFailure()
    {
        answer.removeMember("port");
        QVERIFY(!start({u"xterm"_s}));
        QCOMPARE(failure.code, ExitCode::SessionFailed);
    }

private:
    bool start(const QStringList &command, ConnectionOffer *offer = nullptr)
    {
        ConnectionOffer ignored;
        failure = {};
        return startNewSession(*context, command, u"800x600"_s, offer ? offer : &ignored, &failure);
    }

    void serve(QSslSocket *peer, const Json::Value &request)
    {
        requests.append(request);
        if (!log.isEmpty()) {
            const QString directory = context->files.sessionDirectory(stringFromJson(request["params"][0]));
            QDir().mkpath(directory);
            putFile(directory + u"/server_log"_s, log);
        }
        if (refusal != 0) {
            FakeServer::refuse(peer, request, refusal, "No.");
        } else {
            FakeServer::answer(peer, request, answer);
        }
    }

    QList<Json::Value> requests;
    QByteArray log;     ///< what the agent of the session writes, if anything
    int refusal = 0;    ///< the error number that the server answers; 0: none
    Json::Value answer; ///< what the server answers without an error
    Failure failure;
    ServedContext context{[this](QSslSocket *peer, const Json::Value &request) { serve(peer, request); }};
};

ZARVO_TEST(TestSessionStarter)
#include "tst_sessionstarter.moc"
