// SPDX-License-Identifier: MIT
#include "agent/confined/packet.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::size_t kMaxDescriptors = 2;

union ControlBuffer {
    cmsghdr header; // for its alignment
    char bytes[CMSG_SPACE(kMaxDescriptors * sizeof(int))];
};

void attach(std::initializer_list<int> descriptors, ControlBuffer *control, msghdr *message)
{
    if (descriptors.size() == 0) {
        return;
    }
    const std::size_t size = descriptors.size() * sizeof(int);
    message->msg_control = control->bytes;
    message->msg_controllen = CMSG_SPACE(size);
    cmsghdr *const header = CMSG_FIRSTHDR(message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(size);
    std::memcpy(CMSG_DATA(header), descriptors.begin(), size);
}

std::vector<int> takeDescriptors(msghdr *message)
{
    std::vector<int> descriptors;
    for (cmsghdr *header = CMSG_FIRSTHDR(message); header != nullptr; header = CMSG_NXTHDR(message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            descriptors.resize((header->cmsg_len - CMSG_LEN(0)) / sizeof(int));
            std::memcpy(descriptors.data(), CMSG_DATA(header), descriptors.size() * sizeof(int));
        }
    }
    return descriptors;
}

} // namespace

bool sendPacket(int socket, std::string_view packet, std::initializer_list<int> descriptors)
{
    iovec content = {const_cast<char *>(packet.data()), packet.size()};
    ControlBuffer control = {};
    msghdr message = {};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    attach(descriptors, &control, &message);
    ssize_t sent = -1;
    do {
        sent = ::sendmsg(socket, &message, MSG_NOSIGNAL);
    } while (sent == -1 && errno == EINTR);
    return sent == static_cast<ssize_t>(packet.size());
}

std::optional<std::string> receivePacket(int socket, std::vector<int> *descriptors)
{
    std::string bytes(kMaxPacketBytes, '\0');
    iovec content = {bytes.data(), bytes.size()};
    ControlBuffer control = {};
    msghdr message = {};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    if (descriptors != nullptr) { // otherwise the kernel closes what comes
        message.msg_control = control.bytes;
        message.msg_controllen = sizeof control.bytes;
    }
    ssize_t length = -1;
    do {
        length = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    } while (length == -1 && errno == EINTR);
    if (length == 0) {
        errno = 0;
    }
    if (length <= 0) {
        return std::nullopt;
    }
    if (descriptors != nullptr) {
        *descriptors = takeDescriptors(&message);
    }
    bytes.resize(static_cast<std::size_t>(length));
    return bytes;
}
