// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>

/**
 * The MIT-MAGIC-COOKIE-1 for a display in the text of an X authority file, whatever host it is for: the session's
 * own file holds its own display alone. Nothing when there is none or the text is cut off before it.
 */
[[nodiscard]] std::optional<std::string> findXCookie(const std::string &authority, const std::string &display);
