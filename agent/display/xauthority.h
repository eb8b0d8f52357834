// SPDX-License-Identifier: MIT
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/** The method that our clients use: a client that knows the cookie may connect. */
inline constexpr std::string_view kXCookieMethod = "MIT-MAGIC-COOKIE-1";

/** One entry of an X authority file. A value. */
struct XAuthorityEntry
{
    unsigned short family = 0; ///< how the address is to be read; FamilyLocal: it is the name of this host
    std::string address;       ///< of the display's host
    std::string display;       ///< the display's number
    std::string method;        ///< how a client proves that it may connect
    std::string data;          ///< of the method: a cookie, for example
};

/** The entry in the file's own form. */
[[nodiscard]] std::string authorityText(const XAuthorityEntry &entry);

/**
 * Reads the content of an X authority file, one entry after the other. Free of Qt, because take-screenshot has none.
 * The content outlives the reader.
 */
class XAuthorityReader final
{
public:
    explicit XAuthorityReader(std::string_view content);
    ~XAuthorityReader() = default;
    XAuthorityReader(const XAuthorityReader &) = delete;
    XAuthorityReader &operator=(const XAuthorityReader &) = delete;

    /** The next entry; nothing at the end, or when the rest is damaged. */
    [[nodiscard]] std::optional<XAuthorityEntry> next();

    /** Whether all of the content was read. When next() returns nothing, false means that the rest is damaged. */
    [[nodiscard]] bool isAtEnd() const { return position == size; }

private:
    std::size_t size;
    std::size_t position = 0; ///< of the next entry
    std::unique_ptr<std::FILE, decltype(&std::fclose)> file;
};

/**
 * The first MIT-MAGIC-COOKIE-1 for a display in @p content, whatever host it is for: the session's own file holds no
 * other display. Nothing when there is none before the end or the first damaged entry.
 */
[[nodiscard]] std::optional<std::string> findXCookie(std::string_view content, std::string_view display);
