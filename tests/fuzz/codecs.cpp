// Form encoding and HTML character references.
#include "common/httputility.h"
#include "fuzz.h"

void Fuzz(Input input) {
    const std::string text = input.Text();
    std::string kept = text;
    std::erase(kept, '\0');
    Expect(HttpUtility::HtmlDecode(HttpUtility::HtmlEncode(text)) == kept, "a form has all bytes");
    const std::string decoded = HttpUtility::HtmlDecode(text);
    Expect(decoded.size() <= text.size(), "decoding makes no text longer");
    Expect(HttpUtility::UrlDecode("+%2B%00%aF" + text) == " +\xAF" + decoded, "the rest follows");

    std::string references;
    for (const char c : text) {
        char reference[16];
        const auto byte = static_cast<unsigned char>(c);
        std::snprintf(reference, sizeof reference, byte % 2 == 0 ? "&#%u;" : "&#x%X;", byte + 256U);
        references += reference;
    }
    Expect(HttpUtility::HtmlEntityDecode(references) == text, "a reference stands for any byte");
    Expect(HttpUtility::HtmlEntityDecode(text).size() <= text.size(), "nothing gets longer");
}
