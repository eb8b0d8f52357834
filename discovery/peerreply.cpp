// SPDX-License-Identifier: MIT
#include "discovery/peerreply.h"

#include "rpc/rpcmessage.h"
#include "support/json.h"

#include <optional>

using namespace Qt::StringLiterals;

namespace {

bool isReply(const Json::Value &reply)
{
    return isRpcMessage(reply) && stringFromJson(member(reply, "id")) == QLatin1StringView(kPeerRequestId);
}

/** The message in the error of the peer; none if the reply has no valid error. */
std::optional<QString> messageOfPeer(const Json::Value &reply)
{
    const std::optional<RpcAnswerError> error = errorOfAnswer(reply);
    return error && error->hasIntegerCode ? error->message : std::nullopt;
}

} // namespace

bool readPeerReply(const QByteArray &payload, QList<SessionInfo> *sessions, QString *error)
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
        *sessions = read;
        return true;
    }
    const bool isError = isValid && !hasMember(reply, "result");
    *error = (isError ? messageOfPeer(reply) : std::nullopt).value_or(u"Received invalid JSON"_s);
    return false;
}
