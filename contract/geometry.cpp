// SPDX-License-Identifier: MIT
#include "contract/geometry.h"

#include <algorithm>

namespace {

constexpr qsizetype kMaxDigits = 5;
constexpr int kMinSide = 10;
constexpr int kMaxSide = 16384;
constexpr qint64 kMaxPixels = 64 * 1024 * 1024; // 256 MiB of frame buffer

std::optional<int> parseSide(QStringView text)
{
    const bool isDecimal = std::all_of(text.begin(), text.end(), [](QChar c) { return c >= u'0' && c <= u'9'; });
    if (text.isEmpty() || text.size() > kMaxDigits || !isDecimal) {
        return std::nullopt;
    }
    const int side = text.toInt();
    return side >= kMinSide && side <= kMaxSide ? std::optional(side) : std::nullopt;
}

} // namespace

QString windowModeOf(const QString &geometry)
{
    return geometry == WindowMode::kRootless ? WindowMode::kRootless : WindowMode::kDesktop;
}

std::optional<QSize> parseGeometry(QStringView text)
{
    const qsizetype cross = text.indexOf(u'x');
    if (cross < 0) {
        return std::nullopt;
    }
    const std::optional<int> width = parseSide(text.first(cross));
    const std::optional<int> height = parseSide(text.sliced(cross + 1));
    if (!width || !height || qint64{*width} * *height > kMaxPixels) {
        return std::nullopt;
    }
    return QSize(*width, *height);
}
