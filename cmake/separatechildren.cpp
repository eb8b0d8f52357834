// SPDX-License-Identifier: MIT
// Linked into every program that is built for the thread sanitizer.
//
// A child of QProcess shares our memory until it runs its program. The sanitizer notes that a new process has one
// thread only, and because of the shared memory it then believes the same of us: after the first child it finds nothing
// more. So children get a copy of the memory instead, which only costs time.
#include <cstdarg>

#include <dlfcn.h>
#include <sched.h>

using Clone = int (*)(int (*)(void *), void *, int, void *, ...);

extern "C" int clone(int (*start)(void *), void *stack, int flags, void *argument, ...) noexcept
{
    va_list further;
    va_start(further, argument);
    auto *parentId = va_arg(further, pid_t *);
    auto *threadStorage = va_arg(further, void *);
    auto *childId = va_arg(further, pid_t *);
    va_end(further);
    static const auto real = reinterpret_cast<Clone>(::dlsym(RTLD_NEXT, "clone"));
    return real(start, stack, flags & ~CLONE_VM, argument, parentId, threadStorage, childId);
}
