// SPDX-License-Identifier: MIT
#include "agent/display/authorityfile.h"

#include "agent/display/xauthority.h"
#include "support/filereader.h"

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxAuthorityFileBytes = 1024 * 1024;
constexpr std::size_t kCookieBytes = 16;

QByteArray toByteArray(const std::string &text)
{
    return {text.data(), static_cast<qsizetype>(text.size())};
}

} // namespace

bool parseAuthority(const QByteArray &content, quint16 display, DisplayAuthority *authority)
{
    const std::string number = std::to_string(display);
    XAuthorityReader reader(std::string_view(content.constData(), static_cast<std::size_t>(content.size())));
    DisplayAuthority found;
    while (const std::optional<XAuthorityEntry> entry = reader.next()) {
        const bool isOurs = entry->display == number && entry->method == kXCookieMethod;
        if (!isOurs || entry->data.size() != kCookieBytes) {
            continue;
        }
        found.entries += toByteArray(entry->text);
        if (found.cookie.isEmpty()) {
            found.cookie = toByteArray(entry->data);
        }
    }
    if (!reader.isAtEnd() || found.cookie.isEmpty()) {
        return false;
    }
    *authority = found;
    return true;
}

bool readAuthorityFile(const QString &path, quint16 display, DisplayAuthority *authority, QString *error)
{
    QByteArray content;
    if (!readFile(path, kMaxAuthorityFileBytes, &content, error)) {
        return false;
    }
    if (!parseAuthority(content, display, authority)) {
        *error = u"The file \"%1\" holds no valid %2 entry for display %3"_s
                     .arg(path, QLatin1StringView(kXCookieMethod.data()))
                     .arg(display);
        return false;
    }
    return true;
}

int sealedAuthority(const QByteArray &entries, QString *error)
{
    const int descriptor = ::memfd_create("authority", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (descriptor == -1) {
        *error = u"Failed to create a file in memory: %1"_s.arg(qt_error_string(errno));
        return -1;
    }
    const bool isWritten =
        ::write(descriptor, entries.constData(), static_cast<size_t>(entries.size())) == entries.size();
    if (!isWritten || ::fcntl(descriptor, F_ADD_SEALS, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) != 0) {
        *error = u"Failed to write to a file in memory: %1"_s.arg(qt_error_string(errno));
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}
