// SPDX-License-Identifier: MIT
#include "base/lockedfile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

bool LockedFile::switchToNewFile()
{
    // Not blocking, because others may have put a pipe there.
    const int next = ::open(encodeName(fileName()).constData(),
                            O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW, 0600);
    if (next == -1) {
        return false;
    }
    struct stat status = {};
    const bool isReplaced = ::fstat(next, &status) == 0 && S_ISREG(status.st_mode) &&
                            ::dup3(next, handle(), O_CLOEXEC) != -1; // closes the old file, which releases its lock
    ::close(next);
    return isReplaced;
}
