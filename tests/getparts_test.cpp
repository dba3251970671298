// The parts of `taskman get` that run alone: names, addresses, proxies, lists, the local file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <tuple>

#include "Console/digest.h"
#include "Console/filename.h"
#include "Console/inputlist.h"
#include "Console/proxy.h"
#include "Console/target.h"
#include "support/helpers.h"

using namespace test_support;

namespace {

TEST(GetName, IsSafeWhateverTheAddressSays) {
    const std::string many(300, 'a');
    struct Row {
        std::string path, name;
    };
    const Row rows[] = {
        {"/dir/file.iso", "file.iso"},
        {"/file?name=/x/y#z", "file"},
        {"/a%20b%2Bc", "a b+c"},
        {"", "download"},
        {"/", "download"},
        {"/dir/", "download"},
        {"?file=/x", "download"},
        {"/..", "download"},
        {"/...%2e", "download"},
        {"/..%2F..%2Fetc%2Fpasswd", "passwd"},
        {"/a%2F", "download"},
        {"/%2e%2Eprofile", "profile"},
        {"/%01.%02.bashrc%00%7f", "bashrc"},
        {"/%1b%5B31mred%0a", "[31mred"},
        {"/C:%5Cboot", "C:_boot"},
        {"/%zz%4", "%zz%4"},
        {"/%C3%A4%C2%85%E2%80%AEx", "\u00e4x"},
        {"/%E4.txt%C3", "_.txt_"},
        {"/%C0%AF%ED%A0%80", "_____"},
        {"/%E0%80%AF%BF%80", "_____"},
        {"/" + many, many.substr(0, 249)},
        {"/" + many.substr(0, 248) + "%C3%A4", many.substr(0, 248)},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(NameFromAddress("http://host" + row.path), row.name) << row.path;
    }
}

TEST(GetAddress, MustBeHttpWithAHost) {
    for (const char* good : {"http://h", "HTTPS://h/x", "http://[::1]:80/?a"}) {
        EXPECT_EQ(AddressFault(good), "") << good;
    }
    for (const char* bad : {"", "h/x", "ftp://h/x", "http:/h", "http://", "http:///x", "httpx://h",
                            "http://h/a b", "http://h/\r\nX: y", "file:///etc/passwd"}) {
        EXPECT_NE(AddressFault(bad), "") << bad;
    }
    EXPECT_EQ(AddressFault("http://h/" + std::string(1023 - 9, 'x')), "");
    EXPECT_NE(AddressFault("http://h/" + std::string(1024 - 9, 'x')), "");
}

TEST(GetProxy, IsReadFromItsAddress) {
    struct Row {
        const char* address;
        std::int32_t type;
        const char *host, *user, *password;
        std::int32_t port;
    };
    const Row rows[] = {
        {"h:8080", 0, "h", "", "", 8080},
        {"http://h/", 0, "h", "", "", 1080},
        {"socks4://u@h:1", 4, "h", "u", "", 1},
        {"socks4a://h:65535", 6, "h", "", "", 65535},
        {"socks5://u:p%40%3A%25@[::1]:9", 5, "[::1]", "u", "p@:%", 9},
        {"socks5h://u:a@b:c@h", 7, "h", "u", "a@b:c", 1080},
    };
    for (const Row& row : rows) {
        Proxy proxy;
        ASSERT_EQ(ParseProxy(row.address, proxy), "") << row.address;
        EXPECT_EQ(std::tie(proxy.type, proxy.host, proxy.user, proxy.password, proxy.port),
                  std::make_tuple(row.type, row.host, row.user, row.password, row.port))
            << row.address;
    }
    const std::string longText(128, 'x');
    for (const std::string& bad :
         {std::string(), std::string("ftp://h"), std::string("h:0"), std::string("h:65536"),
          std::string("h:"), std::string("h:8x"), std::string("http://:p@h"),
          std::string("u%3Ax:p@h"), std::string("u%00:p@h"), longText, longText + ":p@h"}) {
        Proxy proxy;
        const std::string fault = ParseProxy(bad, proxy);
        EXPECT_NE(fault, "") << bad;
        EXPECT_EQ(proxy.host, "") << bad;
    }
}

TEST(GetProxy, ComesFromAFileOrTheEnvironment) {
    const TempDir directory;
    WriteFile(directory.Path("proxy"), " http://u:p@filed:1 \r\nmore");
    const struct {
        const char *given, *address;
        std::vector<std::string> environment;
        const char* host;  // null: there is a fault
    } rows[] = {
        {"", "http://h", {}, ""},
        {"", "http://h", {"http_proxy=p:1", "all_proxy=a"}, "p"},
        {"", "HTTPS://h", {"http_proxy=p", "HTTPS_PROXY=s", "all_proxy=a"}, "s"},
        {"", "https://h", {"https_proxy=t", "HTTPS_PROXY=s"}, "t"},
        {"", "http://h", {"HTTP_PROXY=p"}, ""},
        {"", "http://h", {"http_proxy=", "ALL_PROXY=socks5://a"}, "a"},
        {"", "http://h", {"http_proxy=ftp://u:secret@p"}, nullptr},
        {"", "http://a.b.c:80/x", {"http_proxy=p", "no_proxy=x, .B.c"}, ""},
        {"", "http://u@b.c", {"http_proxy=p", "NO_PROXY=b.c."}, ""},
        {"", "http://ab.c", {"http_proxy=p", "no_proxy=b.c"}, "p"},
        {"", "http://[::1]:80/", {"http_proxy=p", "no_proxy=::1"}, ""},
        {"", "http://h", {"http_proxy=p", "no_proxy=*"}, ""},
        {"none", "http://h", {"http_proxy=p"}, ""},
        {"q", "http://h", {"http_proxy=p", "no_proxy=*"}, "q"},
        {"@proxy", "http://h", {}, "filed"},
    };
    const char* const names[] = {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY",
                                 "all_proxy",  "ALL_PROXY",   "no_proxy",   "NO_PROXY"};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.environment) + row.given + row.address);
        for (const char* name : names) unsetenv(name);
        for (const std::string& set : row.environment) putenv(const_cast<char*>(set.c_str()));
        ProxyRules rules;
        const std::string given = row.given;
        if (given[0] == '@') {
            EXPECT_EQ(rules.Give("@" + directory.Path(given.substr(1))), "");
        } else if (!given.empty()) {
            EXPECT_EQ(rules.Give(given), "");
        }
        Proxy proxy;
        const std::string fault = rules.For(row.address, proxy);
        EXPECT_EQ(fault.empty(), row.host != nullptr) << fault;
        EXPECT_EQ(fault.find("secret"), std::string::npos);
        EXPECT_EQ(proxy.host, row.host == nullptr ? "" : row.host);
        for (const char* name : names) unsetenv(name);
    }
    EXPECT_NE(ProxyRules().Give("@" + directory.Path("missing")), "");
}

