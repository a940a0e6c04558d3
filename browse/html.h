// Text that goes into a page: HTML escaping, URL path encoding, numbers, and the frame that
// every page shares (head, style sheet, top bar).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace browse {

// Appends `text` with every character that could open markup or end an attribute value
// written as a character reference; control characters become U+FFFD.
void append_escaped(std::string& out, std::string_view text);
std::string escaped(std::string_view text);

// `text` percent-encoded for one segment of a URL path or a query value: only letters,
// digits and - . _ ~ stay as they are.
std::string url_encoded(std::string_view text);

// A decimal number with thousands separated by commas.
std::string grouped(std::int64_t n);
// A number with `decimals` places.
std::string fixed(double v, int decimals);

// A whole page: title (plain text, escaped here), body (HTML), optional script (placed at the
// end of the body).
std::string page(std::string_view title, std::string_view body, std::string_view script = {});

// A random token drawn once per process: the page's own script carries it, and the server
// allows no script without it.
const std::string& script_nonce();

// Characters that pass through pages unescaped by construction: letters, digits, '*' and '-'.
inline bool plain_char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '*' ||
           c == '-';
}

}  // namespace browse
