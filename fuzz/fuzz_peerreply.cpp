// SPDX-License-Identifier: MIT
#include "discovery/peerreply.h"
#include "fuzz/dice.h"
#include "fuzz/sessioninfocheck.h"
#include "fuzz/target.h"
#include "rpc/netstring.h"
#include "support/json.h"

using namespace Qt::StringLiterals;

namespace {

/** Decodes the first frame of a stream that arrives in pieces; a null array if there is none. */
QByteArray firstPayload(QByteArray stream)
{
    Dice dice(stream);
    QByteArray buffer;
    QByteArray payload;
    QString error;
    while (!stream.isEmpty()) {
        buffer += takePiece(&stream, &dice);
        const int code = decodeNetString(buffer, payload, error);
        if (code <= 0) {
            return code == 0 ? payload : QByteArray();
        }
    }
    return {};
}

bool isList(const QByteArray &payload, Json::Value *reply)
{
    return parseJson(payload, reply) && reply->isObject() && reply->isMember("result") &&
           ((*reply)["result"].isArray() || (*reply)["result"].isNull()) &&
           member(*reply, "jsonrpc") == Json::Value("2.0") && member(*reply, "id") == Json::Value("ServerUpdate");
}

void checkReply(const QByteArray &payload)
{
    QList<SessionInfo> sessions(1);
    sessions[0].id = u"before"_s;
    QString error;
    const bool read = readPeerReply(payload, &sessions, &error);
    Json::Value reply;
    FUZZ_CHECK(read == isList(payload, &reply));
    if (!read) {
        FUZZ_CHECK(sessions.size() == 1 && sessions[0].id == u"before"_s);
        return;
    }
    FUZZ_CHECK(error.isEmpty() && sessions.size() <= static_cast<qsizetype>(reply["result"].size()));
    for (const SessionInfo &info : sessions) {
        checkSessionInfo(info);
    }
}

void fuzzPeerReply(const QByteArray &input)
{
    // An input that looks like a frame is the stream of a peer. Any other one is a payload.
    const bool isFrame = !input.isEmpty() && input[0] >= '0' && input[0] <= '9';
    checkReply(isFrame ? firstPayload(input) : input);
}

} // namespace

ZARVO_FUZZ(fuzzPeerReply)
