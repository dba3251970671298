#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "Tarnwick/engine/curl.h"
#include "Tarnwick/engine/transfer.h"

namespace engine {

Pool::Pool() : multi_(curl_multi_init()), sessions_(curl_share_init()) {
    curl_share_setopt(sessions_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

Pool::~Pool() {
    curl_multi_cleanup(multi_);
    curl_share_cleanup(sessions_);
}

void Pool::Watch(CURL* curl) {
    curl_easy_setopt(curl, CURLOPT_SHARE, sessions_);
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, Open);
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETDATA, this);
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETFUNCTION, Close);
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETDATA, this);
}

void Pool::EndUnsound() const {
    for (const curl_socket_t socket : sockets_) {
        pollfd something{socket, POLLIN, 0};
        if (poll(&something, 1, 0) == 1) shutdown(socket, SHUT_RDWR);
    }
}

void Pool::EndAll() const {
    for (const curl_socket_t socket : sockets_) shutdown(socket, SHUT_RDWR);
}

curl_socket_t Pool::Open(void* self, curlsocktype /*purpose*/, curl_sockaddr* address) noexcept {
    const auto made = socket(address->family, address->socktype, address->protocol);
    if (made == CURL_SOCKET_BAD) return made;
    return KeepExceptions(CURL_SOCKET_BAD, [&] {
        static_cast<Pool*>(self)->sockets_.push_back(made);
        return made;
    });
}

int Pool::Close(void* self, curl_socket_t socket) noexcept {
    std::erase(static_cast<Pool*>(self)->sockets_, socket);
    return close(socket);
}

}  // namespace engine
