// Codecs for texts of the web: form encoding with percent escapes, and HTML character references.
#pragma once

#include <string>

// Works on byte strings; a byte is a character. No text makes an operation fail, and the cost of
// each grows linearly with the length of the text. Any thread may call.
class HttpUtility {
  public:
    // Whether the character is an ASCII letter or digit.
    static bool isOrdinaryChar(char ch);

    // Turns one hexadecimal digit into its decimal value as text: `buffer`, at least 3 bytes, holds
    // the digit and a zero, and for "a" to "f" in either case holds "10" to "15" afterwards. Any
    // other character is left as it is. Returns the character in lower case, 0 to 255.
    static int getAsDec(char* buffer);

    // Value of a text of hexadecimal digits, modulo 2^32. Any other character counts as the digit
    // 0; the empty text gives 0.
    static int convertToDec(const char* text);

    // Decodes form-encoded text: "+" is a blank, "%" and two hexadecimal digits are one byte (any
    // other character counts as 0). An escape for the byte 0 gives nothing; the text ends before a
    // "%" that fewer than two characters follow.
    static std::string HtmlDecode(std::string text);
    static std::string UrlDecode(std::string text);

    // Encodes every byte but the ordinary characters as "%" and two lower-case hexadecimal digits.
    static std::string HtmlEncode(std::string text);
    static std::string UrlEncode(std::string text);

    // Replaces "&amp;", "&apos;", "&quot;", "&lt;" and "&gt;", and the numeric references "&#N;"
    // and "&#xN;" by one byte each, the number modulo 256. A numeric reference reaches to the next
    // ";" whatever stands between; without one, and for any other name, the text stays. What
    // replaced a reference is not looked at again.
    static std::string HtmlEntityDecode(std::string text);
};
