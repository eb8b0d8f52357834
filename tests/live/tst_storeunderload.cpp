// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "contract/sessionerror.h"
#include "live/sessioninfo.h"
#include "live/sessionstore.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/live/backgroundtask.h"
#include "tests/live/livesession.h"
#include "tests/testmain.h"

#include <QDateTime>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 3000;
constexpr int kPasses = 5;
constexpr int kLiveSessions = 2;
constexpr int kIds = kLiveSessions + kThreads;

/** The first kLiveSessions ids have an agent. Each of the others is added by one thread and removed by any. */
QString idOf(int number)
{
    return testId(number + 1);
}

/** Calls random functions of a store, the same sequence in every run. */
class RandomCaller final
{
public:
    /** @param holders  how many callers work on each id; shared by all callers */
    RandomCaller(SessionStore *store_, int number_, std::array<std::atomic<int>, kIds> *holders_)
        : store(store_)
        , number(number_)
        , holders(holders_)
        , random(static_cast<unsigned>(number_))
    {
    }

    /** @param passes  how many refreshes are done; the caller goes on until there are enough, also on a busy machine */
    void run(const std::atomic<int> &passes)
    {
        for (int round = 0; round < kRounds || passes < kPasses; ++round) {
            act();
        }
    }

    std::atomic<bool> wasAlwaysAlone = true; ///< no id had two holders

private:
    int below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }

    void act()
    {
        QList<SessionInfo> list;
        switch (below(11)) {
        case 0:
        case 1:
            return addOwn();
        case 2:
            return removeAnother();
        case 3:
            return workOn(below(kIds), &SessionStore::acquire);
        case 4:
            return workOn(below(kIds), &SessionStore::tryAcquire);
        case 5:
            static_cast<void>(store->listSessions(list)); // fails if a session is removed meanwhile
            return;
        case 6:
            store->storeRemoteSessions(idOf(number), QDateTime::currentDateTime().addSecs(below(3) - 1),
                                       {SessionInfo()});
            return;
        case 7:
            return store->forgetRemoteSessions(idOf(below(kThreads)));
        case 8:
            return store->suspendIdle(1000000);
        case 9:
            return startWithoutADisplay(idOf(below(kLiveSessions)));
        default:
            static_cast<void>(store->isBusy(store->sessionIds().value(0)));
        }
    }

    void startWithoutADisplay(const QString &id)
    {
        QString password;
        quint16 port = 0;
        if (store->start(id, u"xterm"_s, u"640x480"_s, password, port) == SessionOk) {
            qFatal("There is no display to start anything on");
        }
    }

    void addOwn()
    {
        const int own = kLiveSessions + number;
        Session *session = nullptr;
        if (store->acquire(idOf(own), session) == SessionOk) {
            store->release(idOf(own));
            return;
        }
        auto created = std::make_unique<Session>();
        session = created.get();
        store->addSession(idOf(own), std::move(created)); // only this caller adds it
        work(own, session);
        store->release(idOf(own));
    }

    void removeAnother()
    {
        const int other = kLiveSessions + below(kThreads);
        Session *session = nullptr;
        if (store->acquire(idOf(other), session) == SessionOk) {
            work(other, session);
            store->removeSession(idOf(other));
        }
    }

    void workOn(int index, int (SessionStore::*take)(const QString &, Session *&))
    {
        Session *session = nullptr;
        if ((store->*take)(idOf(index), session) == SessionOk) {
            work(index, session);
            store->release(idOf(index));
        }
    }

    void work(int index, Session *session)
    {
        if (++holders->at(static_cast<size_t>(index)) != 1) {
            wasAlwaysAlone = false;
        }
        ++session->clients;
        --holders->at(static_cast<size_t>(index));
    }

    SessionStore *store;
    const int number;
    std::array<std::atomic<int>, kIds> *holders;
    std::mt19937 random;
};

} // namespace

/** All functions of a store on several threads, while another thread refreshes it. */
class TestStoreUnderLoad : public QObject
{
    Q_OBJECT

private slots:
    void idsHaveOneHolderAtATimeAndAreFreeAtTheEnd();
};

void TestStoreUnderLoad::idsHaveOneHolderAtATimeAndAreFreeAtTheEnd()
{
    CollectingLogger logger;
    const ReservedDisplays displays(kLiveSessions);
    const QTemporaryDir root;
    const QString state = u"{\"Clients\":0,\"Passwords\":[]}"_s;
    const LiveSession first(root.path(), idOf(0), displays.first(), state);
    const LiveSession second(root.path(), idOf(1), displays.first() + 1, state);
    SessionStore store(root.path(), 0, 0, QString());
    std::array<std::atomic<int>, kIds> holders = {};

    std::vector<std::unique_ptr<RandomCaller>> callers;
    std::atomic<int> passes = 0;
    {
        std::vector<std::unique_ptr<BackgroundTask>> tasks;
        for (int number = 0; number < kThreads; ++number) {
            callers.push_back(std::make_unique<RandomCaller>(&store, number, &holders));
            tasks.push_back(
                std::make_unique<BackgroundTask>([caller = callers.back().get(), &passes] { caller->run(passes); }));
        }
        const auto isDone = [](const std::unique_ptr<BackgroundTask> &task) { return task->isDone(); };
        while (!std::all_of(tasks.begin(), tasks.end(), isDone)) {
            QList<SessionInfo> list;
            store.refreshAll(list);
            ++passes;
        }
    }

    QVERIFY(passes >= kPasses);
    for (const std::unique_ptr<RandomCaller> &caller : callers) {
        QVERIFY(caller->wasAlwaysAlone);
    }
    for (int index = 0; index < kIds; ++index) {
        QVERIFY(!store.isBusy(idOf(index)));
    }
    const QStringList ids = store.sessionIds();
    QCOMPARE(ids.mid(0, kLiveSessions), QStringList({idOf(0), idOf(1)}));
    QCOMPARE(TEST_heldSessions(), ids.size());
}

ZARVO_TEST(TestStoreUnderLoad)

#include "tst_storeunderload.moc"
