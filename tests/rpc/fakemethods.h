// SPDX-License-Identifier: MIT
#pragma once

#include "rpc/rpcmethod.h"

#include <QMap>
#include <QSemaphore>
#include <QString>
#include <QThread>

#include <atomic>

/** Lets a test observe its methods and hold up "block". Used from any thread. */
struct MethodControl
{
    std::atomic<int> calls = 0;    ///< of all methods together
    std::atomic<int> running = 0;  ///< calls at this moment
    std::atomic<int> together = 0; ///< the most calls that ran at the same time
    std::atomic<int> finished = 0;
    std::atomic<int> deleted = 0;
    std::atomic<int> deletedWhileRunning = 0;
    std::atomic<bool> onMainThread = false;
    QSemaphore go; ///< each call of "block" takes one
};

/** Counts the calls of a method. The subclasses answer. */
class FakeMethod : public RpcMethod
{
public:
    explicit FakeMethod(MethodControl *control_)
        : control(control_)
    {
    }
    ~FakeMethod() override
    {
        ++control->deleted;
        control->deletedWhileRunning += control->running;
    }

    bool execute(const Json::Value &params, Json::Value &result) final
    {
        ++control->calls;
        const int now = ++control->running;
        if (now > control->together) {
            control->together = now;
        }
        if (QThread::currentThread() == mainThread) {
            control->onMainThread = true;
        }
        const bool succeeded = answer(params, result);
        ++control->finished;
        --control->running;
        return succeeded;
    }
    [[nodiscard]] Json::Value describe() const override
    {
        Json::Value description(Json::objectValue);
        description["description"] = "For tests";
        description["parameters"] = "any";
        description["returns"] = Json::nullValue;
        return description;
    }

protected:
    virtual bool answer(const Json::Value &params, Json::Value &result) = 0;

    MethodControl *control;

private:
    QThread *mainThread = QThread::currentThread();
};

/** Returns its parameters. */
class EchoMethod final : public FakeMethod
{
    using FakeMethod::FakeMethod;
    bool answer(const Json::Value &params, Json::Value &result) override
    {
        result = params;
        return true;
    }
};

/** Fails with an error that says whether its result was null on entry. */
class FailMethod final : public FakeMethod
{
    using FakeMethod::FakeMethod;
    bool answer(const Json::Value &, Json::Value &result) override
    {
        result = rpcError(-32042, result.isNull() ? "It failed." : "Not null on entry.");
        return false;
    }
};

/** Succeeds without touching its result. */
class SilentMethod final : public FakeMethod
{
    using FakeMethod::FakeMethod;
    bool answer(const Json::Value &, Json::Value &) override { return true; }
};

/** Returns its parameters once the test releases it. */
class BlockMethod final : public FakeMethod
{
    using FakeMethod::FakeMethod;
    bool answer(const Json::Value &params, Json::Value &result) override
    {
        control->go.acquire();
        result = params;
        return true;
    }
};

/** The number of methods in fakeMethods(). */
inline constexpr int kFakeMethods = 4;

/** "echo", "fail", "silent" and "block", for a handler to own. */
[[nodiscard]] inline QMap<QString, RpcMethod *> fakeMethods(MethodControl *control)
{
    return {
        {QStringLiteral("echo"), new EchoMethod(control)},
        {QStringLiteral("fail"), new FailMethod(control)},
        {QStringLiteral("silent"), new SilentMethod(control)},
        {QStringLiteral("block"), new BlockMethod(control)},
    };
}
