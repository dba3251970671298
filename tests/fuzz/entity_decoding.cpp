// HTML character references.
#include "common/httputility.h"
#include "fuzz.h"

void Fuzz(Input input) {
    const std::string text = input.Text();
    std::string encoded;
    for (const char c : text) {
        char reference[16];
        const auto byte = static_cast<unsigned char>(c);
        std::snprintf(reference, sizeof reference, byte % 2 == 0 ? "&#%u;" : "&#x%X;", byte + 256U);
        encoded += reference;
    }
    Expect(HttpUtility::HtmlEntityDecode(encoded) == text, "a reference stands for any byte");

    std::string decoded;
    for (std::string rest = text; !rest.empty();) {
        const std::string piece = rest.substr(0, std::min(rest.find(';'), rest.size()) + 1);
        decoded += HttpUtility::HtmlEntityDecode(piece);
        Expect(piece.back() == ';' || decoded.ends_with(piece), "no semicolon, no reference");
        const std::size_t digits = piece.find("&#") + 2;
        if (piece.back() == ';' && digits > 1 && digits + 19 > piece.size() &&
            piece[digits] != 'x') {
            const auto value = static_cast<char>(std::atoll(piece.c_str() + digits));
            Expect(decoded.back() == value, "it is read as a number of the C library");
        }
        rest.erase(0, piece.size());
    }
    Expect(HttpUtility::HtmlEntityDecode(text) == decoded, "the first semicolon ends a reference");
    Expect(decoded.size() <= text.size(), "decoding makes no text longer");
}
