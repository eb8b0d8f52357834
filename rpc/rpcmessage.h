// SPDX-License-Identifier: MIT
#pragma once

#include <json/value.h>

#include <QString>

#include <optional>

/*
 * JSON-RPC messages as a client of the service writes and reads them. There are two clients: zarvoctl, and a server
 * that asks a peer. Each decides how strictly it checks an answer. All functions are callable from any thread.
 */

/** A request without parameters. */
[[nodiscard]] Json::Value rpcRequest(const Json::Value &id, const QString &method);

/** Whether @p message says that it is JSON-RPC 2.0. */
[[nodiscard]] bool isRpcMessage(const Json::Value &message);

/** Whether @p message is the notification about changed sessions, which a server pushes to all its clients. */
[[nodiscard]] bool isSessionsUpdate(const Json::Value &message);

/** The "error" of an answer. */
struct RpcAnswerError
{
    std::optional<int> code;        ///< none unless it is a whole number that fits into an int
    bool hasIntegerCode = false;    ///< whether the code is an integer of any size, written without a point
    std::optional<QString> message; ///< none if it is not a string
};

/** The error in @p answer; none if it has no such member. Each part of the error may be missing. */
[[nodiscard]] std::optional<RpcAnswerError> errorOfAnswer(const Json::Value &answer);
