// SPDX-License-Identifier: MIT
#pragma once

#include <json/value.h>

/**
 * One method of the JSON-RPC service. A handler owns its methods and runs them on pool threads, those of
 * different connections at the same time.
 */
class RpcMethod
{
public:
    RpcMethod() = default;
    virtual ~RpcMethod();
    RpcMethod(const RpcMethod &) = delete;
    RpcMethod &operator=(const RpcMethod &) = delete;

    /**
     * Does what the method is for. May block; called on a pool thread.
     *
     * @param params  the request's "params" of whatever type, null when it has none
     * @param result  null on entry; the answer on success, else an object with an integer "code" and a string
     *                "message"
     * @return whether @p result is the answer
     */
    virtual bool execute(const Json::Value &params, Json::Value &result) = 0;

    /** An object with "description", "parameters" and "returns", for the list of methods. */
    [[nodiscard]] virtual Json::Value describe() const = 0;
};

/** The error object of a failed method or request; callable from any thread. */
[[nodiscard]] Json::Value rpcError(int code, const char *message);
