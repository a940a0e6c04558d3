// Text that goes into a page. Pages are built with `html`, a writer whose text calls escape
// what they are given: a name or sequence from the files cannot become markup by being
// forgotten. Markup comes only from string literals written into the program (`markup`, and
// `fill`, whose holes take escaped text) and from fragments another writer built (`append`).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace browse {

// `text` with every character that could open markup or end an attribute value written as a
// character reference; control characters become U+FFFD.
void append_escaped(std::string& out, std::string_view text);
// `text` percent-encoded for one segment of a URL path or a query value: only letters,
// digits and - . _ ~ stay as they are.
std::string url_encoded(std::string_view text);
std::string grouped(std::int64_t n);        // thousands separated by commas
std::string fixed(double v, int decimals);  // `decimals` places
std::string new_nonce();                    // a fresh random token for a page's script
std::string_view base_class(char letter);   // bA, bC, bG, bT, or none: a letter's colour

class html {
  public:
    html& text(std::string_view s) {
        append_escaped(out_, s);
        return *this;
    }
    template <std::size_t N>
    html& markup(const char (&literal)[N]) {
        out_.append(literal, N - 1);
        return *this;
    }
    // A literal with `{}` holes, each filled with the next value as escaped text:
    // fill("<td data-v=\"{}\">{}</td>", key, shown).
    template <std::size_t N, class... T>
    html& fill(const char (&literal)[N], const T&... values) {
        const std::string texts[] = {as_text(values)..., std::string()};
        std::size_t k = 0;
        for (std::size_t i = 0; i + 1 < N; ++i) {
            if (literal[i] == '{' && literal[i + 1] == '}')
                append_escaped(out_, texts[k++]), ++i;
            else
                out_ += literal[i];
        }
        return *this;
    }
    html& append(const html& fragment) {
        out_ += fragment.out_;
        return *this;
    }
    const std::string& str() const { return out_; }
    std::string take() { return std::move(out_); }
    std::size_t size() const { return out_.size(); }

  private:
    static std::string as_text(std::string_view s) { return std::string(s); }
    static std::string as_text(char c) { return std::string(1, c); }
    template <class I>
    requires std::is_integral_v<I>
    static std::string as_text(I v) { return std::to_string(v); }
    std::string out_;
};

}  // namespace browse
