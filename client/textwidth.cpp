// SPDX-License-Identifier: MIT
#include "client/textwidth.h"

#include <algorithm>
#include <array>

namespace {

struct Range
{
    char32_t first;
    char32_t last;
};

// The blocks whose characters terminals draw in two columns (East Asian wide and full width, emoji).
constexpr std::array kWide = {
    Range{0x1100, 0x115F},   Range{0x231A, 0x231B},   Range{0x2329, 0x232A},   Range{0x23E9, 0x23EC},
    Range{0x2614, 0x2615},   Range{0x26A1, 0x26A1},   Range{0x2705, 0x2705},   Range{0x2728, 0x2728},
    Range{0x274C, 0x274C},   Range{0x2753, 0x2755},   Range{0x2795, 0x2797},   Range{0x2B1B, 0x2B1C},
    Range{0x2B50, 0x2B50},   Range{0x2E80, 0x303E},   Range{0x3041, 0x33FF},   Range{0x3400, 0x4DBF},
    Range{0x4E00, 0x9FFF},   Range{0xA000, 0xA4CF},   Range{0xA960, 0xA97F},   Range{0xAC00, 0xD7A3},
    Range{0xF900, 0xFAFF},   Range{0xFE30, 0xFE6F},   Range{0xFF00, 0xFF60},   Range{0xFFE0, 0xFFE6},
    Range{0x16FE0, 0x18AFF}, Range{0x1B000, 0x1B2FF}, Range{0x1F004, 0x1F004}, Range{0x1F0CF, 0x1F0CF},
    Range{0x1F18E, 0x1F18E}, Range{0x1F191, 0x1F19A}, Range{0x1F200, 0x1F320}, Range{0x1F32D, 0x1F335},
    Range{0x1F337, 0x1F37C}, Range{0x1F37E, 0x1F393}, Range{0x1F3A0, 0x1F3CA}, Range{0x1F3E0, 0x1F3F0},
    Range{0x1F400, 0x1F64F}, Range{0x1F680, 0x1F6FF}, Range{0x1F7E0, 0x1F7EB}, Range{0x1F90C, 0x1F9FF},
    Range{0x1FA70, 0x1FAFF}, Range{0x20000, 0x3FFFD},
};

bool isWide(char32_t character)
{
    const auto range = std::lower_bound(kWide.begin(), kWide.end(), character,
                                        [](const Range &each, char32_t value) { return each.last < value; });
    return range != kWide.end() && range->first <= character;
}

int characterWidth(char32_t character)
{
    if (character < 0x300) {
        return character == 0xAD ? 0 : 1;
    }
    switch (QChar::category(character)) {
    case QChar::Mark_NonSpacing:
    case QChar::Mark_Enclosing:
    case QChar::Other_Format:
        return 0;
    default:
        return isWide(character) ? 2 : 1;
    }
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
