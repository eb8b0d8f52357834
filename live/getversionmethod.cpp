// SPDX-License-Identifier: MIT
#include "live/getversionmethod.h"

#include "support/json.h"

#include <QCoreApplication>

bool GetVersionMethod::execute(const Json::Value &, Json::Value &result)
{
    result = jsonString(QCoreApplication::applicationVersion());
    return true;
}

Json::Value GetVersionMethod::describe() const
{
    return describeMethod("Returns the server version.", {}, "The server version.");
}
