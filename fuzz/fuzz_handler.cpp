// SPDX-License-Identifier: MIT
#include "fuzz/answercheck.h"
#include "fuzz/dice.h"
#include "fuzz/fakeagents.h"
#include "fuzz/target.h"
#include "live/getversionmethod.h"
#include "live/listlocalsessionsmethod.h"
#include "live/listsessionsmethod.h"
#include "live/replaymethod.h"
#include "live/resumemethod.h"
#include "live/sessionstore.h"
#include "live/startmethod.h"
#include "live/suspendmethod.h"
#include "live/terminatemethod.h"
#include "rpc/handler.h"
#include "rpc/netstring.h"
#include "server/idletimer.h"
#include "tests/rpc/fakedevice.h"

#include <QCoreApplication>
#include <QDir>
#include <QFutureWatcher>
#include <QTemporaryDir>

#include <functional>

using namespace Qt::StringLiterals;

namespace {

const QByteArray kUpdate = "36:{\"method\":\"UpdateSessions\",\"params\":},";

/** "Tick": what the server does by itself now and then, at a moment that the input decides about. */
class TickMethod final : public LiveMethod
{
public:
    using LiveMethod::LiveMethod;

    bool execute(const Json::Value &, Json::Value &result) override
    {
        FakeAgents::instance().viewersCome();
        QList<SessionInfo> sessions;
        store->refreshAll(sessions);
        result = sessionListToJson(sessions);
        return true;
    }
    [[nodiscard]] Json::Value describe() const override { return {}; }
};

QMap<QString, RpcMethod *> allMethods(SessionStore *store)
{
    return {
        {u"Live.GetVersion"_s, new GetVersionMethod(store)},
        {u"Live.ListSessions"_s, new ListSessionsMethod(store)},
        {u"Live.ListLocalSessions"_s, new ListLocalSessionsMethod(store)},
        {u"Live.Start"_s, new StartMethod(store)},
        {u"Live.Resume"_s, new ResumeMethod(store)},
        {u"Live.Replay"_s, new ReplayMethod(store)},
        {u"Live.Suspend"_s, new SuspendMethod(store)},
        {u"Live.Terminate"_s, new TerminateMethod(store)},
        {u"Tick"_s, new TickMethod(store)},
    };
}

/** The sessions directory, empty again with every new object. */
class SessionsDirectory final
{
public:
    SessionsDirectory() { FUZZ_CHECK(QDir().mkpath(path())); }
    ~SessionsDirectory() { QDir(path()).removeRecursively(); }
    Q_DISABLE_COPY_MOVE(SessionsDirectory)

    [[nodiscard]] static QString path()
    {
        static const QTemporaryDir *const folder = new QTemporaryDir;
        return folder->filePath(u"sessions"_s);
    }
};

/** One connection to a server of its own. */
class Connection final
{
public:
    Connection()
        : store(SessionsDirectory::path(), FakeAgents::kFirstDisplay, FakeAgents::kEndDisplay, u"ssh://alice@a"_s)
        , handler(&device, allMethods(&store), nullptr)
        , watcher(static_cast<QFutureWatcher<QByteArray> *>(handler.findChild<QFutureWatcherBase *>()))
    {
        // The handler has heard of it before us, and may be busy again by now.
        QObject::connect(watcher, &QFutureWatcherBase::finished, watcher, [this] { ++finishedRequests; });
    }
    Q_DISABLE_COPY_MOVE(Connection)

    void feed(const QByteArray &bytes) { device.feed(bytes); }
    void update() { handler.writeToDevice(kUpdate); }
    /** Until nothing more happens without more bytes from the peer. */
    void finish()
    {
        int before = 0;
        do {
            before = finishedRequests;
            watcher->waitForFinished();
            QCoreApplication::sendPostedEvents();
        } while (finishedRequests != before);
    }
    [[nodiscard]] bool isOpen() const { return device.isOpen(); }
    [[nodiscard]] QByteArrayList answers() const
    {
        QByteArrayList answers = device.writes();
        answers.removeAll(kUpdate);
        return answers;
    }

private:
    SessionsDirectory directory;
    FakeAgents agents;
    SessionStore store;
    FakeDevice device;
    Handler handler;
    QFutureWatcher<QByteArray> *watcher;
    int finishedRequests = 0;
};

struct Outcome
{
    QByteArrayList answers;
    bool isOpen = true;
};

Outcome play(const std::function<void(Connection *)> &peer)
{
    Outcome outcome;
    {
        Connection connection;
        peer(&connection);
        connection.finish();
        outcome = {connection.answers(), connection.isOpen()};
    }
    FUZZ_CHECK(TEST_heldConnections() == 0 && TEST_heldSessions() == 0);
    return outcome;
}

Outcome playWhole(const QByteArray &stream)
{
    return play([&stream](Connection *connection) { connection->feed(stream); });
}

Outcome playInPieces(const QByteArray &stream)
{
    return play([&stream](Connection *connection) {
        QByteArray rest = stream;
        Dice dice(stream);
        while (!rest.isEmpty()) {
            connection->feed(takePiece(&rest, &dice));
            if (dice.roll(4) == 0) {
                connection->finish();
            }
            if (dice.roll(8) == 0) {
                connection->update();
            }
        }
    });
}

/** Whether what is no frame, or is one with zeros before its length, depends on how it arrives. */
bool dependsOnPieces(const QByteArray &stream)
{
    QByteArray rest = stream;
    QByteArray payload;
    QString error;
    do {
        if (rest.indexOf(':') > 5) {
            return true;
        }
    } while (decodeNetString(rest, payload, error) == 0);
    return false;
}

void checkAnswers(const QByteArray &stream, const Outcome &outcome)
{
    QByteArray rest = stream;
    QByteArray payload;
    QString error;
    QByteArrayList answers = outcome.answers;
    int code = 0;
    while ((code = decodeNetString(rest, payload, error)) == 0) {
        const bool isDue = isAnswered(payload);
        FUZZ_CHECK(!isDue || !answers.isEmpty());
        checkAnswer(payload, isDue ? answers.takeFirst() : QByteArray());
    }
    FUZZ_CHECK(answers.isEmpty());
    FUZZ_CHECK(outcome.isOpen == (code == 1));
}

/** The input as it is when it looks like a stream of frames; otherwise each of its lines in a frame. */
QByteArray streamOf(const QByteArray &input)
{
    if (!input.isEmpty() && input[0] >= '0' && input[0] <= '9') {
        return input;
    }
    QByteArray stream;
    for (const QByteArray &line : input.split('\n')) {
        stream += encodeNetString(line);
    }
    return stream;
}

void fuzzHandler(const QByteArray &input)
{
    const QByteArray stream = streamOf(input);
    const Outcome whole = playWhole(stream);
    checkAnswers(stream, whole);
    const Outcome pieces = playInPieces(stream);
    if (!dependsOnPieces(stream)) {
        FUZZ_CHECK(pieces.answers == whole.answers && pieces.isOpen == whole.isOpen);
    } else {
        FUZZ_CHECK(pieces.answers == whole.answers.first(pieces.answers.size()));
    }
}

} // namespace

ZARVO_FUZZ(fuzzHandler)
