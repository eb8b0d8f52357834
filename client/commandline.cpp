// SPDX-License-Identifier: MIT
#include "client/commandline.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

bool isPlain(QChar character)
{
    const char16_t code = character.unicode();
    return (code < 0x80 && character.isLetterOrNumber()) || u"%+,-./:=@_"_s.contains(character);
}

QString quoted(QString argument)
{
    if (!argument.isEmpty() && std::all_of(argument.begin(), argument.end(), isPlain)) {
        return argument;
    }
    return u'\'' + argument.replace(u'\'', u"'\\''"_s) + u'\'';
}

bool isLength(const QString &text)
{
    const auto isDigit = [](QChar c) { return c >= u'0' && c <= u'9'; };
    return !text.isEmpty() && text.size() <= 5 && std::all_of(text.begin(), text.end(), isDigit) && text.toInt() > 0;
}

} // namespace

QString commandLine(const QStringList &arguments)
{
    if (arguments.size() == 1) {
        return arguments.first();
    }
    QStringList words;
    for (const QString &argument : arguments) {
        words.append(quoted(argument));
    }
    return words.join(u' ');
}

bool isGeometry(const QString &text)
{
    const QStringList lengths = text.split(u'x');
    return text == "rootless"_L1 || (lengths.size() == 2 && isLength(lengths[0]) && isLength(lengths[1]));
}
