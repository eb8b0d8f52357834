// SPDX-License-Identifier: MIT
#include "client/terminal/textwidth.h"

#include <algorithm>

#include <locale.h>
#include <wchar.h>

namespace {

/**
 * While it lives, the C library treats wide characters on this thread as Unicode, whatever the user's locale is. The
 * C.UTF-8 locale is part of every system.
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
        return locale; // null on a system without it: uselocale(null) changes nothing
    }

    locale_t previous;
};

/** Asks the C library, because terminals and their programs use its widths. */
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

bool isTerminalControl(QChar character)
{
    const char16_t code = character.unicode();
    // C0 and C1 controls, line and paragraph separators, and characters that reverse the direction of the line.
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
    std::replace_if(clean.begin(), clean.end(), isTerminalControl, QChar(QChar::ReplacementCharacter));
    return clean;
}
