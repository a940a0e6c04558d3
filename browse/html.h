// Text that goes into a page. Pages are built with `html`, a writer whose text calls escape
// what they are given: a name or sequence from the files cannot become markup by being
// forgotten. Markup itself comes from three calls only: element tags whose names are the
// program's own (attribute values are escaped), string literals (`markup`), and fragments
// that another writer built (`append`).
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace browse {

// Appends `text` with every character that could open markup or end an attribute value
// written as a character reference; control characters become U+FFFD.
void append_escaped(std::string& out, std::string_view text);

// `text` percent-encoded for one segment of a URL path or a query value: only letters,
// digits and - . _ ~ stay as they are.
std::string url_encoded(std::string_view text);

// A decimal number with thousands separated by commas.
std::string grouped(std::int64_t n);
// A number with `decimals` places.
std::string fixed(double v, int decimals);

// An attribute of an element: its name is the program's own, its value any text.
struct attr {
    std::string_view name;
    std::string_view value;
};

class html {
  public:
    html& text(std::string_view s) {
        append_escaped(out_, s);
        return *this;
    }
    html& text(char c) { return text(std::string_view(&c, 1)); }
    html& number(std::int64_t v) {
        out_ += std::to_string(v);
        return *this;
    }

    // <tag a="v" ...>; `empty` elements (input, rect, ...) are written self-closed.
    html& open(std::string_view tag, std::initializer_list<attr> attrs = {});
    html& empty(std::string_view tag, std::initializer_list<attr> attrs = {});
    html& close(std::string_view tag);
    // open, text, close.
    html& element(std::string_view tag, std::initializer_list<attr> attrs, std::string_view text);
    html& element(std::string_view tag, std::string_view text) { return element(tag, {}, text); }

    // Markup written into the program; only a literal binds here.
    template <std::size_t N>
    html& markup(const char (&literal)[N]) {
        out_.append(literal, N - 1);
        return *this;
    }
    html& append(const html& fragment) {
        out_ += fragment.out_;
        return *this;
    }

    const std::string& str() const { return out_; }
    std::string take() { return std::move(out_); }
    std::size_t size() const { return out_.size(); }
    void reserve(std::size_t n) { out_.reserve(n); }

  private:
    std::string out_;
};

// A fresh random token: each response carries its own, for its script element and for the
// Content-Security-Policy header that allows no other script.
std::string new_nonce();

// The CSS class that colours a base letter, upper or lower case (bA, bC, bG, bT), or none.
std::string_view base_class(char letter);

}  // namespace browse
