// The worker against servers and proxies that others have written: nginx, tinyproxy, microsocks.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "support/http_server.h"
#include "support/worker_run.h"

namespace {

using namespace test_support;
using Arguments = std::vector<std::string>;

bool Listens(int port) {
    char row[64];
    std::snprintf(row, sizeof row, ": 0100007F:%04X 00000000:0000 0A", static_cast<unsigned>(port));
    return ReadFile("/proc/net/tcp").find(row) != std::string::npos;
}

// A server program in the foreground, from its start to the end of the scope.
class Peer {
  public:
    // `command` makes the arguments for a port that was free a moment ago. It may be taken by
    // somebody else meanwhile: another one is tried then.
    explicit Peer(const std::function<Arguments(const std::string& port)>& command) {
        for (int attempt = 0; attempt < 5 && pid_ == -1; ++attempt) {
            port = HttpServer({Reply()}).Port();
            Arguments texts = command(std::to_string(port));
            const std::vector<char*> argv = Pointers(texts);
            if (posix_spawnp(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) break;
            WaitUntil([this] {
                if (waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
                return pid_ == -1 || Listens(port);
            });
        }
        EXPECT_NE(pid_, -1);
    }
    ~Peer() {
        if (pid_ == -1) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    int port = 0;

  private:
    pid_t pid_ = -1;
};

TEST(Peers, ServeFilesDirectlyAndAsProxies) {
    const TempDir directory;
    const std::string body = TestBytes(5'000'000);
    WriteFile(directory.Path("file"), body);
    const Peer nginx([&](const std::string& port) -> Arguments {
        WriteFile(directory.Path("nginx.conf"),
                  "user root; daemon off; pid pid; events {} http { access_log off;"
                  "client_body_temp_path t; proxy_temp_path t; fastcgi_temp_path t;"
                  "uwsgi_temp_path t; scgi_temp_path t; server { listen 127.0.0.1:" +
                      port + "; root .; location = /moved { return 302 /file; } } }");
        return {"/usr/sbin/nginx", "-p", directory.Path(), "-e", "log", "-c", "nginx.conf"};
    });
    const Peer tinyproxy([&](const std::string& port) -> Arguments {
        WriteFile(directory.Path("tinyproxy.conf"),
                  "Port " + port + "\nListen 127.0.0.1\nLogLevel Critical\nBasicAuth user pass\n");
        return {"tinyproxy", "-d", "-c", directory.Path("tinyproxy.conf")};
    });
    const Peer microsocks([](const std::string& port) -> Arguments {
        return {"microsocks", "-i", "127.0.0.1", "-p", port, "-u", "user", "-P", "pass"};
    });
    const struct {
        const char* name;
        int port, type;
        const char *password, *path;
        bool arrives;
    } rows[] = {
        {"direct", 0, 0, "", "/moved", true},
        {"http", tinyproxy.port, CURLPROXY_HTTP, "pass", "/moved", true},
        {"http, wrong password", tinyproxy.port, CURLPROXY_HTTP, "word", "/file", false},
        {"socks5", microsocks.port, CURLPROXY_SOCKS5, "pass", "/file", true},
        {"socks5h", microsocks.port, CURLPROXY_SOCKS5_HOSTNAME, "pass", "/moved", true},
        {"socks5, wrong password", microsocks.port, CURLPROXY_SOCKS5, "word", "/file", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WorkerRun run;
        run.Request("http://127.0.0.1:" + std::to_string(nginx.port) + row.path);
        if (row.port != 0) run.UseProxy(row.port, "user", row.password);
        run.Slot().nProxyType = row.type;
        run.EndWell();
        const auto end =
            row.arrives ? DOWNLOAD_STATE_DOWNLOAD_FINISH : DOWNLOAD_STATE_DOWNLOAD_FAIL;
        EXPECT_EQ(run.Slot().nStateBits & FINAL_STATE_BITS, 1U << end);
        EXPECT_EQ(ReadFile(run.Output()) == body, row.arrives);
    }
}

}  // namespace
