// SPDX-License-Identifier: MIT
#include "live/livemethod.h"

#include "contract/rpcerror.h"
#include "contract/sessionerror.h"
#include "support/json.h"

#include <optional>

namespace {

using Parameters = std::span<const LiveMethodEntry::Parameter>;

/** One parameter, by position if @p params is an array, else by name; null if it is missing. */
Json::Value valueOf(const Json::Value &params, Parameters parameters, size_t index)
{
    if (!params.isArray()) {
        return member(params, parameters[index].name);
    }
    return index < params.size() ? params[static_cast<Json::ArrayIndex>(index)] : Json::Value();
}

/** The values of all parameters; nothing if one is missing or not a string. */
std::optional<QStringList> readParameters(const Json::Value &params, Parameters parameters)
{
    QStringList values;
    for (size_t index = 0; index < parameters.size(); ++index) {
        const Json::Value value = valueOf(params, parameters, index);
        if (!value.isString()) {
            return std::nullopt;
        }
        values.append(stringFromJson(value));
    }
    return values;
}

} // namespace

LiveMethod::LiveMethod(const LiveMethodEntry &entry_, SessionStore *store_)
    : store(store_)
    , entry(entry_)
{
}

bool LiveMethod::execute(const Json::Value &params, Json::Value &result)
{
    const std::optional<QStringList> values = readParameters(params, entry.parameters);
    if (!values) {
        result = rpcError(RpcInvalidParameters, "Invalid parameters.");
        return false;
    }
    if (const int code = act(*values, &result); code != SessionOk) {
        result = rpcError(rpcErrorCode(code), errorMessage(code).toUtf8().constData());
        return false;
    }
    return true;
}

Json::Value LiveMethod::describe() const
{
    Json::Value method(Json::objectValue);
    method["description"] = entry.description;
    method["parameters"] = Json::nullValue;
    for (const LiveMethodEntry::Parameter &parameter : entry.parameters) {
        Json::Value &described = method["parameters"][parameter.name];
        described["type"] = "string";
        described["description"] = parameter.description;
    }
    method["returns"] = entry.returns ? Json::Value(entry.returns) : Json::Value();
    return method;
}
