// SPDX-License-Identifier: MIT
#include "base/lockedfile.h"

#include <cerrno>

#include <fcntl.h>

namespace {

void setLock(int descriptor, short type)
{
    struct flock region = {}; // zeros: from the start to the end of the file
    region.l_type = type;
    region.l_whence = SEEK_SET;
    while (::fcntl(descriptor, F_SETLKW, &region) == -1 && errno == EINTR) {
    }
}

} // namespace

void LockedFile::lockForWriting()
{
    if (isOpen()) {
        setLock(handle(), F_WRLCK);
    }
}

void LockedFile::unlock()
{
    if (isOpen()) {
        setLock(handle(), F_UNLCK);
    }
}
