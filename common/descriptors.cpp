#include "common/descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// Room for the descriptors, as the system wants it.
struct alignas(cmsghdr) Control {
    char bytes[CMSG_SPACE(DESCRIPTORS_MOST * sizeof(int))] = "";
};

msghdr MessageOf(iovec& text, Control& control) {
    msghdr message{};
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    return message;
}

}  // namespace

ssize_t SendWith(int socket, std::string_view text, const std::vector<int>& descriptors) {
    if (descriptors.empty() || descriptors.size() > DESCRIPTORS_MOST) {
        if (descriptors.empty())
            return send(socket, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        errno = EINVAL;
        return -1;
    }
    const std::size_t size = descriptors.size() * sizeof(int);
    iovec bytes{const_cast<char*>(text.data()), text.size()};
    Control control;
    msghdr message = MessageOf(bytes, control);
    message.msg_controllen = CMSG_SPACE(size);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(size);
    std::memcpy(CMSG_DATA(header), descriptors.data(), size);
    return sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

ssize_t ReceiveWith(int socket, char* buffer, std::size_t size,
                    std::vector<Descriptor>& descriptors) {
    iovec bytes{buffer, size};
    Control control;
    msghdr message = MessageOf(bytes, control);
    const ssize_t got = recvmsg(socket, &message, MSG_DONTWAIT);
    if (got < 0) return got;
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
        const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int number = -1;
            std::memcpy(&number, CMSG_DATA(header) + i * sizeof number, sizeof number);
            fcntl(number, F_SETFD, FD_CLOEXEC);
            descriptors.emplace_back(number);
        }
    }
    return got;
}
