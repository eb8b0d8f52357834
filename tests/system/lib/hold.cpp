// SPDX-License-Identifier: MIT
/*
 * Loaded into a program before its libraries. It holds the program before it opens one file, so that a test can change
 * files between two reads. It makes the file ZARVO_HOLD while it holds the program, and goes on when a file of this
 * name with "-go" at its end exists. ZARVO_HOLD_PATH is the beginning of the path. ZARVO_HOLD_NTH says
 * which opening of such a path is held, counted from 1.
 */
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr useconds_t kPauseUs = 1000;

using Open = int (*)(const char *, int, ...);

/** What was asked for. Programs that this one starts are not held. */
struct Request
{
    Request()
    {
        if (const char *value = std::getenv("ZARVO_HOLD")) {
            sign = value;
            path = std::getenv("ZARVO_HOLD_PATH");
            left = std::atoi(std::getenv("ZARVO_HOLD_NTH"));
        }
        ::unsetenv("LD_PRELOAD");
        ::unsetenv("ZARVO_HOLD");
    }

    std::string sign;
    std::string path;
    int left = 0;
};

Request &request()
{
    static Request made;
    return made;
}

const Request &madeWhenLoaded = request();

void hold(const char *path, Open realOpen)
{
    Request &asked = request();
    if (asked.left <= 0 || std::strncmp(path, asked.path.c_str(), asked.path.size()) != 0 || --asked.left > 0) {
        return;
    }
    ::close(realOpen(asked.sign.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::string go = asked.sign + "-go";
    while (::access(go.c_str(), F_OK) != 0) {
        ::usleep(kPauseUs);
    }
}

} // namespace

#define DEFINE_OPEN(name)                                                                                              \
    EXPORT int name(const char *path, int flags, ...)                                                                  \
    {                                                                                                                  \
        static const auto realOpen = reinterpret_cast<Open>(::dlsym(RTLD_NEXT, #name));                                \
        va_list arguments;                                                                                             \
        va_start(arguments, flags);                                                                                    \
        const int mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, int) : 0;                            \
        va_end(arguments);                                                                                             \
        hold(path, realOpen);                                                                                          \
        return realOpen(path, flags, mode);                                                                            \
    }

DEFINE_OPEN(open)
DEFINE_OPEN(open64)
