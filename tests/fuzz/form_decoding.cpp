// Form encoding in both directions, and hexadecimal numbers.
#include "common/httputility.h"
#include "fuzz.h"
#include "models.h"

using fuzz::Expect;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::Input(data, size).Rest();
    const std::string decoded = HttpUtility::HtmlDecode(text);
    Expect(decoded == models::DecodeForm(text), "the model agrees");
    Expect(decoded.size() <= text.size(), "decoding makes no text longer");
    Expect(HttpUtility::UrlDecode(text) == decoded, "both decoders are one");

    const std::string encoded = HttpUtility::HtmlEncode(text);
    Expect(std::all_of(encoded.begin(), encoded.end(),
                       [](char c) { return c == '%' || HttpUtility::isOrdinaryChar(c); }),
           "only ordinary characters are left");
    Expect(HttpUtility::UrlEncode(text) == encoded, "both encoders are one");
    std::string kept = text;
    std::erase(kept, '\0');
    Expect(HttpUtility::HtmlDecode(encoded) == kept, "what was encoded decodes to all but zeros");

    std::uint32_t number = 0;
    for (const char digit : std::string(text.c_str())) {
        number = number * 16 + static_cast<std::uint32_t>(models::HexDigit(digit));
    }
    Expect(HttpUtility::convertToDec(text.c_str()) == static_cast<int>(number), "numbers agree");
    return 0;
}
