// Addresses of proxies.
#include "Console/proxy.h"

#include "common/fieldtext.h"
#include "common/httputility.h"
#include "fuzz.h"

using fuzz::Expect;

namespace {

std::string AddressOf(const Proxy& proxy) {
    constexpr const char* kSchemes[] = {"http",   "",       "",        "",
                                        "socks4", "socks5", "socks4a", "socks5h"};
    std::string address = std::string(kSchemes[proxy.type]) + "://";
    if (!proxy.user.empty()) {
        address +=
            HttpUtility::UrlEncode(proxy.user) + ":" + HttpUtility::UrlEncode(proxy.password) + "@";
    }
    return address + proxy.host + ":" + std::to_string(proxy.port);
}

bool Same(const Proxy& a, const Proxy& b) {
    return a.host == b.host && a.port == b.port && a.type == b.type && a.user == b.user &&
           a.password == b.password;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Arguments and variables of a process hold no zeros.
    const std::string address = fuzz::Input(data, size).Rest().c_str();
    const Proxy untouched{"host", 1, 4, "user", "password"};
    Proxy proxy = untouched;
    const std::string fault = ParseProxy(address, proxy);
    Expect(fault.find('\n') == std::string::npos, "a fault is one line");
    if (!fault.empty()) {
        Expect(Same(proxy, untouched), "a fault changes nothing");
        return 0;
    }
    Expect(proxy.host.find('@') == std::string::npos, "all of the credentials are taken off");
    Expect(proxy.port >= 1 && proxy.port <= 65535, "the port is one");
    Proxy again;
    Expect(ParseProxy(AddressOf(proxy), again).empty(), "what was read can be written");
    Expect(Same(again, proxy), "and means the same");

    tagTaskInfo task("id");
    SetProxy(proxy, task);
    Expect(task.bUseProxy == 1 && task.nProxyPort == proxy.port && task.nProxyType == proxy.type &&
               FieldView(task.szProxyHost) == proxy.host &&
               FieldView(task.szProxyUser) == proxy.user &&
               FieldView(task.szProxyPassword) == proxy.password,
           "the task has all of it");
    return 0;
}
