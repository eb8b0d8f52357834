// SPDX-License-Identifier: MIT
#pragma once

#include "rpc/handler.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/fakedevice.h"
#include "tests/rpc/fakemethods.h"

#include <QByteArray>
#include <QObject>

#include <memory>

/** How long a test waits for a pool thread. */
inline constexpr int kPatienceMs = 30000;

extern const QByteArray kParseError;
extern const QByteArray kInvalid;

/*
 * Answers as JSON, and frames as they are sent.
 */
[[nodiscard]] QByteArray notFound(const QByteArray &id);
[[nodiscard]] QByteArray success(const QByteArray &id, const QByteArray &result);
/** The answer of the method "fail". */
[[nodiscard]] QByteArray failure(const QByteArray &id);
[[nodiscard]] QByteArray answerFrame(const QByteArray &json);
[[nodiscard]] QByteArray request(const QByteArray &method, const QByteArray &id, const QByteArray &params = "null");

/** Delivers queued calls and deferred deletions. */
void deliverEvents();

/** The base of the handler's tests: each test gets a new handler with the fake methods on a fake device. */
class HandlerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

protected:
    /** Sends a request and waits for its answer, which comes after the answers to all earlier requests. */
    void waitForEcho(const QByteArray &id);

    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<MethodControl> control;
    std::unique_ptr<FakeDevice> device;
    std::unique_ptr<Handler> handler;
};
