// SPDX-License-Identifier: MIT
#include "client/terminal/textwidth.h"
#include "client/verbs/verbs.h"
#include "support/json.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

namespace {

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    Json::Value version;
    if (!context.connectToServer(startMode(line), &failure) ||
        !context.client.call(u"Live.GetVersion"_s, {}, &version, &failure)) {
        return context.console.report(failure);
    }
    if (line.isSet(u"json"_s)) {
        Json::Value versions(Json::objectValue);
        versions["client"] = jsonString(QCoreApplication::applicationVersion());
        versions["server"] = version;
        context.console.printJson(versions);
        return ExitCode::Done;
    }
    context.console.printLine(u"zarvoctl      "_s + QCoreApplication::applicationVersion());
    context.console.printLine(u"zarvo_server  "_s + printable(stringFromJson(version)));
    return ExitCode::Done;
}

} // namespace

Verb versionVerb()
{
    return {.name = u"version"_s,
            .summary = u"Print the versions of this program and of the server."_s,
            .description = u"Prints the versions of this program and of the server that answers."_s,
            .examples = {u"zarvoctl version --json"_s},
            .options = {jsonOption(), noStartOption()},
            .run = run};
}
