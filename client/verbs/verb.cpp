// SPDX-License-Identifier: MIT
#include "client/verbs/verb.h"

using namespace Qt::StringLiterals;

void addOptions(const Verb &verb, QCommandLineParser *line)
{
    line->addOptions(verb.options);
    if (verb.endsWithCommand) {
        line->setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    }
}

QCommandLineOption jsonOption()
{
    return {u"json"_s, u"Print JSON, on one line."_s};
}

QCommandLineOption noStartOption()
{
    return {u"no-start"_s, u"Do not start a server when none is running."_s};
}

QCommandLineOption linesOption()
{
    return {{u"n"_s, u"lines"_s}, u"Print the last N lines; 0 means all. Default: 50."_s, u"N"_s, u"50"_s};
}

QCommandLineOption geometryOption()
{
    return {u"geometry"_s, u"Size of the desktop, or \"rootless\" for a single application. Default: 1280x800."_s,
            u"WxH"_s, u"1280x800"_s};
}

ServerConnector::Start startMode(const QCommandLineParser &line)
{
    return line.isSet(u"no-start"_s) ? ServerConnector::Start::Forbidden : ServerConnector::Start::Allowed;
}

bool linesValue(const QCommandLineParser &line, int *lines, Failure *failure)
{
    bool isNumber = false;
    const int value = line.value(u"lines"_s).toInt(&isNumber);
    if (!isNumber || value < 0) {
        return fail(failure, ExitCode::Usage, u"\"%1\" is not a number of lines."_s.arg(line.value(u"lines"_s)));
    }
    *lines = value;
    return true;
}

QString firstArgument(const QCommandLineParser &line)
{
    return line.positionalArguments().value(0);
}
