// Form encoding in both directions.
#include <curl/curl.h>

#include "common/httputility.h"
#include "fuzz.h"

void Fuzz(Input input) {
    const std::string text = input.Text();
    const std::string encoded = HttpUtility::HtmlEncode(text);
    int length = 0;
    char* plain =
        curl_easy_unescape(nullptr, encoded.c_str(), static_cast<int>(encoded.size()), &length);
    Expect(text == std::string(plain, static_cast<std::size_t>(length)), "libcurl can decode it");
    curl_free(plain);
    std::string kept = text;
    std::erase(kept, '\0');
    Expect(HttpUtility::HtmlDecode(encoded) == kept, "what was encoded decodes to all but zeros");

    const std::string decoded = HttpUtility::HtmlDecode(text);
    Expect(decoded.size() <= text.size(), "decoding makes no text longer");
    Expect(HttpUtility::UrlDecode("+%2B%00%aF" + text) == " +\xAF" + decoded,
           "escapes are decoded");
}
