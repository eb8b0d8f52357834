// SPDX-License-Identifier: MIT
/*
 * Loaded into the server before its libraries. It makes chosen system calls fail, kills the process before one, or sets
 * its clock. A test writes to a file what has to happen, and this library maps the file, so the test can change it
 * while the server runs. faults.py has the same layout. Programs that the server starts are not affected.
 */
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

/** Kinds of calls, as bits. A call may be of several kinds. */
enum Kind : int64_t {
    kDisk = 1,           ///< makes or changes a file or a directory
    kDescriptor = 2,     ///< makes a descriptor
    kProcess = 4,        ///< makes a process
    kThread = 8,         ///< makes a thread
    kSignal = 16,        ///< sends a signal
    kSocket = 32,        ///< writes to a socket, or makes one listen
    kRemoval = 64,       ///< removes a file or a directory
    kOtherThreads = 128, ///< together with others: only the calls of threads other than the main one
};

constexpr int64_t kKill = -1;
constexpr size_t kTextBytes = 256;

struct Control
{
    std::atomic<int64_t> server; ///< pid of the daemon, 0 before there is one
    std::atomic<int64_t> kinds;  ///< which calls count
    std::atomic<int64_t> action; ///< 0: none; an error number: fail with it; kKill
    std::atomic<int64_t> first;  ///< the first call that is acted on, counted from 1
    std::atomic<int64_t> last;   ///< and the last one
    std::atomic<int64_t> count;  ///< calls so far
    std::atomic<int64_t> acted;  ///< calls acted on so far
    std::atomic<int64_t> shift;  ///< seconds that are added to the clock
    char path[kTextBytes];       ///< only calls on a path that contains this text count
    char met[kTextBytes];        ///< the last call that was acted on
};

Control *control = nullptr;

template <typename Function>
Function *next(Function *, const char *name)
{
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}

#define NEXT(name)                                                                                                     \
    (*[] {                                                                                                             \
        static auto *const found = next(&::name, #name);                                                               \
        return found;                                                                                                  \
    }())

/** The server itself, before and after it has become a daemon. Not its parent, and not the programs that it starts. */
bool isServer()
{
    const int64_t server = control->server;
    return server == 0 || server == ::getpid();
}

/** The main thread refreshes the sessions all the time, so its calls vary from run to run. */
bool isThreadMeant()
{
    return (control->kinds & kOtherThreads) == 0 || ::gettid() != ::getpid();
}

/** Whether the call has to fail; sets errno. Does not return if the process has to end. */
bool injectFault(int64_t kinds, const char *call, const char *path)
{
    const int savedErrno = errno;
    if (!control || (control->kinds & kinds) == 0 || !isServer() || !isThreadMeant() ||
        (control->path[0] != '\0' && !std::strstr(path, control->path))) {
        return false;
    }
    const int64_t number = ++control->count;
    const int64_t action = control->action;
    if (action == 0 || number < control->first || number > control->last) {
        errno = savedErrno;
        return false;
    }
    std::snprintf(control->met, kTextBytes, "%s %s", call, path);
    ++control->acted;
    if (action == kKill) {
        ::syscall(SYS_kill, ::getpid(), SIGKILL);
        for (;;) {
            ::pause();
        }
    }
    errno = static_cast<int>(action);
    return true;
}

struct Target
{
    char path[kTextBytes] = {};
    int64_t kind = 0;
};

/** The kind of change that a write to this descriptor makes. */
Target target(int descriptor)
{
    Target found;
    struct stat status = {};
    if (!control || ::fstat(descriptor, &status) != 0) {
        return found;
    }
    if (S_ISREG(status.st_mode)) {
        found.kind = kDisk;
    } else if (S_ISSOCK(status.st_mode)) {
        found.kind = kSocket;
    }
    char link[32];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    const ssize_t length = ::readlink(link, found.path, sizeof found.path - 1);
    found.path[length < 0 ? 0 : length] = '\0';
    return found;
}

/** Writes to pipes and events do not count, because no other process sees them. */
bool injectIntoWrite(int descriptor, const char *call)
{
    if (!control || control->kinds == 0) {
        return false;
    }
    const int savedErrno = errno;
    const Target found = target(descriptor);
    errno = savedErrno;
    return found.kind != 0 && injectFault(found.kind, call, found.path);
}

int64_t kindsOfOpen(int flags)
{
    return (flags & (O_CREAT | O_TRUNC)) != 0 ? kDescriptor | kDisk : kDescriptor;
}

bool injectIntoOpen(const char *path, int flags)
{
    // Devices need descriptors, but a write to one changes nothing.
    const int64_t kinds = std::strncmp(path, "/dev/", 5) == 0 ? static_cast<int64_t>(kDescriptor) : kindsOfOpen(flags);
    return injectFault(kinds, "open", path);
}

/** Runs when the library is loaded. */
struct Loader
{
    Loader()
    {
        const char *file = std::getenv("ZARVO_FAULTS");
        if (!file) {
            return;
        }
        ::unsetenv("LD_PRELOAD");
        const int descriptor = ::open(file, O_RDWR | O_CLOEXEC);
        void *memory = ::mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
        if (memory == MAP_FAILED) {
            std::abort();
        }
        ::close(descriptor);
        control = static_cast<Control *>(memory);
    }
};

const Loader loader;

int modeArgument(int flags, va_list arguments)
{
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, int) : 0;
}

} // namespace

