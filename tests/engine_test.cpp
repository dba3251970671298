// What the engine makes of servers that break off, change their file, refuse, and lie about ranges.
#include "support/transfers.h"

using namespace test_support;

namespace {

// A header line of the second answer says something else.
Script TornAndFalse(const std::string& headers, int code = 206) {
    return Torn([=](const std::string& request, std::size_t number) {
        return number == 1 ? Answer(code, headers, kBody.substr(1'000'000)) : Good(request);
    });
}

const std::string kRest = Length(2'000'000);

std::string RangeIs(const std::string& value) {
    return kRest + "ETag: \"one\"\r\nContent-Range: " + value + "\r\n";
}

TEST(Engine, OneRequestIsEnough) {
    static const std::string empty;
    const Served dated{kBody, "", std::string(kOld) + kDate};
    Check({
        {"a file", Then({})},
        {"four connections and a small file", Then({}, {empty}), 4, {}, 1, &empty},
        {"an empty file", Always(Answer(200, Length(0), "")), 1, {}, 1, &empty},
        {"no content", Always(Answer(204, "", "")), 1, {}, 1, &empty},
        {"no length", Always(Answer(200, "", kBody))},
        {"an empty body without a length", Always(Answer(200, "", "")), 1, {}, 1, &empty},
        {"chunks",
         Always(Answer(200, "Transfer-Encoding: chunked\r\n", "3\r\nabc\r\n0\r\n\r\n")),
         1,
         {},
         1,
         [] {
             static const std::string abc = "abc";
             return &abc;
         }()},
        {"encoded", Always(Answer(200, "Content-Encoding: gzip\r\n" + Length(kBody.size()), kBody)),
         1},
        {"encoded, several",
         Then({Answer(200, "Content-Encoding: gzip\r\n" + Length(kBody.size()), kBody)}), 4},
        {"a redirect", Then({Reply::Redirect("/there")}), 1, {}, 2},
        {"a part that nobody asked for", Always(Answer(206, Length(4), "gone")), 1,
         TaskReason::kHttpStatus},
        {"dated", Then({}, dated), 1, {}, 1, &kBody, 3, "/file", kOldTime},
        {"no date", Then({}, {kBody, "", "Last-Modified: long ago\r\n"})},
    });
}

TEST(Engine, TriesAgainWhatMayPass) {
    const auto http = TaskReason::kHttpStatus;
    std::atomic<std::int64_t> busy{0};
    Check({
        {"404", Status(404), 1, http},
        {"401", Status(401), 4, http},
        {"501", Status(501), 1, http},
        {"300", Status(300), 1, http},
        {"304 that nobody asked for", Always(Answer(304, "", "")), 1, http},
        {"503 for ever", Status(503), 1, http, 3},
        {"503 twice", Then({Answer(503, Length(0), ""), Answer(503, Length(0), "")}), 1, {}, 3},
        {"an hour", Status(429, "Retry-After: 3600\r\n"), 1, http},
        {"a moment",
         [&](const std::string& request, std::size_t number) {
             const auto now = std::chrono::steady_clock::now().time_since_epoch() / 1ms;
             if (number == 0) busy = now;
             return number > 0 && now - busy > 900
                        ? Good(request)
                        : Answer(number == 0 ? 429 : 404, "Retry-After: 1\r\n" + Length(0), "");
         },
         1,
         {},
         2},
        {"silence", Always(Reply().Silence()), 1, TaskReason::kTimeout, 3},
        {"closes", Always(Reply()), 1, TaskReason::kBrokenOff, 6},
        {"closes within the headers", Always(Reply().Send("HTTP/1.1 200 OK\r\nETag: \"a")), 1,
         TaskReason::kBrokenOff, 3},
        {"stalls", Always(Reply::Head("9", "x").Silence()), 1, TaskReason::kStalled, 4},
        {"redirects for ever", Always(Reply::Redirect("/on")), 1, TaskReason::kRedirects, 31},
        {"redirect to a file", Always(Reply::Redirect("file:///etc/passwd")), 1,
         TaskReason::kRedirects},
        {"404 without its body", Always(Answer(404, Length(9), "").Silence()), 1, http},
        {"length 2^64", Always(Answer(200, "Content-Length: 18446744073709551616\r\n", "x")), 1,
         TaskReason::kProtocol},
        {"a long header", Status(200, "X: " + std::string(200'000, 'x') + "\r\n"), 1,
         TaskReason::kProtocol},
        {"no HTTP", Always(Reply().Send("220 welcome\r\n\r\n")), 1, TaskReason::kProtocol, 3},
        {"a port that is none", Then({}), 1, TaskReason::kAddress, 0, &kBody, 3, "99999/"},
        {"length 2^63 - 1", Always(Reply::Head("9223372036854775807")), 1, TaskReason::kNoSpace},
        {"a chunk cut off", Always(Answer(200, "Transfer-Encoding: chunked\r\n", "5\r\nab")), 1,
         TaskReason::kBrokenOff, 4},
    });
}

TEST(Engine, ATryContinuesTheOneBefore) {
    const auto inPieces = [](std::size_t piece, Served file) {
        return [=](const std::string& request, std::size_t) { return Good(request, file, piece); };
    };
    const Served weak{kBody, "W/\"one\""};
    const Served dated{kBody, "", std::string(kOld) + kDate};
    const Served young{kBody, "", std::string(kOld) + "Date: Mon, 01 Jan 2024 00:00:59 GMT\r\n"};
    const Served fresh{kBody, "\"1\"",
                       std::string(kOld) + "Date: Mon, 01 Jan 2024 00:00:01 GMT\r\n"};
    const Served bare{kBody, ""};
    const Served whole{kBody, "\"one\"", "Accept-Ranges: none\r\n"};
    const auto broken = TaskReason::kBrokenOff;
    Check({
        {"ten breaks", inPieces(300'000, {}), 1, {}, 11},
        {"ten breaks, by date", inPieces(300'000, dated), 1, {}, 11, &kBody, 3, "/", kOldTime},
        {"ten breaks, four connections", inPieces(300'000, {}), 4, {}, 20},
        {"always at the same byte", inPieces(1'000'000, bare), 1, broken, 4},
        {"a weak tag is no proof", inPieces(1'000'000, weak), 1, broken, 4},
        {"nor is a young date", inPieces(1'000'000, young), 1, broken, 4},
        {"nor is a tag of a second", inPieces(1'000'000, fresh), 1, broken, 4},
        {"no parts are served", inPieces(1'000'000, whole), 1, broken, 4},
        {"several, and nothing tells", Then({}, bare), 4, {}, 2},
        {"nothing new each time",
         Torn([](const std::string& request, std::size_t) { return Good(request, {}, 0); }), 1,
         broken, 8},
    });
}

TEST(Engine, AFileIsNeverMixedFromTwo) {
    const Served other{kOther, "\"two\""};
    const auto changing = [](const std::string& request, std::size_t number) {
        return Good(request, {kBody, "\"" + std::to_string(number) + "\""}, 1'000'000);
    };
    const auto stupid = [](const std::string&, std::size_t number) {
        return Answer(200, "ETag: \"one\"\r\n" + Length(kBody.size()), kBody,
                      number == 0 ? 1'000'000 : kBody.size());
    };
    const std::string right = "bytes 1000000-2999999/3000000";
    Check({
        {"changed", Torn(Then({}, other)), 1, {}, 2, &kOther},
        {"changes each time", changing, 1, TaskReason::kChanged, 3},
        {"knows no ranges", stupid, 1, {}, 2},
        {"knows no ranges, four connections",
         [](const std::string&, std::size_t) {
             return Answer(200, "ETag: \"one\"\r\n" + Length(kBody.size()), kBody);
         },
         4,
         {},
         1},
        {"416", TornAndFalse("Content-Range: bytes */5\r\n" + Length(0), 416), 1, {}, 3},
        {"another range", TornAndFalse(RangeIs("bytes 5-2000004/3000000")), 1, {}, 3},
        {"another total", TornAndFalse(RangeIs("bytes 1000000-2999999/3000001")), 1, {}, 3},
        {"another end", TornAndFalse(RangeIs("bytes 1000000-2999998/3000000")), 1, {}, 3},
        {"an unknown total", TornAndFalse(RangeIs("bytes 1000000-2999999/*")), 1, {}, 3},
        {"no range", TornAndFalse(kRest), 1, {}, 3},
        {"another tag", TornAndFalse("ETag: \"x\"\r\n" + RangeIs(right)), 1, {}, 3},
        {"many parts",
         TornAndFalse("Content-Type: multipart/byteranges; boundary=x\r\n" + RangeIs(right)),
         1,
         {},
         3},
        {"encoded", TornAndFalse("Content-Encoding: gzip\r\n" + RangeIs(right)), 1, {}, 3},
        {"no tag", TornAndFalse(kRest + "Content-Range: " + right + "\r\n"), 1, {}, 3},
        {"no last chunk",
         Torn([=](const std::string&, std::size_t) {
             return Answer(206,
                           "Transfer-Encoding: chunked\r\nETag: \"one\"\r\nContent-Range: " +
                               right + "\r\n",
                           "1E8480\r\n" + kBody.substr(1'000'000))
                 .Silence();
         }),
         1,
         {},
         2},
        {"chunks broken off",
         Then({Answer(200, "Transfer-Encoding: chunked\r\nETag: \"one\"\r\n", "3\r\nabc\r\n")}),
         1,
         {},
         2},
        {"the right one", TornAndFalse(RangeIs(right)), 1, {}, 2},
    });
}

// Serves ranges of the file, with what `otherwise` says for requests behind the first.
Script Beside(std::function<std::optional<Reply>(const std::string&, std::size_t)> otherwise) {
    return [=](const std::string& request, std::size_t number) {
        const auto reply = number == 0 ? std::nullopt : otherwise(request, number);
        return reply ? *reply : Good(request);
    };
}

TEST(Engine, SeveralConnectionsDoNoWorseThanOne) {
    const auto refuse = [](int code) {
        return Beside([=](const std::string&, std::size_t number) {
            return number < 2 || number > 5 ? std::nullopt
                                            : std::optional<Reply>(Answer(code, Length(0), ""));
        });
    };
    const auto balanced = [](const std::string& request, std::size_t number) {
        return Good(request, {kBody, number % 2 == 0 ? "\"a\"" : "\"b\""});
    };
    Check({
        {"four", Then({}), 4, {}, 8},
        {"ten", Then({}), 10, {}, 14},
        {"503 for some", refuse(503), 4, {}, 12},
        {"403 for some", refuse(403), 8, {}, 20},
        {"broken for some",
         Beside([](const std::string&, std::size_t number) {
             return number % 2 == 0 ? std::nullopt : std::optional<Reply>(Reply().Reset());
         }),
         4,
         {},
         20},
        {"two servers that do not agree", balanced, 4, {}, 6},
        {"changed",
         Beside([](const std::string& request, std::size_t) {
             return std::optional<Reply>(Good(request, {kOther, "\"two\""}));
         }),
         4,
         {},
         6,
         &kOther},
        {"all but the first are silent", Beside([](const std::string& request, std::size_t) {
             return std::optional<Reply>(Good(request, {}, 0).Silence());
         }),
         4, TaskReason::kBrokenOff, 30},
        {"all but the first stall", Beside([](const std::string&, std::size_t number) {
             return std::optional<Reply>(Reply().Pause(number * 100ms).Silence());
         }),
         4, TaskReason::kTimeout, 30},
        {"another tag, then silence",
         [](const std::string& request, std::size_t number) {
             if (number < 2)
                 return Good(request, {}, number == 0 ? std::string::npos : 90'000).Silence();
             return number == 2 ? Good(request, {kOther, "\"two\""}, 0) : Reply().Silence();
         },
         4, TaskReason::kTimeout, 30},
        {"one is silent",
         Beside([](const std::string&, std::size_t number) {
             return number == 2 ? std::optional<Reply>(Reply().Silence()) : std::nullopt;
         }),
         4,
         {},
         12},
    });
}

}  // namespace
