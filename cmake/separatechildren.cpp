// SPDX-License-Identifier: MIT
// Linked into every program that is built for the thread sanitizer.
//
// QProcess makes children that share our memory until they run their program. What the sanitizer notes of a new
// process, that it has but one thread, is noted of ours then, and from the first child on it takes our threads for dead
// and finds nothing any more. So they get a copy of the memory instead, which costs time and nothing else.
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
