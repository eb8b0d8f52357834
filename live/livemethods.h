// SPDX-License-Identifier: MIT
#pragma once

#include <QMap>
#include <QString>

class RpcMethod;
class SessionStore;

/**
 * Every method on sessions by the name that clients call it by, as new objects that belong to the caller. A new method
 * is a class with its action and an entry in the table, both in the source of this function.
 */
[[nodiscard]] QMap<QString, RpcMethod *> makeLiveMethods(SessionStore *store);
