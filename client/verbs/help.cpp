// SPDX-License-Identifier: MIT
#include "client/verbs/help.h"

#include "client/terminal/exitcode.h"
#include "client/verbs/verb.h"
#include "client/verbs/verbtable.h"

using namespace Qt::StringLiterals;

namespace {

constexpr int kOptionColumn = 24;

/** Lines as "  -n, --lines N           Print the last N lines". */
QString optionLines(const QList<QCommandLineOption> &options)
{
    QString lines;
    for (const QCommandLineOption &option : options) {
        const QString value = option.valueName().isEmpty() ? QString() : u' ' + option.valueName();
        const QString synopsis = optionNames(option).join(u", "_s) + value;
        lines += u"  %1 %2\n"_s.arg(synopsis.leftJustified(kOptionColumn - 1), option.description());
    }
    return lines;
}

QString usageLine(const Verb &verb)
{
    const QString arguments = verb.arguments.isEmpty() ? QString() : u' ' + verb.arguments;
    return u"Usage: zarvoctl %1 [OPTION]…%2\n"_s.arg(verb.name, arguments);
}

} // namespace

QList<QCommandLineOption> programOptions()
{
    return {{{u"h"_s, u"help"_s}, u"Print this. After a verb: print how to use it."_s},
            {u"version"_s, u"Print the version of this program."_s}};
}

QList<QCommandLineOption> verbOptions()
{
    return {{{u"h"_s, u"help"_s}, u"Print this."_s}};
}

QStringList optionNames(const QCommandLineOption &option)
{
    QStringList names;
    for (const QString &name : option.names()) {
        names.append((name.size() == 1 ? u"-"_s : u"--"_s) + name);
    }
    return names;
}

QString programHelp()
{
    QString text = u"Usage: zarvoctl VERB [OPTION]… [ARGUMENT]…\n\n"
                   "Starts, opens, suspends and ends remote-desktop sessions on this host.\n\nVerbs:\n"_s;
    for (const Verb &verb : allVerbs()) {
        const QStringList names = QStringList(verb.name) + verb.aliases;
        text += u"  %1 %2\n"_s.arg(names.join(u", "_s).leftJustified(13), verb.summary);
    }
    text += u"\nOptions:\n"_s + optionLines(programOptions());
    text += u"\nSESSION is a whole id. Otherwise it is an exact name or the beginning of an id, and must fit only one\n"
            "session. When there is only one session, SESSION may be left out.\n"_s;
    text += u"\nExit codes:\n"_s + exitCodeHelp();
    text += u"\nExample:\n  zarvoctl connect --new -- openbox-session\n"_s;
    return text;
}

QString verbHelp(const Verb &verb)
{
    QString help = usageLine(verb) + u'\n' + verb.description + u'\n';
    if (!verb.aliases.isEmpty()) {
        help += u"\nAlso: zarvoctl "_s + verb.aliases.join(u", zarvoctl "_s) + u'\n';
    }
    help += u"\nOptions:\n"_s + optionLines(verb.options + verbOptions());
    help += verb.examples.size() == 1 ? u"\nExample:\n"_s : u"\nExamples:\n"_s;
    for (const QString &example : verb.examples) {
        help += u"  "_s + example + u'\n';
    }
    return help;
}
