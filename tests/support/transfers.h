// Transfers of the engine against scripted servers: a file as a good server has it, answers that go
// wrong, and what has to hold after each transfer.
#pragma once

#include "Tarnwick/engine/transfer.h"
#include "support/http_server.h"

namespace test_support {

using namespace std::chrono_literals;
using engine::Range;
using Script = HttpServer::Script;

inline const std::string kBody = TestBytes(3'000'000);
inline const std::string kOther = TestBytes(3'000'001).substr(1);
constexpr const char* kOld = "Last-Modified: Mon, 01 Jan 2024 00:00:00 GMT\r\n";
constexpr std::time_t kOldTime = 1704067200;
constexpr const char* kDate = "Date: Tue, 02 Jan 2024 00:00:00 GMT\r\n";

// A file as a good server has it.
struct Served {
    const std::string& body = kBody;
    std::string tag = "\"one\"";
    std::string headers = "";
};

// What stands behind `name` in the request's header; empty when it is not there.
inline std::string Header(const std::string& request, const std::string& name) {
    const std::size_t at = request.find("\r\n" + name + ": ");
    if (at == std::string::npos) return "";
    const std::size_t begin = at + name.size() + 4;
    return request.substr(begin, request.find("\r\n", begin) - begin);
}

inline Reply Answer(int code, const std::string& headers, const std::string& body,
                    std::size_t most = std::string::npos) {
    Reply reply;
    reply.Send("HTTP/1.1 " + std::to_string(code) + " X\r\nConnection: close\r\n" + headers +
               "\r\n" + body.substr(0, most));
    if (most < body.size()) reply.Pause(200ms).Reset();
    return reply;
}

inline std::string Length(std::size_t size) {
    return "Content-Length: " + std::to_string(size) + "\r\n";
}

// The right answer to a request for the file, of which at most `most` bytes of body come.
inline Reply Good(const std::string& request, const Served& file = {},
                  std::size_t most = std::string::npos) {
    const std::string tag = file.tag.empty() ? "" : "ETag: " + file.tag + "\r\n";
    const std::string common = tag + file.headers;
    unsigned long begin = 0, end = 0;
    const int read = std::sscanf(Header(request, "Range").c_str(), "bytes=%lu-%lu", &begin, &end);
    const std::string condition = Header(request, "If-Range");
    if (read < 1 || begin >= file.body.size() ||
        (!condition.empty() && (common.find(": " + condition + "\r\n") == std::string::npos ||
                                condition.starts_with("W/")))) {
        return Answer(200, common + Length(file.body.size()), file.body, most);
    }
    end = read < 2 ? file.body.size() : std::min(end + 1, file.body.size());
    return Answer(206,
                  common + Length(end - begin) + "Content-Range: bytes " + std::to_string(begin) +
                      "-" + std::to_string(end - 1) + "/" + std::to_string(file.body.size()) +
                      "\r\n",
                  file.body.substr(begin, end - begin), most);
}

// Follows a transfer until its end, or asks for that.
class Patient : public engine::Watcher {
  public:
    bool EndAsked() override { return stop; }
    void Known(std::uint64_t, const tagTaskAnswer&) override {}
    void Progress(std::uint64_t, std::uint64_t, std::uint64_t) override {}
    std::atomic<bool> stop{false};
};

// A server and what becomes of a transfer from it.
struct Case {
    const char* name;
    Script script;
    int connections = 1;
    TaskReason reason = TaskReason::kNone;  // kNone: it finishes
    std::size_t most = 1;                   // requests
    const std::string* body = &kBody;       // of the finished file
    int tries = 3;
    std::string path = "/file";
    std::time_t modified = 0;  // the time of the finished file; 0: that of its last write
};

// A transfer into the one part of the directory.
inline engine::Task TaskFor(const std::string& url, const TempDir& directory) {
    engine::Task task;
    task.url = url;
    task.path = directory.Path("f.part");
    return task;
}

inline void Check(const Case& row) {
    SCOPED_TRACE(row.name);
    HttpServer server(row.script);
    const TempDir directory;
    engine::Task task = TaskFor(server.Url(row.path), directory);
    task.userAgent = "test";
    task.keeps = true;
    task.connections = row.connections;
    task.tries = row.tries;
    task.remoteTime = true;
    // Those that are not silent must not meet a limit on a busy machine.
    const bool silent = row.reason == TaskReason::kTimeout || row.reason == TaskReason::kStalled;
    task.answerSeconds = task.stallSeconds = silent ? 1 : 20;
    task.waitSeconds = 0;
    Patient watcher;
    const std::time_t begin = std::time(nullptr) - 1;
    const auto result = Fetch(task, watcher);
    EXPECT_EQ(ReasonName(result.answer.Reason), std::string(ReasonName(row.reason)))
        << result.answer.strMessage;
    EXPECT_LE(server.RequestCount(), row.most);
    EXPECT_EQ(result.answer.bReached, row.reason != TaskReason::kAddress);
    if (row.reason == TaskReason::kNone) {
        EXPECT_EQ(result.end, engine::End::kFinished);
        EXPECT_TRUE(ReadFile(task.path) == *row.body) << "another file than was sent";
        struct stat status {};
        stat(task.path.c_str(), &status);
        EXPECT_TRUE(row.modified == 0 ? status.st_mtime >= begin : status.st_mtime == row.modified)
            << status.st_mtime;
    } else {
        EXPECT_EQ(result.end, engine::End::kFailed);
        EXPECT_FALSE(result.answer.strMessage.empty());
        PartRecord record;
        EXPECT_TRUE(ReadPartRecord(task.path, record));
        const std::string part = ReadFile(task.path);
        for (const Range& range : record.have) {
            EXPECT_EQ(part.compare(range.begin, range.Size(), *row.body, range.begin, range.Size()),
                      0)
                << "the record tells of bytes that are not there";
        }
    }
    for (const std::string& request : server.Requests()) {
        EXPECT_EQ(Header(request, "Accept-Encoding"), "");
        EXPECT_EQ(Header(request, "User-Agent"), "test");
    }
}

inline void Check(const std::vector<Case>& rows) {
    InParallel(
        rows.size(), [&](std::size_t i) { Check(rows[i]); }, 12);
}

inline Script Always(const Reply& reply) {
    return [reply](const std::string&, std::size_t) { return reply; };
}

inline Script Status(int code, const std::string& headers = "") {
    return Always(Answer(code, headers + Length(4), "gone"));
}

// The first requests are answered by `first`, one each; then come good answers.
inline Script Then(std::vector<Reply> first, Served file = {}) {
    return [=](const std::string& request, std::size_t number) {
        return number < first.size() ? first[number] : Good(request, file);
    };
}

// The first answer breaks off after a million bytes, the rest is what `second` says.
inline Script Torn(Script second, Served file = {}) {
    return [=](const std::string& request, std::size_t number) {
        return number == 0 ? Good(request, file, 1'000'000) : second(request, number);
    };
}

}  // namespace test_support
