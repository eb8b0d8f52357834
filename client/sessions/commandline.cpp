// SPDX-License-Identifier: MIT
#include "client/sessions/commandline.h"

#include "contract/geometry.h"

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;

namespace {

bool isPlain(QChar character)
{
    const char16_t code = character.unicode();
    return (code < 0x80 && character.isLetterOrNumber()) || u"%+,-./:=@_"_s.contains(character);
}

bool isPlainWord(const QString &word)
{
    return !word.isEmpty() && std::all_of(word.begin(), word.end(), isPlain);
}

/** As the first word, a shell treats a keyword as syntax, and a word with "=" as an assignment. */
bool isSyntax(const QString &word)
{
    static constexpr std::array kKeywords = {
        "case"_L1,     "coproc"_L1, "do"_L1, "done"_L1,   "elif"_L1, "else"_L1, "esac"_L1,  "fi"_L1,    "for"_L1,
        "function"_L1, "if"_L1,     "in"_L1, "select"_L1, "then"_L1, "time"_L1, "until"_L1, "while"_L1,
    };
    return word.contains(u'=') || std::find(kKeywords.begin(), kKeywords.end(), word) != kKeywords.end();
}

QString inQuotes(QString argument)
{
    return u'\'' + argument.replace(u'\'', u"'\\''"_s) + u'\'';
}

} // namespace

QString commandLine(const QStringList &arguments)
{
    if (arguments.size() == 1) {
        return arguments.first();
    }
    QStringList words;
    for (const QString &argument : arguments) {
        const bool isLiteral = isPlainWord(argument) && !(words.isEmpty() && isSyntax(argument));
        words.append(isLiteral ? argument : inQuotes(argument));
    }
    return words.join(u' ');
}

bool isGeometry(const QString &text)
{
    return text == WindowMode::kRootless || parseGeometry(text).has_value();
}
