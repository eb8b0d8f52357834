// SPDX-License-Identifier: MIT
#include "rpc/rpcmessage.h"

#include "support/json.h"

using namespace Qt::StringLiterals;

namespace {

constexpr auto kVersion = "2.0"_L1;

} // namespace

Json::Value rpcRequest(const Json::Value &id, const QString &method)
{
    Json::Value request(Json::objectValue);
    request["jsonrpc"] = kVersion.data();
    request["id"] = id;
    request["method"] = jsonString(method);
    return request;
}

bool isRpcMessage(const Json::Value &message)
{
    return stringFromJson(member(message, "jsonrpc")) == kVersion;
}

bool isSessionsUpdate(const Json::Value &message)
{
    return stringFromJson(member(message, "method")) == "UpdateSessions"_L1;
}

std::optional<RpcAnswerError> errorOfAnswer(const Json::Value &answer)
{
    if (!hasMember(answer, "error")) {
        return std::nullopt;
    }
    const Json::Value &error = member(answer, "error");
    const Json::Value &code = member(error, "code");
    const Json::Value &message = member(error, "message");
    RpcAnswerError read;
    read.hasIntegerCode = code.type() == Json::intValue || code.type() == Json::uintValue;
    if (code.isInt()) {
        read.code = code.asInt();
    }
    if (message.isString()) {
        read.message = stringFromJson(message);
    }
    return read;
}