// Files

#define DEFINE_OPEN(name)                                                                                              \
    EXPORT int name(const char *path, int flags, ...)                                                                  \
    {                                                                                                                  \
        va_list arguments;                                                                                             \
        va_start(arguments, flags);                                                                                    \
        const int mode = modeArgument(flags, arguments);                                                               \
        va_end(arguments);                                                                                             \
        return injectIntoOpen(path, flags) ? -1 : NEXT(name)(path, flags, mode);                                       \
    }

DEFINE_OPEN(open)
DEFINE_OPEN(open64)

EXPORT ssize_t write(int descriptor, const void *data, size_t size)
{
    return injectIntoWrite(descriptor, "write") ? -1 : NEXT(write)(descriptor, data, size);
}

EXPORT int mkdir(const char *path, mode_t mode) noexcept
{
    return injectFault(kDisk, "mkdir", path) ? -1 : NEXT(mkdir)(path, mode);
}

EXPORT int rmdir(const char *path) noexcept
{
    return injectFault(kRemoval, "rmdir", path) ? -1 : NEXT(rmdir)(path);
}

EXPORT int unlink(const char *path) noexcept
{
    return injectFault(kRemoval, "unlink", path) ? -1 : NEXT(unlink)(path);
}

EXPORT int rename(const char *from, const char *to) noexcept
{
    return injectFault(kDisk, "rename", to) ? -1 : NEXT(rename)(from, to);
}

EXPORT int renameat2(int fromFolder, const char *from, int toFolder, const char *to, unsigned flags) noexcept
{
    return injectFault(kDisk, "rename", to) ? -1 : NEXT(renameat2)(fromFolder, from, toFolder, to, flags);
}

EXPORT int chmod(const char *path, mode_t mode) noexcept
{
    return injectFault(kDisk, "chmod", path) ? -1 : NEXT(chmod)(path, mode);
}

EXPORT int fchmod(int descriptor, mode_t mode) noexcept
{
    return injectIntoWrite(descriptor, "chmod") ? -1 : NEXT(fchmod)(descriptor, mode);
}

EXPORT int ftruncate64(int descriptor, off64_t size) noexcept
{
    return injectIntoWrite(descriptor, "truncate") ? -1 : NEXT(ftruncate64)(descriptor, size);
}

// Other descriptors

EXPORT int socket(int domain, int type, int protocol) noexcept
{
    return injectFault(kDescriptor, "socket", "") ? -1 : NEXT(socket)(domain, type, protocol);
}

