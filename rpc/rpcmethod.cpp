// SPDX-License-Identifier: MIT
#include "rpc/rpcmethod.h"

RpcMethod::~RpcMethod() = default;

Json::Value rpcError(int code, const char *message)
{
    Json::Value error(Json::objectValue);
    error["code"] = code;
    error["message"] = message;
    return error;
}
