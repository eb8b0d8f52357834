// SPDX-License-Identifier: MIT
#include "agent/display/displayconnection.h"

#include "support/peerowner.h"

#include <cerrno>
#include <cstddef>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/** @param name  of the socket; an abstract one begins with a zero */
int connectTo(const std::string &name)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor == -1) {
        return -1;
    }
    int problem = 0;
    if (::connect(descriptor, reinterpret_cast<const sockaddr *>(&address), size) != 0) {
        problem = errno;
    } else if (!isLocalPeerTrusted(descriptor)) {
        problem = EPERM;
    }
    if (problem == 0) {
        return descriptor;
    }
    ::close(descriptor);
    errno = problem;
    return -1;
}

} // namespace

int connectToDisplay(unsigned number)
{
    const std::string path = std::string(kDisplaySocketFolder) + "/X" + std::to_string(number);
    const int descriptor = connectTo('\0' + path);
    return descriptor == -1 && errno == ECONNREFUSED ? connectTo(path) : descriptor;
}
