// The least a download can cost: one connection, read and write with the size of the worker's
// receive buffer and nothing between. Usage: bench_floor PORT TARGET FILE [BYTES], from 127.0.0.1;
// with BYTES what was read is written in pieces of that size. Exits with status 0 when the whole
// body arrived.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::size_t kBuffer = 512 * 1024;  // kReceiveBuffer of Src/Tarnwick/download.cpp

bool Connect(int fd, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// Sets `left` to the announced length; returns what the first read has brought of the body.
std::string_view ReadHead(std::string_view answer, unsigned long long& left) {
    constexpr std::string_view kLength = "Content-Length: ";
    const std::size_t end = answer.find("\r\n\r\n");
    const std::size_t field = answer.find(kLength);
    if (end == std::string_view::npos || field > end) return {};
    left = std::strtoull(answer.data() + field + kLength.size(), nullptr, 10);
    return answer.substr(end + 4);
}

// Copies from `from`, behind the head of the answer, to `to`, in writes of at most `most` bytes.
bool CopyBody(int from, int to, std::size_t most) {
    std::vector<char> buffer(kBuffer);
    unsigned long long left = 0;
    for (bool head = true; head || left > 0; head = false) {
        const ssize_t got = read(from, buffer.data(), buffer.size());
        if (got <= 0) return false;
        std::string_view block(buffer.data(), static_cast<std::size_t>(got));
        if (head) block = ReadHead(block, left);
        left -= block.size();
        while (!block.empty()) {
            const ssize_t put = write(to, block.data(), std::min(block.size(), most));
            if (put <= 0) return false;
            block.remove_prefix(static_cast<std::size_t>(put));
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    const int from = socket(AF_INET, SOCK_STREAM, 0);
    const int to = open(argv[3], O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (from < 0 || to < 0 || !Connect(from, std::atoi(argv[1]))) return 1;
    const std::string request =
        std::string("GET ") + argv[2] + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    if (write(from, request.data(), request.size()) < 0) return 1;
    return CopyBody(from, to, argc > 4 ? std::strtoul(argv[4], nullptr, 10) : kBuffer) ? 0 : 1;
}
