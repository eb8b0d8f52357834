// SPDX-License-Identifier: MIT
#include "agent/display/xauthority.h"

#include <X11/Xauth.h>

namespace {

using EntryPtr = std::unique_ptr<Xauth, decltype(&XauDisposeAuth)>;

/** Opens @p content as a file that is only read. */
std::FILE *openedToRead(std::string_view content)
{
    return ::fmemopen(const_cast<char *>(content.data()), content.size(), "r");
}

std::string bytes(const char *data, unsigned short length)
{
    return data ? std::string(data, length) : std::string();
}

std::string number(std::size_t value)
{
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string counted(const std::string &field)
{
    return number(field.size()) + field;
}

} // namespace

std::string authorityText(const XAuthorityEntry &entry)
{
    return number(entry.family) + counted(entry.address) + counted(entry.display) + counted(entry.method) +
           counted(entry.data);
}

XAuthorityReader::XAuthorityReader(std::string_view content)
    : size(content.size())
    , file(openedToRead(content), &std::fclose)
{
}

std::optional<XAuthorityEntry> XAuthorityReader::next()
{
    if (!file || isAtEnd()) {
        return std::nullopt;
    }
    const EntryPtr read(XauReadAuth(file.get()), &XauDisposeAuth);
    const long end = read ? std::ftell(file.get()) : -1;
    if (end == -1) {
        return std::nullopt;
    }
    position = static_cast<std::size_t>(end);
    return XAuthorityEntry{read->family, bytes(read->address, read->address_length),
                           bytes(read->number, read->number_length), bytes(read->name, read->name_length),
                           bytes(read->data, read->data_length)};
}

std::optional<std::string> findXCookie(std::string_view content, std::string_view display)
{
    XAuthorityReader reader(content);
    while (const std::optional<XAuthorityEntry> entry = reader.next()) {
        if (entry->display == display && entry->method == kXCookieMethod) {
            return entry->data;
        }
    }
    return std::nullopt;
}
