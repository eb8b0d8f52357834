// SPDX-License-Identifier: MIT
#include "agent/display/authorityfile.h"

#include "agent/display/xauthority.h"
#include "support/filereader.h"
#include "support/privatefile.h"
#include "support/randomdata.h"

#include <QSysInfo>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <X11/Xauth.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxAuthorityFileBytes = 1024 * 1024;

using Address = std::pair<unsigned short, std::string>; ///< family and address of an entry

/** Where libX11 and libxcb look for the cookie of a local display. */
Address localAddress()
{
    return {FamilyLocal, QSysInfo::machineHostName().toLocal8Bit().toStdString()};
}

/** The addresses of the display's entries, without duplicates, and the local one first. */
std::vector<Address> addressesOf(const QByteArray &content, const std::string &display)
{
    std::vector<Address> found = {localAddress()};
    XAuthorityReader reader(std::string_view(content.constData(), static_cast<std::size_t>(content.size())));
    while (const std::optional<XAuthorityEntry> entry = reader.next()) {
        const Address address(entry->family, entry->address);
        if (entry->display == display && std::find(found.begin(), found.end(), address) == found.end()) {
            found.push_back(address);
        }
    }
    return found;
}

} // namespace

bool makeAuthority(const QByteArray &earlier, quint16 display, DisplayAuthority *authority, QString *error)
{
    QString digits;
    if (!randomHex(&digits, error)) {
        return false;
    }
    DisplayAuthority made;
    made.cookie = QByteArray::fromHex(digits.toLatin1());
    const std::string number = std::to_string(display);
    for (const auto &[family, address] : addressesOf(earlier, number)) {
        made.entries += QByteArray::fromStdString(
            authorityText({family, address, number, std::string(kXCookieMethod), made.cookie.toStdString()}));
    }
    *authority = made;
    return true;
}

bool renewAuthorityFile(const QString &path, quint16 display, DisplayAuthority *authority, QString *error)
{
    QByteArray earlier;
    QString ignored; // without the file only the names in it are missing, and local programs need none of them
    [[maybe_unused]] const bool isRead = readFile(path, kMaxAuthorityFileBytes, &earlier, &ignored);
    return makeAuthority(earlier, display, authority, error) && writePrivateFile(path, authority->entries, error);
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
