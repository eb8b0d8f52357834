// SPDX-License-Identifier: MIT
#include "base/idletimer.h"
#include "live/livemethods.h"
#include "live/sessionstore.h"
#include "rpc/handler.h"
#include "rpc/rpcmethod.h"
#include "server/handlerfactory.h"
#include "support/json.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/fakedevice.h"
#include "tests/testmain.h"
#include "workers/sessionupdater.h"

#include <QMap>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

using namespace Qt::StringLiterals;

class TestHandlerFactory : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void handlerHasTheMethodsOfTheService();
    void everyHandlerGetsEveryUpdate();
    void handlerHasNoParentAndHoldsTheIdleTimer();

private:
    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<SessionStore> store;
    std::unique_ptr<SessionUpdater> updater;
    std::unique_ptr<HandlerFactory> factory;
};

void TestHandlerFactory::init()
{
    dir = std::make_unique<QTemporaryDir>();
    logger = std::make_unique<CollectingLogger>();
    store = std::make_unique<SessionStore>(dir->path(), quint16(100), quint16(200), QString());
    updater = std::make_unique<SessionUpdater>(store.get(), nullptr);
    factory = std::make_unique<HandlerFactory>(store.get(), updater.get());
}

void TestHandlerFactory::cleanup()
{
    factory.reset();
    updater.reset();
    store.reset();
    logger.reset();
    dir.reset();
}

void TestHandlerFactory::handlerHasTheMethodsOfTheService()
{
    FakeDevice device;
    const std::unique_ptr<Handler> handler(factory->createHandler(&device));
    Json::Value list;
    QVERIFY(handler->execute(Json::Value(), list));
    const QMap<QString, RpcMethod *> methods = makeLiveMethods(store.get());
    qDeleteAll(methods);
    std::vector<std::string> expected = {"system.describe"};
    for (const QString &name : methods.keys()) {
        expected.push_back(name.toStdString());
    }
    std::sort(expected.begin(), expected.end());
    QVERIFY(list.getMemberNames() == expected);
    for (const std::string &name : expected) {
        const Json::Value &description = list[name];
        QVERIFY(description["description"].isString());
        QVERIFY(hasMember(description, "parameters"));
        QVERIFY(hasMember(description, "returns"));
        QCOMPARE(description.size(), 3U);
    }
}

void TestHandlerFactory::everyHandlerGetsEveryUpdate()
{
    FakeDevice devices[2];
    const std::unique_ptr<Handler> first(factory->createHandler(&devices[0]));
    std::unique_ptr<Handler> second(factory->createHandler(&devices[1]));
    emit updater->sendUpdates("1:a,"_ba);
    second.reset();
    emit updater->sendUpdates("1:b,"_ba);
    QTRY_COMPARE(devices[0].writes(), (QByteArrayList{"1:a,", "1:b,"}));
    QCOMPARE(devices[1].writes(), QByteArrayList{"1:a,"});
}

void TestHandlerFactory::handlerHasNoParentAndHoldsTheIdleTimer()
{
    FakeDevice device;
    const int before = TEST_heldConnections();
    std::unique_ptr<Handler> handler(factory->createHandler(&device));
    QVERIFY(!handler->parent());
    QCOMPARE(TEST_heldConnections(), before + 1);
    handler.reset();
    QCOMPARE(TEST_heldConnections(), before);
}

ZARVO_TEST(TestHandlerFactory)

#include "tst_handlerfactory.moc"
