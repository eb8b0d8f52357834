// SPDX-License-Identifier: MIT
#pragma once

#include <QMap>
#include <QString>

class RpcMethod;
class SessionStore;

/**
 * New objects of all methods on sessions, by the names under which clients call them. The caller owns the objects. To
 * add a method, add its class and its entry in the table, both in livemethods.cpp.
 */
[[nodiscard]] QMap<QString, RpcMethod *> makeLiveMethods(SessionStore *store);
