// SPDX-License-Identifier: MIT
#include "client/terminal/textwidth.h"

#include <algorithm>

#include <locale.h>
#include <wchar.h>

namespace {

/**
 * While it lives, the functions of the C library take characters for Unicode ones on this thread, whatever the locale
 * of the user. That one of it is part of every system.
 */
class UnicodeLocale
{
public:
    UnicodeLocale() { previous = ::uselocale(shared()); }
    ~UnicodeLocale() { ::uselocale(previous); }
    Q_DISABLE_COPY_MOVE(UnicodeLocale)

private:
    static locale_t shared()
    {
        static const locale_t locale = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return locale; // null, which changes nothing, where there is none after all
    }

    locale_t previous;
};

/** As the C library has it, for this is what terminals and their programs go by. */
int characterWidth(char32_t character)
{
    const int width = ::wcwidth(static_cast<wchar_t>(character));
    return width < 0 ? 1 : width;
}

char32_t nextCharacter(QStringView text, qsizetype *position)
{
    const QChar first = text.at((*position)++);
    if (first.isHighSurrogate() && *position < text.size() && text.at(*position).isLowSurrogate()) {
        return QChar::surrogateToUcs4(first, text.at((*position)++));
    }
    return first.unicode();
}

bool isObeyedByTerminals(QChar character)
{
    const char16_t code = character.unicode();
    // Controls of both sets, line and paragraph separators, and those that turn the direction of the line around.
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x2028 || code == 0x2029 ||
           (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

} // namespace

int displayWidth(QStringView text)
{
    const UnicodeLocale locale;
    int width = 0;
    for (qsizetype position = 0; position < text.size();) {
        width += characterWidth(nextCharacter(text, &position));
    }
    return width;
}

QString padded(const QString &text, int width)
{
    return text + QString(std::max(0, width - displayWidth(text)), u' ');
}

QString elided(const QString &text, int width)
{
    if (displayWidth(text) <= width) {
        return text;
    }
    const UnicodeLocale locale;
    int used = 0;
    qsizetype end = 0;
    for (qsizetype position = 0; position < text.size();) {
        used += characterWidth(nextCharacter(text, &position));
        if (used > width - 1) {
            break;
        }
        end = position;
    }
    return width > 0 ? text.first(end) + QChar(0x2026) : QString();
}

QString printable(const QString &text)
{
    QString clean = text;
    std::replace_if(clean.begin(), clean.end(), isObeyedByTerminals, QChar(QChar::ReplacementCharacter));
    return clean;
}
