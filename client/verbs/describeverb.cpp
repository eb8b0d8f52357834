// SPDX-License-Identifier: MIT
#include "client/sessions/connectionoffer.h"
#include "client/terminal/textwidth.h"
#include "client/verbs/verbs.h"
#include "support/json.h"

using namespace Qt::StringLiterals;

namespace {

QString textMember(const Json::Value &value, const char *name)
{
    return printable(stringFromJson(member(value, name)));
}

QString methodText(const QString &name, const Json::Value &method)
{
    QString text = u"%1\n    %2\n"_s.arg(printable(name), textMember(method, "description"));
    const Json::Value &parameters = member(method, "parameters");
    if (parameters.isObject()) {
        for (const std::string &parameter : parameters.getMemberNames()) {
            const Json::Value &described = parameters[parameter];
            text += u"      %1 (%2): %3\n"_s.arg(printable(QString::fromStdString(parameter)),
                                                 textMember(described, "type"), textMember(described, "description"));
        }
    }
    const QString returns = textMember(method, "returns");
    return returns.isEmpty() ? text : text + u"    Returns: %1\n"_s.arg(returns);
}

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    Json::Value methods;
    if (!context.connectToServer(startMode(line), &failure) ||
        !context.client.call(u"system.describe"_s, {}, &methods, &failure)) {
        return context.console.report(failure);
    }
    if (line.isSet(u"json"_s)) {
        context.console.printJson(methods);
        return ExitCode::Done;
    }
    if (!methods.isObject()) {
        failAnswer(&failure);
        return context.console.report(failure);
    }
    for (const std::string &name : methods.getMemberNames()) {
        context.console.print(methodText(QString::fromStdString(name), methods[name]));
    }
    return ExitCode::Done;
}

} // namespace

Verb describeVerb()
{
    return {.name = u"describe"_s,
            .summary = u"Describe the methods of the server."_s,
            .description = u"Prints the methods of the server with their parameters, for authors of clients."_s,
            .examples = {u"zarvoctl describe"_s},
            .options = {jsonOption(), noStartOption()},
            .run = run};
}
