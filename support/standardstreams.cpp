// SPDX-License-Identifier: MIT
#include "support/standardstreams.h"

#include <fcntl.h>
#include <unistd.h>

void ensureStandardStreams()
{
    int descriptor = ::open("/dev/null", O_RDWR);
    while (descriptor != -1 && descriptor <= STDERR_FILENO) {
        descriptor = ::open("/dev/null", O_RDWR);
    }
    ::close(descriptor);
}
