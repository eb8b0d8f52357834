// SPDX-License-Identifier: MIT
#include "client/sessions/connectionoffer.h"

#include "client/terminal/textwidth.h"
#include "support/json.h"

using namespace Qt::StringLiterals;

bool ConnectionOffer::readAnswer(const Json::Value &answer)
{
    const Json::Value &number = member(answer, "port");
    if (!number.isInt() || number.asInt() <= 0 || number.asInt() > 65535) {
        return false;
    }
    port = static_cast<quint16>(number.asInt());
    password = stringFromJson(member(answer, "password"));
    geometry = stringFromJson(member(answer, "geometry"));
    windowMode = stringFromJson(member(answer, "windowMode"));
    return !password.isEmpty();
}

Json::Value ConnectionOffer::toJson() const
{
    Json::Value value(Json::objectValue);
    value["id"] = jsonString(id);
    value["host"] = jsonString(host);
    value["port"] = port;
    value["password"] = jsonString(password);
    value["geometry"] = jsonString(geometry);
    return value;
}

void ConnectionOffer::print(Console &console, bool asJson) const
{
    if (asJson) {
        console.printJson(toJson());
        return;
    }
    console.printLine(u"session   "_s + printable(id));
    console.printLine(u"host      "_s + printable(host));
    console.printLine(u"port      %1"_s.arg(port));
    console.printLine(u"password  "_s + printable(password));
}

bool failAnswer(Failure *failure)
{
    return fail(failure, ExitCode::SessionFailed, u"The server's answer is invalid."_s);
}
