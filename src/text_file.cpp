#include <sorvexa/detail/text_file.h>

#include <charconv>
#include <cstring>
#include <limits>

namespace {
constexpr std::size_t buffer_size = 64 << 10;
}

text_file::~text_file() {
    close();
}

bool text_file::open(const std::string& path) {
    close();
    file_ = std::fopen(path.c_str(), "rb");
    pos_ = len_ = 0;
    eof_ = false;
    if (file_ == nullptr) return false;
    if (!buf_) buf_ = std::make_unique_for_overwrite<char[]>(buffer_size);
    return true;
}

bool text_file::close() {
    if (file_ == nullptr) return true;
    bool ok = std::fclose(file_) == 0;
    file_ = nullptr;
    pos_ = len_ = 0;
    return ok;
}

bool text_file::fill() {
    if (file_ == nullptr) return false;
    pos_ = 0;
    len_ = std::fread(buf_.get(), 1, buffer_size, file_);
    return len_ > 0;
}

int text_file::peek() {
    if (pos_ == len_ && !fill()) return -1;
    return static_cast<unsigned char>(buf_[pos_]);
}

bool text_file::getline(std::string& line) {
    line.clear();
    return read_line([&line](const char* p, std::size_t n) { line.append(p, n); });
}

std::size_t text_file::append_line(std::vector<char>& out) {
    const std::size_t before = out.size();
    read_line([&out](const char* p, std::size_t n) { out.insert(out.end(), p, p + n); });
    return out.size() - before;
}

template <class Sink>
bool text_file::read_line(Sink sink) {
    bool any = false;
    for (;;) {
        if (pos_ == len_ && !fill()) {
            eof_ = true;
            return any;
        }
        any = true;
        const char* start = buf_.get() + pos_;
        const void* nl = std::memchr(start, '\n', len_ - pos_);
        if (nl != nullptr) {
            const std::size_t n = static_cast<std::size_t>(static_cast<const char*>(nl) - start);
            sink(start, n);
            pos_ += n + 1;
            return true;
        }
        sink(start, len_ - pos_);
        pos_ = len_;
    }
}

bool text_file::extract_word(std::string& word) {
    int c;
    while ((c = peek()) >= 0 && is_c_space(static_cast<char>(c))) ++pos_;
    if (c < 0) {
        eof_ = true;
        return false;
    }
    word.clear();
    while ((c = peek()) >= 0 && !is_c_space(static_cast<char>(c))) {
        word.push_back(static_cast<char>(c));
        ++pos_;
    }
    if (c < 0) eof_ = true;
    return true;
}

bool text_file::extract_int(std::int64_t& value, std::int64_t lo, std::int64_t hi) {
    int c;
    while ((c = peek()) >= 0 && is_c_space(static_cast<char>(c))) ++pos_;
    if (c < 0) {
        eof_ = true;
        return false;
    }
    // The number may run over the end of the buffer, so its characters are gathered first.
    std::string number;
    if (c == '+' || c == '-') {
        number += static_cast<char>(c);
        ++pos_;
    }
    while ((c = peek()) >= '0' && c <= '9') {
        number += static_cast<char>(c);
        ++pos_;
    }
    if (c < 0) eof_ = true;
    const int_scan n = scan_int(number, lo, hi);
    value = n.value;
    return n.ok;
}

bool line_tokens::skip_space() {
    while (pos_ < line_.size() && is_c_space(line_[pos_])) ++pos_;
    if (pos_ == line_.size()) fail_ = true;
    return !fail_;
}

line_tokens& line_tokens::operator>>(std::string& word) {
    if (fail_ || !skip_space()) return *this;
    std::size_t start = pos_;
    while (pos_ < line_.size() && !is_c_space(line_[pos_])) ++pos_;
    word.assign(line_.substr(start, pos_ - start));
    return *this;
}

line_tokens& line_tokens::operator>>(char& c) {
    if (fail_ || !skip_space()) return *this;
    c = line_[pos_++];
    return *this;
}

template <class T>
line_tokens& line_tokens::number(T& v) {
    if (fail_ || !skip_space()) return *this;
    const int_scan n =
        scan_int(line_.substr(pos_), std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
    pos_ += n.length;
    v = static_cast<T>(n.value);
    if (!n.ok) fail_ = true;
    return *this;
}

template line_tokens& line_tokens::number(std::int16_t&);
template line_tokens& line_tokens::number(std::int32_t&);

int_scan scan_int(std::string_view text, std::int64_t lo, std::int64_t hi) {
    const bool negative = text.starts_with('-');
    const std::size_t sign = negative || text.starts_with('+') ? 1 : 0;
    if (sign == text.size() || text[sign] < '0' || text[sign] > '9') return {0, sign, false};
    // from_chars takes a minus sign but not a plus sign; with a digit after the sign it
    // takes every digit, also when the value is too large for 64 bits.
    std::int64_t v = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + (negative ? 0 : sign), end, v);
    const auto length = static_cast<std::size_t>(stop - text.data());
    if (error == std::errc::result_out_of_range) return {negative ? lo : hi, length, false};
    if (v < lo) return {lo, length, false};
    if (v > hi) return {hi, length, false};
    return {v, length, true};
}

std::string first_token(std::string_view line) {
    std::string tok;
    line_tokens(line) >> tok;
    return tok;
}

std::int64_t text_file::tell() const {
    if (file_ == nullptr) return -1;
    const long at = std::ftell(file_);
    return at < 0 ? -1 : static_cast<std::int64_t>(at) - static_cast<std::int64_t>(len_ - pos_);
}

bool text_file::seek(std::int64_t offset) {
    if (file_ == nullptr || offset < 0 || std::fseek(file_, offset, SEEK_SET) != 0) return false;
    pos_ = len_ = 0;
    eof_ = false;
    return true;
}
