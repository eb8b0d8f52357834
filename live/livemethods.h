// SPDX-License-Identifier: MIT
#pragma once

#include <QMap>
#include <QString>

class RpcMethod;
class SessionStore;

/** Every method on sessions by the name that clients call it by, as new objects that belong to the caller. */
[[nodiscard]] QMap<QString, RpcMethod *> makeLiveMethods(SessionStore *store);
