// SPDX-License-Identifier: MIT
#include "live/livemethod.h"

#include "contract/sessionerror.h"
#include "live/sessionstore.h"
#include "support/json.h"

#include <algorithm>
#include <vector>

namespace {

/** Session errors reach clients in the range that JSON-RPC leaves to implementations. */
constexpr int kSessionErrorBase = -32000;
constexpr int kInvalidParameters = -32602;

bool isString(const Json::Value &value)
{
    return value.isString();
}

QStringList toStringList(const std::vector<Json::Value> &values)
{
    QStringList texts;
    for (const Json::Value &value : values) {
        texts.append(stringFromJson(value));
    }
    return texts;
}

} // namespace

LiveMethod::LiveMethod(SessionStore *store_)
    : store(store_)
{
}

Json::Value LiveMethod::describeMethod(const char *description, std::initializer_list<Parameter> parameters,
                                       const char *returns)
{
    Json::Value method(Json::objectValue);
    method["description"] = description;
    method["parameters"] = Json::nullValue;
    for (const Parameter &parameter : parameters) {
        Json::Value &described = method["parameters"][parameter.name];
        described["type"] = "string";
        described["description"] = parameter.description;
    }
    method["returns"] = returns ? Json::Value(returns) : Json::Value();
    return method;
}

std::optional<QStringList> LiveMethod::readParameters(const Json::Value &params,
                                                      std::initializer_list<const char *> names)
{
    std::vector<Json::Value> values;
    if (params.isArray() && params.size() >= names.size()) {
        for (Json::ArrayIndex index = 0; index < names.size(); ++index) {
            values.push_back(params[index]);
        }
    } else if (params.isObject()) {
        for (const char *name : names) {
            values.push_back(member(params, name));
        }
    }
    if (values.size() != names.size() || !std::all_of(values.begin(), values.end(), isString)) {
        return std::nullopt;
    }
    return toStringList(values);
}

bool LiveMethod::answerConnection(const Json::Value &params, ConnectionAction action, Json::Value &result)
{
    const std::optional<QStringList> values = readParameters(params, {"id"});
    if (!values) {
        return failParameters(result);
    }
    QString windowMode;
    QString geometry;
    QString password;
    quint16 port = 0;
    if (const int code = (store->*action)(values->at(0), windowMode, geometry, password, port); code != SessionOk) {
        return failSession(code, result);
    }
    result["windowMode"] = jsonString(windowMode);
    result["geometry"] = jsonString(geometry);
    result["password"] = jsonString(password);
    result["port"] = port;
    return true;
}

bool LiveMethod::answerNothing(const Json::Value &params, PlainAction action, Json::Value &result)
{
    const std::optional<QStringList> values = readParameters(params, {"id"});
    if (!values) {
        return failParameters(result);
    }
    if (const int code = (store->*action)(values->at(0)); code != SessionOk) {
        return failSession(code, result);
    }
    return true;
}

bool LiveMethod::failParameters(Json::Value &result)
{
    result = rpcError(kInvalidParameters, "Invalid parameters.");
    return false;
}

bool LiveMethod::failSession(int code, Json::Value &result)
{
    result = rpcError(code + kSessionErrorBase, errorMessage(code).toUtf8().constData());
    return false;
}
