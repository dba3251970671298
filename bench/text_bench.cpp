// Time of the operations on text over the length of the text, from 1 KiB to 16 MiB, with the order
// of growth fitted as linear: the RMS of a fit says how well that holds. The names "curl: ..." and
// "boost: ..." are what those libraries offer for the same purpose.
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <string>
#include <string_view>

#include "Tarnwick/videoinfo.h"
#include "Tarnwick/youtubeutility.h"
#include "common/httputility.h"
#include "common/stringutility.h"

// The analyzer of clang reports a leak inside those headers that is none.
#if __has_include(<boost/algorithm/string.hpp>) && !defined(__clang_analyzer__)
#include <boost/algorithm/string.hpp>
#define HAS_BOOST
#endif

namespace {

constexpr std::string_view kAnswer = "title=A+name+of+a+video&length_seconds=128&";
constexpr std::string_view kLines = "title=A name of a video\r\nlength_seconds=128\r\n";
constexpr std::string_view kPage = "%3Cp%20class%3D%22text%22%3EA+line+of+a+page%3C%2Fp%3E%0A";
constexpr std::string_view kHtml = "<p class=\"text\">Q &amp; A, &quot;caf&#233;&quot;</p>\n";
constexpr std::string_view kFormats = "34/640x360/9/0/115,5/320x240/7/0/0,22/1280x720,";

// `size` bytes of copies of `unit`.
std::string Repeated(std::string_view unit, std::size_t size) {
    std::string text;
    text.reserve(size + unit.size());
    while (text.size() < size) text += unit;
    text.resize(size);
    return text;
}

using Operation = void (*)(const std::string& text);

struct Case {
    const char* name;
    std::string_view unit;  // what the text is made of
    Operation run;
};

void Replace(const std::string& text) {
    std::string changed = text;
    benchmark::DoNotOptimize(strutil::string_replace(changed, "&", "\r\n"));
}

void ChooseAddress(const std::string& text) {
    std::string name;
    std::string address;
    benchmark::DoNotOptimize(ParseYoutubeVideoInfo(
        "title=x\r\nfmt_list=" + text + "\r\nfmt_url_map=" + text, false, name, address));
}

void CurlUnescape(const std::string& text) {
    int length = 0;
    char* decoded =
        curl_easy_unescape(nullptr, text.data(), static_cast<int>(text.size()), &length);
    benchmark::DoNotOptimize(decoded);
    curl_free(decoded);
}

void CurlEscape(const std::string& text) {
    char* encoded = curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size()));
    benchmark::DoNotOptimize(encoded);
    curl_free(encoded);
}

#ifdef HAS_BOOST
void BoostSplit(const std::string& text) {
    std::vector<std::string> tokens;
    boost::split(tokens, text, boost::is_any_of("\r\n"), boost::token_compress_on);
    benchmark::DoNotOptimize(tokens);
}

void BoostReplace(const std::string& text) {
    std::string changed = text;
    boost::replace_all(changed, "&", "\r\n");
    benchmark::DoNotOptimize(changed);
}
#endif

template <auto Function>
void Run(const std::string& text) {
    benchmark::DoNotOptimize(Function(text));
}

const Case kCases[] = {
    {"split", kLines,
     [](const std::string& text) { benchmark::DoNotOptimize(strutil::split(text, "\r\n")); }},
    {"split, short tokens", "a,",
     [](const std::string& text) { benchmark::DoNotOptimize(strutil::split(text, ",")); }},
    {"SplitString", kLines,
     [](const std::string& text) {
         std::vector<std::string> pieces;
         benchmark::DoNotOptimize(strutil::SplitString(text, "\r\n", pieces, true));
     }},
    {"string_replace", kAnswer, Replace},
    {"string_replace, dense", "&", Replace},
    {"HtmlDecode", kPage, Run<HttpUtility::HtmlDecode>},
    {"HtmlDecode, plain", "A line of a page. ", Run<HttpUtility::HtmlDecode>},
    {"HtmlEncode", kHtml, Run<HttpUtility::HtmlEncode>},
    {"HtmlEntityDecode", kHtml, Run<HttpUtility::HtmlEntityDecode>},
    {"HtmlEntityDecode, no ends", "&#", Run<HttpUtility::HtmlEntityDecode>},
    {"ParseYoutubeInfo", kHtml, Run<ParseYoutubeInfo>},
    {"GetYoutubeVideoMapIDForSize", kFormats,
     [](const std::string& text) {
         benchmark::DoNotOptimize(GetYoutubeVideoMapIDForSize(640, 480, text));
     }},
    {"ParseYoutubeVideoInfo", kFormats, ChooseAddress},
    {"curl: curl_easy_unescape", kPage, CurlUnescape},
    {"curl: curl_easy_unescape, plain", "A line of a page. ", CurlUnescape},
    {"curl: curl_easy_escape", kHtml, CurlEscape},
#ifdef HAS_BOOST
    {"boost: split", kLines, BoostSplit},
    {"boost: replace_all", kAnswer, BoostReplace},
    {"boost: replace_all, dense", "&", BoostReplace},
#endif
};

void Measure(benchmark::State& state, const Case& what) {
    const std::string text = Repeated(what.unit, static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) what.run(text);
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    for (const Case& what : kCases) {
        benchmark::RegisterBenchmark(what.name, Measure, what)
            ->RangeMultiplier(4)
            ->Range(1 << 10, 16 << 20)
            ->Complexity(benchmark::oN);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
