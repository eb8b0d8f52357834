// SPDX-License-Identifier: MIT
#include "client/verbs/completiontable.h"

#include "client/verbs/help.h"
#include "client/verbs/verbtable.h"
#include "client/verbs/waitgoals.h"

using namespace Qt::StringLiterals;

namespace {

QString row(const QStringList &words, const QString &description, const QString &value)
{
    return u"%1\t%2\t%3\n"_s.arg(words.join(u' '), description, value);
}

/** What the shells offer as the value of an option. */
QString choices(const QCommandLineOption &option)
{
    const QString value = option.valueName();
    if (value == "STATE"_L1) {
        return waitGoals().join(u'|');
    }
    return value == "WxH"_L1 ? u"rootless|1280x800|1920x1080"_s : value;
}

/** What the shells offer as the first argument. Choices such as "show|renew" are told without what follows them. */
QString firstChoices(const Verb &verb)
{
    const QString first = verb.arguments.section(u' ', 0, 0);
    return first.contains(u'|') ? first : verb.arguments;
}

QString optionRows(const QStringList &verb, const QList<QCommandLineOption> &options)
{
    QString rows;
    for (const QCommandLineOption &option : options) {
        rows += row(verb + optionNames(option), option.description(), choices(option));
    }
    return rows;
}

} // namespace

QString completionTable()
{
    QString table = optionRows({}, programOptions());
    QStringList names;
    for (const Verb &verb : allVerbs()) {
        for (const QString &name : QStringList(verb.name) + verb.aliases) {
            table += row({name}, verb.summary, firstChoices(verb)) + optionRows({name}, verb.options + verbOptions());
            names.append(name);
        }
    }
    return table + row({u"help"_s}, u"Print how to use a verb."_s, names.join(u'|'));
}
