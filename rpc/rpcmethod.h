// SPDX-License-Identifier: MIT
#pragma once

#include <json/value.h>

#include <QtGlobal>

/**
 * One method of the JSON-RPC service. Each handler owns method objects of its own and runs them on pool threads, so the
 * methods of different connections run at the same time.
 */
class RpcMethod
{
public:
    RpcMethod() = default;
    virtual ~RpcMethod();
    Q_DISABLE_COPY_MOVE(RpcMethod)

    /**
     * Runs the method. May block; called on a pool thread.
     *
     * @param params  the request's "params" of any type, null if there are none
     * @param result  null on entry; set to the result on success, and to an object with an integer "code" and a string
     *                "message" on failure
     * @return true on success
     */
    virtual bool execute(const Json::Value &params, Json::Value &result) = 0;

    /** An object with "description", "parameters" and "returns", for the list of methods. */
    [[nodiscard]] virtual Json::Value describe() const = 0;
};

/** The error object of a failed method or request; callable from any thread. */
[[nodiscard]] Json::Value rpcError(int code, const char *message);
