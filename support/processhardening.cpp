// SPDX-License-Identifier: MIT
#include "support/processhardening.h"

#include <sys/prctl.h>
#include <sys/resource.h>

namespace {

/**
 * The soft limit that the user has set. A global, because whatever starts a process needs it. Written once, before
 * there are threads.
 */
rlim_t userLimit = 0;
bool isLowered = false;

std::mutex childrenMutex; ///< held while our limit is the user's

void setSoftLimit(rlim_t soft)
{
    rlimit limit = {};
    if (isLowered && ::getrlimit(RLIMIT_CORE, &limit) == 0) {
        limit.rlim_cur = soft;
        ::setrlimit(RLIMIT_CORE, &limit);
    }
}

} // namespace

void disableCoreFiles()
{
    rlimit limit = {};
    if (::getrlimit(RLIMIT_CORE, &limit) != 0) {
        return;
    }
    userLimit = limit.rlim_cur;
    limit.rlim_cur = 0;
    isLowered = ::setrlimit(RLIMIT_CORE, &limit) == 0;
}

void restoreCoreFiles()
{
    setSoftLimit(userLimit);
}

CoreFilesForChildren::CoreFilesForChildren()
    : lock(childrenMutex)
{
    setSoftLimit(userLimit);
}

CoreFilesForChildren::~CoreFilesForChildren()
{
    setSoftLimit(0);
}

void disableInspection()
{
    ::prctl(PR_SET_DUMPABLE, 0);
}
