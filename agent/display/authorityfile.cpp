// SPDX-License-Identifier: MIT
#include "agent/display/authorityfile.h"

#include "support/filereader.h"

#include <QtEndian>

#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxAuthorityFileBytes = 1024 * 1024;
constexpr qsizetype kCookieBytes = 16;
constexpr char kMethod[] = "MIT-MAGIC-COOKIE-1";

struct Entry
{
    QByteArray display;
    QByteArray method;
    QByteArray data;
};

std::optional<quint16> readNumber(const QByteArray &content, qsizetype *position)
{
    if (content.size() - *position < static_cast<qsizetype>(sizeof(quint16))) {
        return std::nullopt;
    }
    const auto number = qFromBigEndian<quint16>(content.constData() + *position);
    *position += sizeof(quint16);
    return number;
}

std::optional<QByteArray> readCounted(const QByteArray &content, qsizetype *position)
{
    const std::optional<quint16> length = readNumber(content, position);
    if (!length || content.size() - *position < *length) {
        return std::nullopt;
    }
    const QByteArray bytes = content.mid(*position, *length);
    *position += *length;
    return bytes;
}

// An entry is an address family and four counted fields: address, display number, method, data.
std::optional<Entry> readEntry(const QByteArray &content, qsizetype *position)
{
    const std::optional<quint16> family = readNumber(content, position);
    const std::optional<QByteArray> address = family ? readCounted(content, position) : std::nullopt;
    const std::optional<QByteArray> display = address ? readCounted(content, position) : std::nullopt;
    const std::optional<QByteArray> method = display ? readCounted(content, position) : std::nullopt;
    const std::optional<QByteArray> data = method ? readCounted(content, position) : std::nullopt;
    if (!data) {
        return std::nullopt;
    }
    return Entry{*display, *method, *data};
}

} // namespace

bool parseAuthority(const QByteArray &content, quint16 display, DisplayAuthority *authority)
{
    DisplayAuthority found;
    qsizetype position = 0;
    while (position < content.size()) {
        const qsizetype begin = position;
        const std::optional<Entry> entry = readEntry(content, &position);
        if (!entry) {
            return false;
        }
        const bool isOurs = entry->display == QByteArray::number(display) && entry->method == kMethod;
        if (!isOurs || entry->data.size() != kCookieBytes) {
            continue;
        }
        found.entries += content.mid(begin, position - begin);
        if (found.cookie.isEmpty()) {
            found.cookie = entry->data;
        }
    }
    if (found.cookie.isEmpty()) {
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
        *error = u"The file \"%1\" holds no valid %2 entry for display %3"_s.arg(path, QLatin1StringView(kMethod))
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
