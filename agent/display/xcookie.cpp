// SPDX-License-Identifier: MIT
#include "agent/display/xcookie.h"

#include <cstddef>

namespace {

/** Takes numbers and counted texts off the front of a buffer, all of them in network byte order. */
class Reader
{
public:
    explicit Reader(const std::string &text_)
        : text(text_)
    {
    }

    [[nodiscard]] std::optional<std::size_t> number()
    {
        if (text.size() - position < 2) {
            return std::nullopt;
        }
        const auto high = static_cast<unsigned char>(text[position]);
        const auto low = static_cast<unsigned char>(text[position + 1]);
        position += 2;
        return static_cast<std::size_t>(high) << 8 | low;
    }

    [[nodiscard]] std::optional<std::string> counted()
    {
        const std::optional<std::size_t> length = number();
        if (!length || text.size() - position < *length) {
            return std::nullopt;
        }
        position += *length;
        return text.substr(position - *length, *length);
    }

private:
    const std::string &text;
    std::size_t position = 0;
};

} // namespace

std::optional<std::string> findXCookie(const std::string &authority, const std::string &display)
{
    Reader reader(authority);
    for (;;) {
        const auto family = reader.number();
        const auto address = reader.counted();
        const auto number = reader.counted();
        const auto name = reader.counted();
        auto data = reader.counted();
        if (!family || !address || !number || !name || !data) {
            return std::nullopt;
        }
        if (*number == display && *name == "MIT-MAGIC-COOKIE-1") {
            return data;
        }
    }
}
