// Reading an information text, and choosing among its formats.
#include <optional>
#include <sstream>
#include <vector>

#include "Tarnwick/youtubeutility.h"
#include "common/httputility.h"
#include "common/stringutility.h"
#include "common/sysutility.h"
#include "fuzz.h"

using fuzz::Expect;

namespace {

// The pieces between separators that are not empty.
std::vector<std::string> Fields(const std::string& text, char separator) {
    std::vector<std::string> fields;
    std::istringstream in(text);
    for (std::string field; std::getline(in, field, separator);) {
        if (!field.empty()) fields.push_back(field);
    }
    return fields;
}

// The same without the white space around them.
std::vector<std::string> Items(const std::string& text, char separator) {
    std::vector<std::string> items = Fields(text, separator);
    for (std::string& item : items) item = strutil::trim(item);
    return items;
}

std::string ChooseID(const std::string& list, bool last) {
    std::vector<std::string> ids;
    for (const std::string& item : Items(list, ',')) {
        const std::vector<std::string> fields = Fields(item, '/');
        if (!fields.empty()) ids.push_back(fields[0]);
    }
    for (const char* preferred : {"35", "34", "5"}) {
        if (!last && std::count(ids.begin(), ids.end(), preferred) > 0) return preferred;
    }
    return ids.empty() ? "" : ids.back();
}

std::string AddressIn(const std::string& map, const std::string& id) {
    for (const std::string& entry : Items(map, ',')) {
        const std::vector<std::string> fields = Fields(entry, '|');
        if (entry.compare(0, id.size(), id) == 0 && fields.size() > 1) return fields[1];
    }
    return "";
}

void CheckText(const std::string& text, bool last) {
    std::string unified = text;
    std::replace(unified.begin(), unified.end(), '\r', '\n');
    const std::vector<std::string> lines = Items(unified, '\n');
    if (lines.empty()) return;

    std::string list;
    for (const std::string& line : lines) {
        const std::string value = line.substr(std::min(line.find('=') + 1, line.size()));
        if (line.starts_with("fmt_list=") || line.starts_with("fmt_map=")) list = value;
        if (!list.empty()) break;
    }
    const std::string id = ChooseID(list, last);
    std::string address = "-";
    std::string name = "-";
    for (const std::string& line : lines) {
        const std::string found =
            line.starts_with("fmt_url_map=") ? AddressIn(line.substr(12), id) : "";
        if (!found.empty()) address = found;
        if (!line.starts_with("title=") || line.size() == 6) continue;
        name = sysutility::MakeFileName(line.substr(6)) + ".flv";
    }
    const bool failed = std::count(lines.begin(), lines.end(), "status=fail") > 0;
    if (failed) address = name = "-";

    std::string storedName = "-";
    std::string storedAddress = "-";
    const std::string result = ParseYoutubeVideoInfo(text, last, storedName, storedAddress);
    Expect(storedName == name, "the name is the model's");
    Expect(storedAddress == address, "the address is the model's");
    Expect(result == (address == "-" ? "" : address), "the result is the address");
}

// The number modulo 2^32; nothing without a digit.
std::optional<std::uint32_t> Number(const std::string& text) {
    std::istringstream in(text);
    char sign = '+';
    in >> std::ws;
    if (in.peek() == '-' || in.peek() == '+') in.get(sign);
    if (in.peek() < '0' || in.peek() > '9') return std::nullopt;
    std::uint32_t value = 0;
    while (in.peek() >= '0' && in.peek() <= '9') {
        value = value * 10 + static_cast<std::uint32_t>(in.get() - '0');
    }
    return sign == '-' ? 0 - value : value;
}

void CheckList(const std::string& list, std::int32_t width, std::int32_t height) {
    const auto area = [](std::uint32_t w, std::uint32_t h) {
        return std::int64_t{static_cast<std::int32_t>(w * h)};
    };
    const std::int64_t wanted =
        area(static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height));
    std::optional<std::pair<std::int64_t, std::string>> best;
    for (const std::string& item : Items(list, ',')) {
        const std::vector<std::string> fields = Fields(item, '/');
        const std::vector<std::string> sizes = Fields(fields.size() > 1 ? fields[1] : "", 'x');
        const auto w = Number(sizes.size() > 1 ? sizes[0] : "");
        const auto h = Number(sizes.size() > 1 ? sizes[1] : "");
        if (!w || !h) continue;
        const std::int64_t difference = std::llabs(wanted - area(*w, *h));
        if (!best || difference < best->first) best.emplace(difference, fields[0]);
    }
    // A list without a choice is the caller's mistake.
    if (!best) return;
    Expect(GetYoutubeVideoMapIDForSize(width, height, list) == best->second, "the choice agrees");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const auto flags = input.Take<std::uint8_t>();
    const auto width = input.Take<std::int32_t>();
    const auto height = input.Take<std::int32_t>();
    std::string text = input.Rest();
    if ((flags & 2) != 0) {  // an answer of the site
        const auto fields = std::count(text.begin(), text.end(), '&');
        const std::size_t before = text.size();
        strutil::string_replace(text, "&", "\r\n");
        Expect(text.size() == before + static_cast<std::size_t>(fields), "each & became two bytes");
        text = HttpUtility::HtmlDecode(text);
    }
    CheckText(text, (flags & 1) != 0);
    CheckList(text, width, height);
    return 0;
}
