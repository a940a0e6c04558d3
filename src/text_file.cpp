#include "text_file.h"

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
    bool negative = false;
    if (c == '+' || c == '-') {
        negative = c == '-';
        ++pos_;
    }
    bool digits = false;
    std::int64_t v = 0;
    bool overflow = false;
    while ((c = peek()) >= '0' && c <= '9') {
        digits = true;
        if (v > (std::numeric_limits<std::int64_t>::max() - (c - '0')) / 10) overflow = true;
        if (!overflow) v = v * 10 + (c - '0');
        ++pos_;
    }
    if (c < 0) eof_ = true;
    if (!digits) {
        value = 0;
        return false;
    }
    if (negative) v = -v;
    if (overflow || v < lo || v > hi) {
        value = (overflow ? negative : v < lo) ? lo : hi;
        return false;
    }
    value = v;
    return true;
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

// Decimal with an optional sign, as far as digits go. A number beyond 64 bits saturates.
bool line_tokens::parse(std::int64_t& out) {
    bool negative = false;
    if (pos_ < line_.size() && (line_[pos_] == '+' || line_[pos_] == '-')) {
        negative = line_[pos_] == '-';
        ++pos_;
    }
    bool digits = false, overflow = false;
    std::int64_t v = 0;
    while (pos_ < line_.size() && line_[pos_] >= '0' && line_[pos_] <= '9') {
        int d = line_[pos_++] - '0';
        digits = true;
        if (v > (std::numeric_limits<std::int64_t>::max() - d) / 10) overflow = true;
        if (!overflow) v = v * 10 + d;
    }
    if (!digits) {
        out = 0;
        return false;
    }
    if (overflow) {
        out = negative ? std::numeric_limits<std::int64_t>::min()
                       : std::numeric_limits<std::int64_t>::max();
        return false;
    }
    out = negative ? -v : v;
    return true;
}

template <class T>
line_tokens& line_tokens::number(T& v) {
    if (fail_ || !skip_space()) return *this;
    std::int64_t x;
    bool ok = parse(x);
    if (x < std::numeric_limits<T>::min()) {
        v = std::numeric_limits<T>::min();
        ok = false;
    } else if (x > std::numeric_limits<T>::max()) {
        v = std::numeric_limits<T>::max();
        ok = false;
    } else {
        v = static_cast<T>(x);
    }
    if (!ok) fail_ = true;
    return *this;
}

template line_tokens& line_tokens::number(std::int16_t&);
template line_tokens& line_tokens::number(std::int32_t&);

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
