// Internal header of the Sorvexa library, installed only because a public header includes
// it. It is not part of the library's interface and may change in any release: include the
// public headers instead.
//
// Buffered reading of a text file line by line, with the whitespace-separated token
// extraction of formatted stream input (used by the ACE reader).
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// A text input file. A line is everything up to the next newline, which is removed;
// nothing else is removed, so a carriage return stays in the line. Reading at the end
// of the file gives an empty line and sets the end-of-file state.
class text_file {
  public:
    text_file() = default;
    ~text_file();
    text_file(const text_file&) = delete;
    text_file& operator=(const text_file&) = delete;

    bool open(const std::string& path);
    bool close();
    bool is_open() const { return file_ != nullptr; }
    bool eof() const { return eof_; }
    // Byte offset of the next character to be read, and a return to such an offset (which
    // clears the end-of-file state); -1 and false when no file is open or the move fails.
    std::int64_t tell() const;
    bool seek(std::int64_t offset);

    // Reads the next line into `line`; false (and an empty line) when nothing was left.
    bool getline(std::string& line);
    // Appends the next line to `out` and returns its length: 0 for an empty line, or at the
    // end of the file.
    std::size_t append_line(std::vector<char>& out);

    // Formatted extraction across lines: skips white space (newlines included) and reads one
    // word or one decimal number. The number forms leave the stream just after the number.
    bool extract_word(std::string& word);
    bool extract_int(std::int64_t& value, std::int64_t lo, std::int64_t hi);

  private:
    template <class Sink>
    bool read_line(Sink sink);
    bool fill();
    int peek();

    std::FILE* file_ = nullptr;
    std::unique_ptr<char[]> buf_;  // not zero-filled: only what fread delivers is read
    std::size_t pos_ = 0;
    std::size_t len_ = 0;
    bool eof_ = false;
};

// Whitespace-separated tokens of one line, extracted the way formatted stream input does
// it: once an extraction fails, every later one fails too and leaves its target unchanged.
// A number that does not parse stores 0; one out of the target's range stores the nearest
// bound. White space is the C locale's: blank, tab, CR, LF, VT and FF.
class line_tokens {
  public:
    explicit line_tokens(std::string_view line) : line_(line) {}

    line_tokens& operator>>(std::string& word);
    line_tokens& operator>>(char& c);
    line_tokens& operator>>(std::int16_t& v) { return number(v); }
    line_tokens& operator>>(std::int32_t& v) { return number(v); }
    bool failed() const { return fail_; }

  private:
    template <class T>
    line_tokens& number(T& v);
    bool skip_space();

    std::string_view line_;
    std::size_t pos_ = 0;
    bool fail_ = false;
};

inline bool is_c_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// A decimal number at the start of `text`: an optional sign, then digits as far as they
// go. Without a digit the value is 0 (the sign, if any, is still taken). A value outside
// lo..hi, or beyond 64 bits, becomes the bound on its side. `ok` only when digits were
// found and the value was in range; `length` counts the characters taken.
struct int_scan {
    std::int64_t value;
    std::size_t length;
    bool ok;
};
int_scan scan_int(std::string_view text, std::int64_t lo, std::int64_t hi);

// The first whitespace-separated token of a line, or an empty string.
std::string first_token(std::string_view line);
