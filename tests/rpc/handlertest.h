// SPDX-License-Identifier: MIT
#pragma once

#include "rpc/handler.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/rpc/fakedevice.h"
#include "tests/rpc/fakemethods.h"

#include <QByteArray>
#include <QObject>

#include <memory>

/** How long a test waits for what a pool thread does. */
inline constexpr int kPatienceMs = 30000;

extern const QByteArray kParseError;
extern const QByteArray kInvalid;

/*
 * The texts of answers, and messages as they go over the wire.
 */
[[nodiscard]] QByteArray notFound(const QByteArray &id);
[[nodiscard]] QByteArray success(const QByteArray &id, const QByteArray &result);
/** The answer of the method "fail". */
[[nodiscard]] QByteArray failure(const QByteArray &id);
[[nodiscard]] QByteArray answerFrame(const QByteArray &json);
[[nodiscard]] QByteArray request(const QByteArray &method, const QByteArray &id, const QByteArray &params = "null");

/** Delivers queued calls and deferred deletions. */
void deliverEvents();

/** Has a handler with the fake methods on a fake device, new for each test. */
class HandlerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

protected:
    /** Has the handler answer all requests that came before, and this one. */
    void waitForEcho(const QByteArray &id);

    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<MethodControl> control;
    std::unique_ptr<FakeDevice> device;
    std::unique_ptr<Handler> handler;
};
