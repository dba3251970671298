// An address: what is wrong with it; its proxy: what the option and the environment make of it.
#include "Console/base/proxy.h"

#include <cstdlib>

#include "Console/cli/forms.h"
#include "Console/get/filename.h"
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
        {"", "https://a", "https_proxy=p no_proxy=a:443,", "none"},
        {"", "http://a:8", "http_proxy=p no_proxy=a:80,b:8,[::1]:8", "0 p 1080  "},
        {"", "http://10.1.2.3", "http_proxy=p no_proxy=10.0.0.0/15", "none"},
        {"", "http://10.2.0.0", "http_proxy=p no_proxy=10.0.0.0/15,10.2.0.0/x", "0 p 1080  "},
        {"", "http://10.1", "http_proxy=p no_proxy=10.0.0.1", "none"},
        {"", "http://10.0.0.1", "http_proxy=p no_proxy=0.1,10.0.0.1/33,a/0", "0 p 1080  "},
        {"", "http://[FE80::1%25lo]:8", "http_proxy=p no_proxy=[fe80::]/10:8", "none"},
        {"", "http://[fec0::1]", "http_proxy=p no_proxy=fe80::/10,0.0.0.0/0", "0 p 1080  "},
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

// What libcurl takes for a host and a port, and what it refuses; but for port 0.
TEST(Address, NamesAHostAndAPort) {
    const std::pair<const char*, const char*> rows[] = {
        {"a_b.c:65535/", ""},
        {"u:p@\xC3\xA4.c:/x@y:z", ""},
        {"%C3%A4.c:0080?x@y", ""},
        {"[::1%25lo]:8", ""},
        {":@127.1#a:b@c", ""},
        {"u:p@/x", "the address names no host"},
        {":80/", "the address names no host"},
        {"h:0/", "the port must be 1 to 65535"},
        {"h:99999999999", "the port must be 1 to 65535"},
        {"h:8x", "the port must be 1 to 65535"},
        {"h:80:80", "the port must be 1 to 65535"},
        {"[::1]x:8", "the brackets hold no IPv6 address"},
        {"[::1", "the brackets hold no IPv6 address"},
        {"[::1%]", "the brackets hold no IPv6 address"},
        {"[127.0.0.1]", "the brackets hold no IPv6 address"},
        {"u:p@q@h", "\"@\" in a user or password must be written %40"},
        {"a%2Fb", "no host has a \"/\" in its name"},
        {"a%00", "a control byte in the host"},
    };
    for (const auto& [address, fault] : rows) {
        EXPECT_EQ(AddressFault(std::string("http://") + address), fault) << address;
    }
}

TEST(Authorities, ComeFromTheOptionOrTheEnvironment) {
    const TempDir directory;
    const std::string one = directory.Path("one"), other = directory.Path("other");
    const std::string none = directory.Path("none");
    WriteFile(one, ""), WriteFile(other, "");
    const struct {
        std::string option, bundle, file, expected;
    } rows[] = {
        {one, none, other, one}, {"", one, none, one},    {"", "", other, other},
        {"", "", "", ""},        {"", "", none, "fault"}, {"insecure", one, other, ""},
    };
    for (const auto& row : rows) {
        setenv("CURL_CA_BUNDLE", row.bundle.c_str(), 1);
        setenv("SSL_CERT_FILE", row.file.c_str(), 1);
        tagTaskRequest request;
        request.bInsecure = row.option == "insecure";
        if (!request.bInsecure) request.strCaFile = row.option;
        const std::string fault = CompleteRequest(request);
        EXPECT_EQ(fault.empty() ? request.strCaFile : "fault", row.expected) << fault;
    }
}

}  // namespace
