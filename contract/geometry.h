// SPDX-License-Identifier: MIT
#pragma once

#include <QSize>
#include <QStringView>

#include <optional>

/**
 * Reads a screen size of the form "1280x800". The X server itself takes nearly anything for a size, colour depths
 * behind it included, and ends with a riddle when it is too large, so all of it is checked here.
 *
 * @return nothing for any other form, for a side outside 10 to 16384 and for more than 64 million pixels
 */
[[nodiscard]] std::optional<QSize> parseGeometry(QStringView text);
