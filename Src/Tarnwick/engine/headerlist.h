// Header lines of a request, as libcurl takes them (CURLOPT_HTTPHEADER).
#pragma once

#include <curl/curl.h>

#include <string>
#include <vector>

#include "common/uncopyable.h"

namespace engine {

// One thread at a time.
class HeaderList : private Uncopyable {
  public:
    HeaderList() = default;
    ~HeaderList() { Clear(); }

    // Appends a line, without its end. False when there is no memory.
    bool Add(const std::string& line);
    // Appends the lines in their order; with `foreign`, for another scheme, host or port than the
    // one that they are meant for, without those that are its secrets: Authorization and Cookie,
    // and Host, which names it. False when there is no memory.
    bool Add(const std::vector<std::string>& lines, bool foreign);
    void Clear();

    // Null when it is empty. Owned by the object; no transfer may be under way when that changes.
    curl_slist* Get() const { return list_; }

  private:
    curl_slist* list_ = nullptr;
};

}  // namespace engine
