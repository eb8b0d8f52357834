// SPDX-License-Identifier: MIT
#include "client/reach/vncpasswordfile.h"

#include "support/vncdes.h"

#include <QByteArray>

#include <cerrno>

#include <sys/mman.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

QByteArray scrambledVncPassword(const QString &password)
{
    // The file format fixes this key, so the file keeps the password from being read over a shoulder and no more.
    static constexpr char kFormatKey[] = {23, 82, 107, 6, 35, 78, 88, 7};
    return vncDesEncrypted(QByteArray(kFormatKey, sizeof kFormatKey),
                           password.toLatin1().leftJustified(kVncDesBlockBytes, '\0', true));
}

VncPasswordFile::~VncPasswordFile()
{
    if (file != -1) {
        ::close(file);
    }
}

bool VncPasswordFile::create(const QString &password, QString *error)
{
    const QByteArray bytes = scrambledVncPassword(password);
    if (bytes.isEmpty()) {
        *error = u"Failed to scramble the password"_s;
        return false;
    }
    file = ::memfd_create("password", MFD_CLOEXEC);
    if (file == -1 || ::write(file, bytes.constData(), static_cast<size_t>(bytes.size())) != bytes.size()) {
        *error = u"Failed to pass the password on: %1"_s.arg(qt_error_string(errno));
        return false;
    }
    return true;
}

QString VncPasswordFile::path() const
{
    return u"/proc/self/fd/%1"_s.arg(file);
}
