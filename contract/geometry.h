// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1StringView>
#include <QSize>
#include <QString>
#include <QStringView>

#include <optional>

/*
 * A session's geometry, as clients give it and the agent gets it: a screen size, or WindowMode::kRootless.
 */

/** What a session shows. */
namespace WindowMode {
inline constexpr QLatin1StringView kRootless("rootless"); ///< a single application
inline constexpr QLatin1StringView kDesktop("desktop");
} // namespace WindowMode

/** The window mode of a session with this geometry: anything but WindowMode::kRootless makes a desktop. */
[[nodiscard]] QString windowModeOf(const QString &geometry);

/**
 * Reads a screen size of the form "1280x800". Everything is checked here, because the X server accepts nearly any text
 * for a size, and ends without a clear reason when the size is too large.
 *
 * @return nothing for any other form, for a side outside 10 to 16384 and for more than 64 million pixels
 */
[[nodiscard]] std::optional<QSize> parseGeometry(QStringView text);
