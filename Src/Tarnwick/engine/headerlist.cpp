#include "Tarnwick/engine/headerlist.h"

#include <algorithm>
#include <iterator>

#include "common/stringutility.h"

namespace engine {
namespace {

bool IsBound(const std::string& line) {
    constexpr std::string_view kBound[] = {"authorization", "cookie", "host"};
    const std::string name = strutil::toLower(line.substr(0, line.find(':')));
    return std::find(std::begin(kBound), std::end(kBound), name) != std::end(kBound);
}

}  // namespace

bool HeaderList::Add(const std::string& line) {
    curl_slist* longer = curl_slist_append(list_, line.c_str());
    if (longer == nullptr) return false;
    list_ = longer;
    return true;
}

bool HeaderList::Add(const std::vector<std::string>& lines, bool foreign) {
    return std::all_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return (foreign && IsBound(line)) || Add(line);
    });
}

void HeaderList::Clear() {
    curl_slist_free_all(list_);
    list_ = nullptr;
}

}  // namespace engine
