// SPDX-License-Identifier: MIT
#include "tests/rpc/handlertest.h"

#include "rpc/netstring.h"

#include <QCoreApplication>
#include <QTest>
#include <QThreadPool>

const QByteArray kParseError = R"({"error":{"code":-32700,"message":"Parse error."},"id":null,"jsonrpc":"2.0"})";
const QByteArray kInvalid =
    R"({"error":{"code":-32600,"message":"Invalid JSON-RPC request."},"id":null,"jsonrpc":"2.0"})";

QByteArray notFound(const QByteArray &id)
{
    return R"({"error":{"code":-32601,"message":"Method not found."},"id":)" + id + R"(,"jsonrpc":"2.0"})";
}

QByteArray success(const QByteArray &id, const QByteArray &result)
{
    return R"({"id":)" + id + R"(,"jsonrpc":"2.0","result":)" + result + '}';
}

QByteArray failure(const QByteArray &id)
{
    return R"({"error":{"code":-32042,"message":"It failed."},"id":)" + id + R"(,"jsonrpc":"2.0"})";
}

QByteArray answerFrame(const QByteArray &json)
{
    return encodeNetString(json + '\n');
}

QByteArray request(const QByteArray &method, const QByteArray &id, const QByteArray &params)
{
    return encodeNetString(R"({"jsonrpc":"2.0","method":")" + method + R"(","params":)" + params + R"(,"id":)" + id +
                           '}');
}

void deliverEvents()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

void HandlerTest::initTestCase()
{
    // As in the server. On a machine with one processor the pool would run only one request at a time.
    QThreadPool::globalInstance()->setMaxThreadCount(4);
}

void HandlerTest::init()
{
    logger = std::make_unique<CollectingLogger>();
    control = std::make_unique<MethodControl>();
    device = std::make_unique<FakeDevice>();
    handler = std::make_unique<Handler>(device.get(), fakeMethods(control.get()), nullptr);
}

void HandlerTest::cleanup()
{
    control->go.release(1000); // because a failed test may have left a request running
    handler.reset();
    device.reset();
    control.reset();
    logger.reset();
}

void HandlerTest::waitForEcho(const QByteArray &id)
{
    device->feed(request("echo", id));
    const QByteArray answer = answerFrame(success(id, "null"));
    QVERIFY(QTest::qWaitFor([&] { return device->output().endsWith(answer); }, kPatienceMs));
}
