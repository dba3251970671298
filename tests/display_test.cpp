// What `taskman get` shows: its texts and lines, the second look, and the screen itself.
#include <gtest/gtest.h>

#include "Console/secondlook.h"
#include "support/helpers.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

TEST(SecondLook, TellsWhatSpeaksAgainstTheAddress) {
    setenv("http_proxy", "http://127.0.0.1:1", 1);
    setenv("no_proxy", "*", 1);
    PrepareSecondLooks();
    HttpServer server([](const std::string& request, std::size_t) {
        const auto asked = [&request](const char* path) {
            return request.find(path) != std::string::npos;
        };
        if (asked("GET http://far.invalid/x ") && asked("Basic dTpwOg==")) return Reply::Ok("x");
        if (asked("/404 ")) return Reply::Status(404, "no such file");
        if (asked("/endless ")) return Reply::Head("100000000").Stream(100'000);
        if (asked("/no-length ")) return Reply::Head("", "bytes");
        if (asked("/empty ")) return Reply::Ok("");
        if (asked("/moved ")) return Reply::Redirect("/404");
        if (asked("/leaves ")) return Reply::Redirect("file:///etc/hostname");
        if (asked("/loop ")) return Reply::Redirect("/loop");
        return Reply().Silence();
    });
    const Proxy proxy{"127.0.0.1", server.Port(), 0, "u", "p:"};
    const struct {
        std::string address, fault;
        Proxy proxy{};
    } rows[] = {
        {server.Url("/404"), "HTTP 404"},
        {server.Url("/endless"), ""},
        {server.Url("/no-length"), "the server announces no length"},
        {server.Url("/empty"), "the file is empty"},
        {server.Url("/moved"), "HTTP 404"},
        {server.Url("/leaves"), "Protocol \"file\""},
        {server.Url("/loop"), "Maximum (30) redirects"},
        {server.Url("/silent"), "timed out"},
        {"http://127.0.0.1:1/x", "127.0.0.1 port 1"},
        {"http://far.invalid/x", "", proxy},
        {"http://far.invalid/x", "127.0.0.1 port 1", {"127.0.0.1", 1, 5}},
    };
    InParallel(std::size(rows), [&rows](std::size_t number) {
        const auto& row = rows[number];
        const std::string fault = SecondLook(row.address, row.proxy);
        EXPECT_NE(fault.find(row.fault), std::string::npos) << row.address << ": " << fault;
        EXPECT_EQ(fault.empty(), row.fault.empty()) << row.address << ": " << fault;
    });
}

}  // namespace
