// SPDX-License-Identifier: MIT
#include "client/verbs/versionverb.h"

#include "client/terminal/textwidth.h"
#include "support/json.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

VerbText VersionVerb::text() const
{
    return {.name = u"version"_s,
            .arguments = {},
            .summary = u"Print the versions of this program and of the server."_s,
            .description = u"Prints the versions of this program and of the server that answers."_s,
            .examples = {u"zarvoctl version --json"_s}};
}

QList<QCommandLineOption> VersionVerb::options() const
{
    return {jsonOption(), noStartOption()};
}

ExitCode VersionVerb::run(const QCommandLineParser &line, ClientContext &context)
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