EXPORT int socketpair(int domain, int type, int protocol, int ends[2]) noexcept
{
    return injectFault(kDescriptor, "socketpair", "") ? -1 : NEXT(socketpair)(domain, type, protocol, ends);
}

EXPORT int accept4(int descriptor, sockaddr *address, socklen_t *length, int flags)
{
    return injectFault(kDescriptor, "accept", "") ? -1 : NEXT(accept4)(descriptor, address, length, flags);
}

EXPORT int pipe2(int ends[2], int flags) noexcept
{
    return injectFault(kDescriptor, "pipe", "") ? -1 : NEXT(pipe2)(ends, flags);
}

EXPORT int eventfd(unsigned value, int flags) noexcept
{
    return injectFault(kDescriptor, "eventfd", "") ? -1 : ::syscall(SYS_eventfd2, value, flags);
}

// Sockets

EXPORT int listen(int descriptor, int backlog) noexcept
{
    return injectFault(kSocket, "listen", "") ? -1 : NEXT(listen)(descriptor, backlog);
}

EXPORT ssize_t send(int descriptor, const void *data, size_t size, int flags)
{
    return injectIntoWrite(descriptor, "send") ? -1 : NEXT(send)(descriptor, data, size, flags);
}

EXPORT ssize_t sendmsg(int descriptor, const msghdr *message, int flags)
{
    return injectIntoWrite(descriptor, "send") ? -1 : NEXT(sendmsg)(descriptor, message, flags);
}

// Processes and threads

EXPORT pid_t fork() noexcept
{
    return injectFault(kProcess, "fork", "") ? -1 : NEXT(fork)();
}

EXPORT int clone(int (*start)(void *), void *stack, int flags, void *argument, ...) noexcept
{
    va_list arguments;
    va_start(arguments, argument);
    void *const parentId = va_arg(arguments, void *);
    void *const storage = va_arg(arguments, void *);
    void *const childId = va_arg(arguments, void *);
    va_end(arguments);
    return injectFault(kProcess, "fork", "") ? -1
                                             : NEXT(clone)(start, stack, flags, argument, parentId, storage, childId);
}

/** Qt also makes processes by a system call that the C library has no function for. */
EXPORT long syscall(long number, ...) noexcept
{
    va_list arguments;
    va_start(arguments, number);
    long values[6];
    for (long &value : values) {
        value = va_arg(arguments, long);
    }
    va_end(arguments);
    if ((number == SYS_clone || number == SYS_clone3) && injectFault(kProcess, "fork", "")) {
        return -1;
    }
    return NEXT(syscall)(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

EXPORT int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*start)(void *),
                          void *argument) noexcept
{
    return injectFault(kThread, "thread", "") ? errno : NEXT(pthread_create)(thread, attributes, start, argument);
}

EXPORT pid_t setsid() noexcept
{
    // The first process that leaves its terminal is the daemon. Agents do so too, but later.
    int64_t nobody = 0;
    if (control) {
        control->server.compare_exchange_strong(nobody, ::getpid());
    }
    return NEXT(setsid)();
}

EXPORT int kill(pid_t process, int number) noexcept
{
    // Signal 0 changes nothing.
    return number != 0 && injectFault(kSignal, "kill", "") ? -1 : NEXT(kill)(process, number);
}

// The clock

EXPORT int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    const int result = NEXT(clock_gettime)(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME && control) {
        now->tv_sec += control->shift;
    }
    return result;
}

EXPORT int gettimeofday(timeval *now, void *zone) noexcept
{
    const int result = NEXT(gettimeofday)(now, zone);
    if (result == 0 && control) {
        now->tv_sec += control->shift;
    }
    return result;
}

EXPORT time_t time(time_t *result) noexcept
{
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (result) {
        *result = now.tv_sec;
    }
    return now.tv_sec;
}
