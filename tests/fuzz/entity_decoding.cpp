// HTML character references.
#include "common/httputility.h"
#include "fuzz.h"
#include "models.h"

using fuzz::Expect;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::Input(data, size).Rest();
    const std::string decoded = HttpUtility::HtmlEntityDecode(text);
    Expect(decoded == models::DecodeReferences(text), "the model agrees");
    Expect(decoded.size() <= text.size(), "decoding makes no text longer");
    return 0;
}
