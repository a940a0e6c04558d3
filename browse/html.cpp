#include "html.h"

#include <cstdio>
#include <random>

namespace browse {

void append_escaped(std::string& out, std::string_view text) {
    for (char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n')
                    out += "\xEF\xBF\xBD";
                else
                    out += c;
        }
    }
}

std::string url_encoded(std::string_view text) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '.' || c == '_' || c == '~') {
            out += c;
        } else {
            out += '%';
            out += hex[u >> 4];
            out += hex[u & 15];
        }
    }
    return out;
}

std::string grouped(std::int64_t n) {
    std::string digits = std::to_string(n < 0 ? -n : n);
    std::string out;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return n < 0 ? "-" + out : out;
}

std::string fixed(double v, int decimals) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

namespace {

void tag_with(std::string& out, std::string_view tag, std::initializer_list<attr> attrs) {
    out += '<';
    out += tag;
    for (const attr& a : attrs) {
        out += ' ';
        out += a.name;
        out += "=\"";
        append_escaped(out, a.value);
        out += '"';
    }
}

}  // namespace

html& html::open(std::string_view tag, std::initializer_list<attr> attrs) {
    tag_with(out_, tag, attrs);
    out_ += '>';
    return *this;
}

html& html::empty(std::string_view tag, std::initializer_list<attr> attrs) {
    tag_with(out_, tag, attrs);
    out_ += "/>";
    return *this;
}

html& html::close(std::string_view tag) {
    out_ += "</";
    out_ += tag;
    out_ += '>';
    return *this;
}

html& html::element(std::string_view tag, std::initializer_list<attr> attrs,
                    std::string_view content) {
    return open(tag, attrs).text(content).close(tag);
}

std::string new_nonce() {
    // Straight from the system's entropy: a seeded generator would let a client that saw
    // enough nonces predict the next.
    thread_local std::random_device device;
    std::string hex;
    for (int i = 0; i < 4; ++i) {
        char part[9];
        std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(device()));
        hex += part;
    }
    return hex;
}

std::string_view base_class(char letter) {
    switch (letter) {
        case 'A':
        case 'a':
            return "bA";
        case 'C':
        case 'c':
            return "bC";
        case 'G':
        case 'g':
            return "bG";
        case 'T':
        case 't':
            return "bT";
        default:
            return {};
    }
}

}  // namespace browse
