// SPDX-License-Identifier: MIT
#pragma once

#include <json/value.h>

#include <QString>

#include <optional>

/*
 * The JSON-RPC messages that a client of the service sends and gets: zarvoctl, and a server that asks another one.
 * How strictly an answer is checked is the client's decision. All functions are callable from any thread.
 */

/** A request without parameters. */
[[nodiscard]] Json::Value rpcRequest(const Json::Value &id, const QString &method);

/** Whether @p message says that it is JSON-RPC 2.0. */
[[nodiscard]] bool isRpcMessage(const Json::Value &message);

/** Whether @p message is about changed sessions: a server sends those to all its clients, without being asked. */
[[nodiscard]] bool isSessionsUpdate(const Json::Value &message);

/** The "error" of an answer. */
struct RpcAnswerError
{
    std::optional<int> code;        ///< none when it is no integer, or too large
    bool hasIntegerCode = false;    ///< whether the code is an integer of any size, written without a fraction
    std::optional<QString> message; ///< none when it is no string
};

/** The error in @p answer; none when it has no such member. Everything in the error may be missing. */
[[nodiscard]] std::optional<RpcAnswerError> errorOfAnswer(const Json::Value &answer);
