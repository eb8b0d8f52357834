// SPDX-License-Identifier: MIT
#include "client/doctor/doctorcheck.h"
#include "client/server/serverlauncher.h"
#include "client/terminal/textwidth.h"
#include "client/verbs/verbs.h"
#include "support/json.h"

#include <QSettings>

#include <pwd.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

QString userName()
{
    const passwd *entry = ::getpwuid(::geteuid()); // NOLINT(concurrency-mt-unsafe): the program has one thread
    return entry ? QString::fromLocal8Bit(entry->pw_name) : qEnvironmentVariable("USER");
}

QString colouredLevel(Finding::Level level)
{
    QString name = levelName(level).leftJustified(4);
    if (!Console::useColour()) {
        return name;
    }
    const char *colour = level == Finding::Level::Ok ? "32" : level == Finding::Level::Warn ? "33" : "31";
    return u"\x1b[%1m%2\x1b[0m"_s.arg(QLatin1StringView(colour), name);
}

void print(Console &console, const char *title, const Finding &finding)
{
    const QString remedy = finding.remedy.isEmpty() ? QString() : u". Remedy: "_s + finding.remedy;
    console.printLine(u"%1  %2  %3%4"_s.arg(colouredLevel(finding.level), padded(QString::fromLatin1(title), 11),
                                            printable(finding.text), printable(remedy)));
}

Json::Value toJson(const char *title, const Finding &finding)
{
    Json::Value value(Json::objectValue);
    value["check"] = title;
    value["level"] = jsonString(levelName(finding.level));
    value["text"] = jsonString(finding.text);
    value["remedy"] = jsonString(finding.remedy);
    return value;
}

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    QStringList agentProblems;
    const AgentSettings agentSettings = AgentSettings::read(&agentProblems);
    const DoctorInput input{.settings = context.settings,
                            .settingsFile = SettingsFile::read(QSettings()),
                            .agentSettings = agentSettings,
                            .agentProblems = agentProblems,
                            .agentFile = SettingsFile::read(QSettings(agentSettingsPath(), QSettings::NativeFormat)),
                            .files = context.files,
                            .searchPath = serverSearchPath(),
                            .userName = userName()};
    const bool asJson = line.isSet(u"json"_s);
    Json::Value all(Json::arrayValue);
    ExitCode code = ExitCode::Done;
    for (const DoctorCheck &check : doctorChecks()) {
        for (const Finding &finding : check.run(input)) {
            code = finding.level == Finding::Level::Fail ? ExitCode::Negative : code;
            if (asJson) {
                all.append(toJson(check.title, finding));
            } else {
                print(context.console, check.title, finding);
            }
        }
    }
    if (asJson) {
        context.console.printJson(all);
    }
    return code;
}

} // namespace

Verb doctorVerb()
{
    return {
        .name = u"doctor"_s,
        .summary = u"Look for problems, and say how to solve them."_s,
        .description =
            u"Checks settings, files, programs and the system, and prints a line for each finding: OK, WARN or FAIL\n"
            "with the remedy. Changes nothing and starts nothing. Exit code 1 when a check failed."_s,
        .examples = {u"zarvoctl doctor"_s},
        .options = {jsonOption()},
        .run = run};
}