TEST(GetList, ItsLinesAreRequests) {
    const std::string digest(64, 'A');
    const struct {
        std::string line;
        std::tuple<std::string, std::string, std::string> request;
        bool good = true;
    } rows[] = {
        {"", {}},
        {" \t \r", {}},
        {" # http://h", {}},
        {" http://h/#a b \r", {"http://h/#a b", "", ""}},
        {"http://h\td/a b \t " + digest + "\t", {"http://h", "d/a b ", digest}},
        {"http://h\t\t" + digest, {"http://h", "", digest}},
        {"http://h\tx/", {"http://h", "x/", ""}, false},
        {std::string("http://h\tx\0y", 12), {"http://h", std::string("x\0y", 3), ""}, false},
        {"http://h\tx\t12", {"http://h", "x", "12"}, false},
        {"http://h\t\t\tx", {"http://h", "", ""}, false},
        {"\tname", {"name", "name", ""}, false},
    };
    for (const auto& row : rows) {
        const Request request = ReadListLine(row.line);
        EXPECT_EQ(std::tie(request.address, request.name, request.sha256), row.request) << row.line;
        EXPECT_EQ(request.fault.empty(), row.good) << row.line << ": " << request.fault;
    }
}

TEST(GetList, EndsWithAWholeLine) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    InputList list;
    ASSERT_EQ(list.Open("/dev/fd/" + std::to_string(ends[0])), "");
    Request request;
    EXPECT_FALSE(list.Take(request));
    const std::string text = "a\n\n#\n" + std::string(20'000, 'b') + "\nc\nd";
    ASSERT_EQ(write(ends[1], text.data(), text.size()), ssize_t(text.size()));
    for (const char first : {'a', 'b', 'c'}) {
        ASSERT_TRUE(list.Take(request));
        EXPECT_EQ(request.address[0], first);
        EXPECT_EQ(request.fault.empty(), first != 'b');
    }
    EXPECT_FALSE(list.Take(request) || list.Ended());
    list.Finish();
    EXPECT_FALSE(list.Take(request) || !list.Ended());
    for (const int end : ends) close(end);
}

TEST(GetTarget, KnowsWhatItsDiskHolds) {
    const TempDir directory;
    const std::string path = directory.Path("x");
    Target target(path);
    ASSERT_EQ(target.Open(), "");
    EXPECT_EQ(target.LocalFault(1000).result, EndResult::kFinished);
    EXPECT_EQ(target.LocalFault(1e18).status, EXIT_STATUS_LOCAL);
    ASSERT_EQ(unlink(target.PartPath().c_str()), 0);
    EXPECT_EQ(target.LocalFault(1000).status, EXIT_STATUS_LOCAL);
    WriteFile(path, TestBytes(600'000));
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(FileDigest(file), "f9c8cb75cb0b9da9cf89cba01db1a4b0c366a1aa4abcd50a3d8e0f32a9c27b3d");
    close(file);
}

}  // namespace
