// The proxy of an address: what the option and the environment make of it.
#include "Console/base/proxy.h"

#include <cstdlib>

#include "support/helpers.h"

using namespace test_support;

namespace {

// What the rules make of `given`, unless it is empty, and of settings of the environment.
std::string ProxyFor(const std::string& given, const std::string& address,
                     const std::string& settings) {
    for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "all_proxy",
                             "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
        unsetenv(name);
    }
    std::istringstream words(settings);
    for (std::string name, value; std::getline(words, name, '=');) {
        std::getline(words, value, ' ');
        setenv(name.c_str(), value.c_str(), 1);
    }
    ProxyRules rules;
    Proxy proxy;
    std::string fault = given.empty() ? "" : rules.Set(given);
    if (fault.empty()) fault = rules.For(address, proxy);
    if (!fault.empty()) return fault.find("secret") != fault.npos ? fault : "fault";
    const auto& [host, port, type, user, password] = proxy;
    return host.empty() ? "none"
                        : std::to_string(type) + " " + host + " " + std::to_string(port) + " " +
                              user + " " + password;
}

TEST(Proxy, ComesFromTheOptionOrTheEnvironment) {
    const TempDir directory;
    WriteFile(directory.Path("proxy"), " http://u:p@filed:1 \r\nmore");
    // What is given, an address, the environment; the proxy's type, host, port, user, password.
    const std::string rows[][4] = {
        {"HTTP://h/", "http://a", "", "0 h 1080  "},
        {"socks4://u@h:1", "http://a", "", "4 h 1 u "},
        {"socks4a://h:65535", "http://a", "", "6 h 65535  "},
        {"socks5://u:p%40%3A%25@[::1]:9", "http://a", "", "5 [::1] 9 u p@:%"},
        {"socks5h://u:a@b:c@h", "http://a", "", "7 h 1080 u a@b:c"},
        {"@" + directory.Path("proxy"), "http://a", "", "0 filed 1 u p"},
        {"none", "http://a", "http_proxy=p", "none"},
        {"q", "http://a", "http_proxy=p no_proxy=*", "0 q 1080  "},
        {"", "http://a", "http_proxy=p:1 all_proxy=b", "0 p 1  "},
        {"", "HTTPS://a", "http_proxy=p HTTPS_PROXY=s:1 all_proxy=b", "0 s 1  "},
        {"", "http://a", "HTTP_PROXY=p", "none"},
        {"", "http://a", "http_proxy= ALL_PROXY=socks5://b", "5 b 1080  "},
        {"", "http://a", "http_proxy=ftp://u:secret@p", "fault"},
        {"", "http://a.b.c:80/x", "http_proxy=p no_proxy=x,.B.c", "none"},
        {"", "http://u@b.c", "http_proxy=p NO_PROXY=b.c.", "none"},
        {"", "http://ab.c", "http_proxy=p no_proxy=b.c", "0 p 1080  "},
        {"", "http://[::1]:80/", "http_proxy=p no_proxy=::1", "none"},
        {"", "http://a", "http_proxy=p no_proxy=*", "none"},
    };
    for (const auto& [given, address, environment, proxy] : rows) {
        EXPECT_EQ(ProxyFor(given, address, environment), proxy) << given << address << environment;
    }
    const std::string missing = "@" + directory.Path("missing"), tooLong(128, 'x'),
                      longPassword = "u:" + tooLong + "@h";
    for (const char* bad :
         {"ftp://u:secret@h", ":1", "h:0", "h:65536", "h:8x", "http://:p@h", "u%3Ax:p@h",
          "u%00:p@h", missing.c_str(), tooLong.c_str(), longPassword.c_str()}) {
        EXPECT_EQ(ProxyFor(bad, "http://a", ""), "fault") << bad;
    }
}

}  // namespace
