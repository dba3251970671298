// What the command makes of addresses, proxies, names, lists and rates, without a server.
#include <sys/stat.h>

#include <cstdlib>
#include <map>

#include "Console/base/proxy.h"
#include "Console/cli/forms.h"
#include "Console/get/filename.h"
#include "Console/get/inputlist.h"
#include "Console/get/numbering.h"
#include "Console/get/rateshares.h"
#include "Console/screen/text.h"
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

TEST(Names, NoAddressHasAHostileName) {
    text::UseUtf8();
    const std::string a248(248, 'a');
    const std::pair<std::string, std::string> rows[] = {
        {"dir/file.iso", "file.iso"},
        {"file?name=/x/y#z", "file"},
        {"a%20b%2Bc", "a b+c"},
        {"%20%20", "download"},
        {"...%2ex", "x"},
        {"..%2F..%2Fetc%2Fpasswd", "passwd"},
        {"%2e%2Eprofile", "profile"},
        {"%01.%02.bashrc%00%7f", "bashrc"},
        {"%1b%5B31mred%0a", "[31mred"},
        {"C:%5Cboot", "C:_boot"},
        {"%zz%4", "%zz%4"},
        {"%C3%A4%C2%85%E2%80%AEx", "\u00e4x"},
        {"%E4.txt%C3", "_.txt_"},
        {"%C0%AF%ED%A0%80", "_____"},
        {"%E0%80%AF%BF", "____"},
        {a248 + "bcd", a248 + "b"},
        {a248 + "%C3%A4", a248},
        {a248 + ".tar.gz", a248.substr(6) + ".tar.gz"},
    };
    for (const auto& [path, name] : rows) EXPECT_EQ(NameFromAddress("http://h/" + path), name);
    const std::pair<std::string, std::string> servers[] = {
        {"C:\\d/..x\\.y\n", "y"},
        {"x.PART", "x.PART_"},
        {"x.part.info", "x.part.info_"},
        {a248 + ".part", a248},
        {"x/", ""},
        {" ", ""},
    };
    for (const auto& [given, name] : servers) EXPECT_EQ(NameFromServer(given), name);
    const std::pair<std::string, std::string> numbered[] = {
        {"a.b/a", "a.b/a.7"},
        {"a.iso", "a.7.iso"},
        {"x/.tar.gz", "x/.tar.7.gz"},
        {"x/a.tar.gz", "x/a.7.tar.gz"},
        {".x", ".x.7"},
        {"a.part", "a.part.7"},
        {a248 + "bc.x", a248.substr(3) + ".7.x"},
        {"a." + a248, "a." + a248.substr(3) + ".7"},
    };
    for (const auto& [path, name] : numbered) EXPECT_EQ(NumberedPath(path, 7), name);
}

TEST(FailedList, AListWithAPasswordIsForItsOwner) {
    const TempDir directory;
    const std::string path = directory.Path("list");
    const mode_t mask = umask(022);
    const std::pair<const char*, mode_t> rows[] = {
        {"http://u:p@h/", 0600}, {"ftp://u:p@h", 0600},     {"u:p@h", 0600},
        {"http://u@h", 0644},    {"http://u:@h/x", 0644},   {"http://h/u:p@h", 0644},
        {"http:///u:p@h", 0600}, {"n\thttp://u:p@h/", 0600}};
    for (const auto& [address, mode] : rows) {
        FailedList list;
        ASSERT_EQ(list.Open(path), "");
        list.Add({"http://first"});
        list.Add(ReadListLine(address));
        EXPECT_EQ(std::filesystem::status(path + ".part").permissions(),
                  std::filesystem::perms(mode))
            << address;
        EXPECT_EQ(list.Finish(false), "");
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(mode))
            << address;
    }
    umask(mask);
}

TEST(RateShares, GoToTheFilesThatUseThem) {
    constexpr double kAny = 1e9;
    // What a file's server can send in the first and in the second minute, and what comes in the
    // second one; KiB per second.
    struct File {
        double first, then, comes;
    };
    const struct {
        const char* name;
        std::uint64_t rate;
        std::vector<File> files;
    } rows[] = {
        {"one", 100 << 10, {{kAny, kAny, 100}}},
        {"two and a half each", 20 << 10, std::vector<File>(8, {kAny, kAny, 2.5})},
        {"a fraction", 1500, {{kAny, kAny, 1500.0 / 1024}}},
        {"slow ones",
         1000 << 10,
         {{50, 50, 50}, {70, 70, 70}, {kAny, kAny, 430}, {kAny, kAny, 430}}},
        {"a dead one", 100 << 10, {{0, 0, 0}, {kAny, kAny, 97}}},
        {"one gets faster", 100 << 10, {{5, kAny, 48}, {kAny, kAny, 52}}},
        {"one gets slower", 100 << 10, {{kAny, 10, 10}, {kAny, kAny, 84}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RateShares shares(row.rate);
        EXPECT_EQ(shares.MostFiles(), row.rate / 1024);
        std::map<std::string, double> now, told;  // bytes per second; told a second later
        std::vector<double> came(row.files.size());
        for (std::size_t i = 0; i < row.files.size(); ++i) told[std::to_string(i)] = -1;
        double given = 0;
        for (int second = 0; second < 120; ++second) {
            shares.ShareOut(told);
            told = std::exchange(now, {});
            for (std::size_t i = 0; i < row.files.size(); ++i) {
                const std::string name = std::to_string(i);
                if (second == 0) told[name] = -1;
                const File& file = row.files[i];
                const double comes =
                    std::min<double>(shares.Of(name), second < 60 ? file.first : file.then);
                now[name] = comes * 1024;
                if (second >= 60) came[i] += comes / 60;
                given += shares.Of(name) * 1024;
            }
            EXPECT_LE(given, static_cast<double>(row.rate) * (second + 1));
            shares.NextSecond();
        }
        for (std::size_t i = 0; i < row.files.size(); ++i) {
            EXPECT_NEAR(came[i], row.files[i].comes, 0.05 * row.files[i].comes) << i;
        }
    }
}

}  // namespace
