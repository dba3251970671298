// A server that answers as the address says, and commands that meet it.
#pragma once

#include <atomic>
#include <map>
#include <utility>

#include "common/stringutility.h"
#include "support/http_server.h"
#include "support/processes.h"

namespace test_support {

inline const std::string kSite = "http://www.youtube.com/";

// The formats of all videos. 22 is listed without an address, 18 has one without being listed.
inline const std::string kMaps =
    "&length_seconds=83&fmt_list=22/1280x720,5/320x240/9,34/640x360"
    "&fmt_url_map=5|" +
    kSite + "media/5,34|" + kSite + "media/34,5|later,18|" + kSite + "media/18,17|ftp://host/17";

// What the site answers, as the proxy at the address: by the address's end.
inline Reply Site(const std::string& address) {
    static const std::string ok = "status=ok&thumbnail_url=http%3A%2F%2Fp%2F1&title=";
    static const std::string player = [] {
        std::string maps = kMaps + "&";
        return strutil::string_replace(maps, "&", "&amp;");
    }();
    static const std::pair<std::string, std::string> bodies[] = {
        {"media/5", "abc"},
        {"media/login", "abc"},
        {"=login", ok + "x&fmt_url_map=1|" + kSite + "media/login,2|http://other.invalid/login"},
        {"media/18", "18"},
        {"media/34", "34"},
        {"watch?v=bare", player},
        {"watch?v=page", "<meta property=\"og:title\" content=\"T &amp; U\">" + player},
        {"=bare", ""},
        {"=page", "status=fail"},
        {"=plain", ok + "My%3A+video%3F" + kMaps},
        {"=long", ok + std::string(244, 'a') + "%C3%A4" + std::string(300, 'a') + kMaps},
        {"=dot", ok + "..profile" + kMaps},
        {"=lines", ok + "a%0D%0Ab%3Dc%0D%0A" + kMaps},
        {"=escape", ok + "%1B%5B2J%9BH%C2%9B%7F.x" + kMaps},
        {"=mapless", "status=ok&title=x&url_encoded_fmt_stream_map=y"},
        {"=empty", "status=ok&fmt_list=,/,&fmt_url_map=|,"},
        {"=huge", ok + std::string(20000, 'x') + kMaps},
    };
    for (const auto& [end, body] : bodies) {
        if (address.ends_with(end)) return Reply::Ok(body);
    }
    return address.ends_with("silent") ? Reply().Silence() : Reply::Status(404, "");
}

// One server for all, and the proxy of all other hosts: the address says how it behaves.
inline std::atomic<bool> g_hold{true};               // `held` waits as long
inline const char* g_size = "9";                     // the first answer only, which breaks off
inline const char* g_pause = "0\r\nRetry-After: 2";  // the first one, too
inline HttpServer& Server() {
    Site("");  // its texts are made before the server, whose threads use them to the last
    static HttpServer server([](const std::string& request, std::size_t) {
        const std::string address = request.substr(4, request.find(' ', 4) - 4);
        const auto is = [&](const char* what) { return Has(address, what); };
        if (is("login") && !Has(request, "Basic am9lOnNlY3JldA==")) {
            return Reply::Head("0\r\nWWW-Authenticate: Basic realm=x", "", 401);
        }
        if (is(kSite.c_str())) return Site(address);
        if (is("far.invalid") && !Has(request, "Basic dXNlcjpwQHNz")) return Reply::Status(407, "");
        if (is("held")) WaitUntil([] { return !g_hold; });
        if (is("huge")) return Reply::Head("1000000000000000").Send("x");
        if (is("idle")) return Reply::Head("1000").Send(std::string(500, 'x'), 2000);
        if (is("slow")) return Reply::Head("100000000").Stream(100'000);
        if (is("silent")) return Reply().Silence();
        if (is("plenty")) return Reply::Ok(std::string(1'000'000, 'x'));
        if (is("empty")) return Reply::Ok("");
        if (is("no-length")) return Reply::Head("", "bytes");
        if (is("shrinks")) return Reply::Head(std::exchange(g_size, ""), "bytes");
        if (is("later") && *g_pause) return Reply::Head(std::exchange(g_pause, ""), "", 500);
        if (is("leaves")) return Reply::Redirect("ftp://127.0.0.1:1/x");
        if (is("named")) {
            return Reply::Head(
                "3\r\nContent-Disposition: x; filename=\"C:\\d\\a\\\"b\"; "
                "filename*=utf-8''d%2Fr%2Ex",
                "abc");
        }
        if (is("404")) return Reply::Status(404, "no such file");
        return Reply::Ok("abc");
    });
    return server;
}

// What some characters stand for: the server, its host and port, the beginning of a page's address,
// the digest of the server's usual file and another one.
inline std::string Filled(const std::string& text) {
    const std::map<char, std::string> meanings = {
        {'$', Server().Url("")},
        {'^', Server().Url("").substr(7)},
        {'&', kSite + "watch?v="},
        {'+', "BA7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {'~', std::string(64, '0')},
    };
    std::string filled;
    for (const char c : text) filled += meanings.count(c) > 0 ? meanings.at(c) : std::string(1, c);
    return filled;
}

// Begins the command with arguments that blanks separate.
inline void Begin(CommandRun& run, const std::string& arguments) {
    std::istringstream words(Filled(arguments));
    run.environment.push_back(Filled("http_proxy=user:p%40ss@^"));
    run.environment.push_back("no_proxy=127.0.0.1");
    run.environment.push_back("HOME=/none");
    run.Start({std::istream_iterator<std::string>(words), {}});
}

}  // namespace test_support
