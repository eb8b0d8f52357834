// SPDX-License-Identifier: MIT
#include "discovery/peerreply.h"

#include "support/json.h"

#include <optional>

using namespace Qt::StringLiterals;

namespace {

bool isReply(const Json::Value &reply)
{
    return stringFromJson(member(reply, "jsonrpc")) == "2.0"_L1 &&
           stringFromJson(member(reply, "id")) == QLatin1StringView(kPeerRequestId);
}

/** The peer's own words, if it has answered with an error. */
std::optional<QString> errorOf(const Json::Value &reply)
{
    const Json::Value &object = member(reply, "error");
    const Json::Value &message = member(object, "message");
    const Json::ValueType codeType = member(object, "code").type();
    if ((codeType != Json::intValue && codeType != Json::uintValue) || !message.isString()) {
        return std::nullopt;
    }
    return stringFromJson(message);
}

} // namespace

bool readPeerReply(const QByteArray &payload, QList<SessionInfo> &sessions, QString &error)
{
    Json::Value reply;
    const bool isValid = parseJson(payload, &reply) && isReply(reply);
    const Json::Value &result = member(reply, "result");
    if (isValid && hasMember(reply, "result") && (result.isArray() || result.isNull())) {
        QList<SessionInfo> read;
        for (const Json::Value &element : result) {
            if (const std::optional<SessionInfo> info = SessionInfo::fromJson(element)) {
                read.append(*info);
            }
        }
        sessions = read;
        return true;
    }
    const bool isError = isValid && !hasMember(reply, "result");
    error = (isError ? errorOf(reply) : std::nullopt).value_or(u"Received invalid JSON"_s);
    return false;
}
