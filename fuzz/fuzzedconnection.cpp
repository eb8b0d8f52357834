// SPDX-License-Identifier: MIT
#include "fuzz/fuzzedconnection.h"

#include "contract/userdirectory.h"
#include "fuzz/target.h"
#include "live/livemethods.h"
#include "rpc/handler.h"
#include "rpc/netstring.h"
#include "rpc/rpcmethod.h"
#include "tests/helpers/fakedevice.h"

#include <QCoreApplication>
#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <functional>

using namespace Qt::StringLiterals;

namespace {

/** What the server does by itself, as a method. */
class OwnWork final : public RpcMethod
{
public:
    explicit OwnWork(std::function<Json::Value()> work_)
        : work(std::move(work_))
    {
    }

    bool execute(const Json::Value &, Json::Value &result) override
    {
        result = work();
        return true;
    }
    [[nodiscard]] Json::Value describe() const override { return {}; }

private:
    const std::function<Json::Value()> work;
};

Json::Value refresh(SessionStore *store)
{
    FakeAgents::instance().viewersCome();
    QList<SessionInfo> sessions;
    store->refreshAll(sessions);
    return sessionListToJson(sessions);
}

QMap<QString, RpcMethod *> allMethods(SessionStore *store)
{
    QMap<QString, RpcMethod *> methods = makeLiveMethods(store);
    methods.insert(u"Tick"_s, new OwnWork([store] { return refresh(store); }));
    methods.insert(u"Idle"_s, new OwnWork([store] {
                       store->suspendIdle(0);
                       return Json::Value();
                   }));
    return methods;
}

QStringList namesIn(const QString &directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

} // namespace

EmptySessionsDirectory::EmptySessionsDirectory()
{
    FUZZ_CHECK(QDir().mkpath(path()));
}

EmptySessionsDirectory::~EmptySessionsDirectory()
{
    // No id may have led to a file elsewhere, or to one with a name of another form.
    static const QRegularExpression sessionName(uR"(\AC-[0-9a-fA-F]{32}\z)"_s);
    FUZZ_CHECK(namesIn(path() + u"/.."_s) == QStringList{UserFile::kSessions});
    for (const QString &name : namesIn(path())) {
        FUZZ_CHECK(sessionName.match(name).hasMatch());
    }
    QDir(path()).removeRecursively();
}

QString EmptySessionsDirectory::path()
{
    static const QTemporaryDir *const folder = new QTemporaryDir;
    return folder->filePath(UserFile::kSessions);
}

FuzzedConnection::FuzzedConnection()
    : store(EmptySessionsDirectory::path(), FakeAgents::kFirstDisplay, FakeAgents::kEndDisplay, u"ssh://alice@a"_s)
    , device(new FakeDevice)
    , handler(new Handler(device, allMethods(&store), device))
    , watcher(handler->findChild<QFutureWatcherBase *>())
{
    // The handler gets this signal before us, so it may already run the next request.
    QObject::connect(watcher, &QFutureWatcherBase::finished, watcher, [this] { ++finishedRequests; });
}

FuzzedConnection::~FuzzedConnection()
{
    delete device;
}

void FuzzedConnection::feed(const QByteArray &bytes)
{
    device->feed(bytes);
}

void FuzzedConnection::stall()
{
    device->stall();
}

void FuzzedConnection::resume()
{
    device->resume();
    QCoreApplication::sendPostedEvents(); // may start a request
}

void FuzzedConnection::leave()
{
    handler->retire();
}

void FuzzedConnection::update(qsizetype bytes)
{
    updates.append(encodeNetString(QByteArray::number(updates.size()).rightJustified(bytes, ' ')));
    handler->writeToDevice(updates.constLast());
}

void FuzzedConnection::finish()
{
    int before = -1;
    while (device && finishedRequests != before) {
        before = finishedRequests;
        watcher->waitForFinished();
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

bool FuzzedConnection::isOpen() const
{
    return device->isOpen();
}

QByteArrayList FuzzedConnection::answers() const
{
    QByteArrayList answers;
    for (const QByteArray &write : device->writes()) {
        if (!updates.contains(write)) {
            answers.append(write);
        }
    }
    return answers;
}

bool FuzzedConnection::hasLastUpdate() const
{
    return updates.isEmpty() || device->writes().contains(updates.constLast());
}
