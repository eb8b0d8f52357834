// SPDX-License-Identifier: MIT
#include "fuzz/answercheck.h"

#include "contract/rpcerror.h"
#include "contract/sessionerror.h"
#include "fuzz/target.h"
#include "rpc/netstring.h"
#include "support/json.h"

#include <json/reader.h>

#include <QStringDecoder>

#include <memory>
#include <optional>
#include <vector>

namespace {

/** The "id" that the answer to a single request, or to one of a batch, must have. */
using ExpectedId = Json::Value;

bool isRequest(const Json::Value &value)
{
    if (!value.isObject()) {
        return false;
    }
    const Json::Value version = value.get("jsonrpc", Json::Value());
    const Json::Value id = value.get("id", Json::Value(0));
    return version.isString() && version.asString() == "2.0" && value.get("method", Json::Value()).isString() &&
           (id.isString() || id.isNumeric() || id.isBool());
}

/** None for a notification. */
std::optional<ExpectedId> answerTo(const Json::Value &request)
{
    if (!isRequest(request)) {
        return ExpectedId();
    }
    return request.isMember("id") ? std::optional(request["id"]) : std::nullopt;
}

std::vector<ExpectedId> answersTo(const Json::Value &root)
{
    std::vector<ExpectedId> answers;
    if (!root.isArray() && !root.isNull()) {
        if (const std::optional<ExpectedId> answer = answerTo(root)) {
            answers.push_back(*answer);
        }
        return answers;
    }
    for (const Json::Value &request : root) {
        if (const std::optional<ExpectedId> answer = answerTo(request)) {
            answers.push_back(*answer);
        }
    }
    return answers;
}

/** Parses with a reader that accepts nothing beyond the JSON standard. */
Json::Value parsedStrictly(const QByteArray &text)
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    FUZZ_CHECK(reader->parse(text.constData(), text.constData() + text.size(), &value, &errors));
    return value;
}

bool isErrorCode(int code)
{
    return code == RpcParseError || code == RpcInvalidRequest || code == RpcMethodNotFound ||
           code == RpcInvalidParameters || (code >= rpcErrorCode(UnknownError) && code <= rpcErrorCode(TimedOut));
}

void checkError(const Json::Value &error)
{
    FUZZ_CHECK(error.isObject() && error.size() == 2);
    FUZZ_CHECK(error["code"].isInt() && isErrorCode(error["code"].asInt()));
    FUZZ_CHECK(error["message"].isString() && !error["message"].asString().empty());
}

void checkOne(const Json::Value &answer, const ExpectedId &id)
{
    FUZZ_CHECK(answer.isObject() && answer.size() == 3 && answer.isMember("id"));
    FUZZ_CHECK(answer["jsonrpc"] == "2.0");
    FUZZ_CHECK(answer["id"] == id);
    if (!answer.isMember("result")) {
        checkError(answer["error"]);
    }
}

QByteArray payloadOf(const QByteArray &frame)
{
    // Not with decodeNetString(), because the server sends longer frames than it accepts.
    const qsizetype colon = frame.indexOf(':');
    const QByteArray payload = frame.mid(colon + 1, frame.size() - colon - 2);
    FUZZ_CHECK(encodeNetString(payload) == frame);
    return payload;
}

bool isUtf8(const QByteArray &text)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString decoded = decoder.decode(text);
    return !decoder.hasError() && decoded.toUtf8().size() == text.size();
}

} // namespace

bool isAnswered(const QByteArray &request)
{
    Json::Value root;
    return !parseJson(request, &root) || !answersTo(root).empty();
}

void checkAnswer(const QByteArray &request, const QByteArray &answer)
{
    Json::Value root;
    const bool isJson = parseJson(request, &root);
    const std::vector<ExpectedId> ids = isJson ? answersTo(root) : std::vector{ExpectedId()};
    if (ids.empty()) {
        FUZZ_CHECK(answer.isEmpty());
        return;
    }
    const QByteArray text = payloadOf(answer);
    FUZZ_CHECK(isUtf8(text) || !isUtf8(request)); // because an "id" comes back unchanged
    FUZZ_CHECK(text.endsWith('\n') && text.count('\n') == 1);
    const Json::Value parsed = parsedStrictly(text);
    if (!root.isArray()) {
        checkOne(parsed, ids.front());
        return;
    }
    FUZZ_CHECK(parsed.isArray() && parsed.size() == ids.size());
    for (Json::ArrayIndex index = 0; index < parsed.size(); ++index) {
        checkOne(parsed[index], ids[index]);
    }
}
