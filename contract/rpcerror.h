// SPDX-License-Identifier: MIT
#pragma once

/*
 * The numbers in the "code" member of an error that a client gets. They never change.
 */

/** The errors that JSON-RPC itself defines. */
enum RpcErrorCode : int {
    RpcParseError = -32700,
    RpcInvalidParameters = -32602,
    RpcMethodNotFound = -32601,
    RpcInvalidRequest = -32600,
};

/** The number of a SessionError, in the range that JSON-RPC leaves to the server. */
[[nodiscard]] constexpr int rpcErrorCode(int sessionError)
{
    return sessionError - 32000;
}
