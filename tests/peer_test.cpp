// The worker against servers and proxies that others have written: nginx, tinyproxy, microsocks.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "common/fieldtext.h"
#include "support/helpers.h"
#include "support/worker_run.h"

using test_support::TempDir;
using test_support::WaitUntil;
using test_support::WorkerRun;
using test_support::WriteFile;

namespace {

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

// A port that was free a moment ago.
int FreePort() {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    bind(probe, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    close(probe);
    return ntohs(address.sin_port);
}

bool Accepts(int port) {
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Loopback(port);
    const bool connected =
        connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(client);
    return connected;
}

// A server program in the foreground, from its start to the end of the scope.
class Peer {
  public:
    // `command` makes the arguments for a port. The port may be taken by somebody else meanwhile:
    // another one is tried then.
    explicit Peer(const std::function<std::vector<std::string>(int)>& command) {
        for (int attempt = 0; attempt < 5 && pid_ == -1; ++attempt) {
            port_ = FreePort();
            Start(command(port_));
        }
        EXPECT_NE(-1, pid_);
    }
    ~Peer() {
        if (pid_ == -1) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    int Port() const { return port_; }

  private:
    void Start(std::vector<std::string> arguments) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        ASSERT_EQ(0, posix_spawnp(&pid_, argv[0], nullptr, nullptr, argv.data(), environ))
            << argv[0];
        bool ended = false;
        WaitUntil([&] {
            ended = waitpid(pid_, nullptr, WNOHANG) == pid_;
            return ended || Accepts(port_);
        });
        if (ended) pid_ = -1;
    }

    pid_t pid_ = -1;
    int port_ = 0;
};

// nginx with a file of 5 MB, and playing the site for clients that take it for their proxy.
// tinyproxy, which wants user and password and asks nginx about the site; microsocks, which wants
// the same.
class PeerTest : public testing::Test {
  protected:
    PeerTest()
        : body_(test_support::TestBytes(5'000'000)),
          nginx_([this](int port) { return Nginx(port); }),
          tinyproxy_([this](int port) { return Tinyproxy(port); }),
          microsocks_([](int port) {
              return std::vector<std::string>{
                  "microsocks", "-i",   "127.0.0.1", "-p",  std::to_string(port),
                  "-u",         "user", "-P",        "pass"};
          }) {}

    std::vector<std::string> Nginx(int port) {
        WriteFile(directory_.Path("file"), body_);
        WriteFile(directory_.Path("answer"), "status=ok&fmt_url_map=34%7Chttp");
        const std::string temp = directory_.Path("temp");
        WriteFile(directory_.Path("nginx.conf"),
                  std::string(getuid() == 0 ? "user root;" : "") + "daemon off; pid " +
                      directory_.Path("pid") +
                      "; events {} http { access_log off; client_body_temp_path " + temp +
                      "; proxy_temp_path " + temp + "; fastcgi_temp_path " + temp +
                      "; uwsgi_temp_path " + temp + "; scgi_temp_path " + temp +
                      "; server { listen 127.0.0.1:" + std::to_string(port) + "; root " +
                      directory_.Path() +
                      "; location = /moved { return 302 /file; }"
                      " location = /get_video_info { try_files /answer =404; } } }");
        return {"/usr/sbin/nginx", "-e", directory_.Path("log"), "-c",
                directory_.Path("nginx.conf")};
    }

    std::vector<std::string> Tinyproxy(int port) {
        WriteFile(
            directory_.Path("tinyproxy.conf"),
            "Port " + std::to_string(port) +
                "\nListen 127.0.0.1\nTimeout 60\nMaxClients 20\nLogLevel Critical\nLogFile \"" +
                directory_.Path("proxylog") + "\"\nBasicAuth user pass\nUpstream http 127.0.0.1:" +
                std::to_string(nginx_.Port()) + " \"www.youtube.com\"\n");
        return {"tinyproxy", "-d", "-c", directory_.Path("tinyproxy.conf")};
    }

    const std::string body_;
    TempDir directory_;
    Peer nginx_;
    Peer tinyproxy_;
    Peer microsocks_;
};

TEST_F(PeerTest, DownloadsDirectlyAndThroughProxies) {
    struct Row {
        const char* name;
        int port, type;
        const char* password;
        const char* path;
        bool arrives;
    };
    const Row rows[] = {
        {"direct", 0, 0, "", "/file", true},
        {"direct, redirected", 0, 0, "", "/moved", true},
        {"http", tinyproxy_.Port(), CURLPROXY_HTTP, "pass", "/moved", true},
        {"http, wrong password", tinyproxy_.Port(), CURLPROXY_HTTP, "word", "/file", false},
        {"socks5", microsocks_.Port(), CURLPROXY_SOCKS5, "pass", "/file", true},
        {"socks5h", microsocks_.Port(), CURLPROXY_SOCKS5_HOSTNAME, "pass", "/moved", true},
        {"socks5, wrong password", microsocks_.Port(), CURLPROXY_SOCKS5, "word", "/file", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        WorkerRun run;
        run.Request("http://127.0.0.1:" + std::to_string(nginx_.Port()) + row.path);
        if (row.port != 0) run.UseProxy(row.port, "user", row.password);
        run.Slot().nProxyType = row.type;
        ASSERT_EQ("exit 0", run.Run());
        const std::uint32_t end = run.Slot().nStateBits & FINAL_STATE_BITS;
        EXPECT_EQ(
            1U << (row.arrives ? DOWNLOAD_STATE_DOWNLOAD_FINISH : DOWNLOAD_STATE_DOWNLOAD_FAIL),
            end);
        EXPECT_EQ(row.arrives ? 5e6 : 0, run.Slot().dFileSize);
        EXPECT_EQ(row.arrives, test_support::ReadFile(run.Output()) == body_);
    }
}

TEST_F(PeerTest, ResolvesAPageThroughAProxy) {
    WorkerRun run;
    run.RequestPage(tinyproxy_.Port());
    run.UseProxy(tinyproxy_.Port(), "user", "pass");
    ASSERT_EQ("exit 0", run.Run());
    EXPECT_EQ("status=ok\r\nfmt_url_map=34|http", FieldText(run.Slot().szVideoInfo));
}

}  // namespace
