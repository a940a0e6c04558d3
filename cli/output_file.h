// A buffered text output file: the run's two output files are written through it, numbers
// formatted in place. Every write and the close are checked: the first failure (a full
// disk, a quota, a file-size limit, an I/O error, a failing close) is reported as
// "can not write file PATH" (once for the whole process), the file is closed and marked
// failed, and later writes to it are dropped: the program checks failed() where it must
// stop. Open files are flushed on every way out of the process, so what was written before
// an error stays in the files.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

// Decimal text of small numbers from a table: quality scores and flow numbers are nearly
// all below 1000, and copying their text is cheaper than computing it.
struct small_numbers {
    char text[1000][4];  // the digits, then their count in the last byte
    small_numbers() {
        for (int v = 0; v < 1000; ++v) {
            char* end = std::to_chars(text[v], text[v] + 3, v).ptr;
            text[v][3] = static_cast<char>(end - text[v]);
        }
    }
};
inline const small_numbers decimal_text;

// The most characters an integer of type T takes in decimal, its sign included.
template <class T>
inline constexpr std::size_t decimal_width = std::numeric_limits<T>::digits10 + 2;

// Writes v in decimal at out (room for decimal_width<T> characters); returns the end.
template <class T>
char* put_decimal(char* out, T v) {
    bool small = v < 1000;
    if constexpr (std::is_signed_v<T>) small = small && v >= 0;
    if (small) {
        const auto& digits = decimal_text.text[static_cast<std::size_t>(v)];
        std::memcpy(out, digits, 3);
        return out + digits[3];
    }
    return std::to_chars(out, out + decimal_width<T>, v).ptr;
}

class output_file {
  public:
    // Opens with truncation; is_open() tells whether that worked. A write larger than the
    // buffer grows it to that size.
    explicit output_file(const std::string& path, std::size_t buffer = default_buffer_size);
    static constexpr std::size_t default_buffer_size = 1 << 20;
    // Flushes and closes a file still open; a failure is reported but, this being a
    // destructor, cannot end the run: close() explicitly to have it do that.
    ~output_file();
    output_file(const output_file&) = delete;
    output_file& operator=(const output_file&) = delete;

    bool is_open() const { return fd_ >= 0; }
    // A write or the close failed (and was reported).
    bool failed() const { return failed_; }
    // The byte count so far, buffered bytes included: the file position at any time.
    std::int64_t position() const { return flushed_ + static_cast<std::int64_t>(len_); }

    void text(std::string_view s) {
        char* p = reserve(s.size());
        std::memcpy(p, s.data(), s.size());
        commit(p + s.size());
    }
    template <class T>
    void number(T v) {
        commit(put_decimal(reserve(decimal_width<T>), v));
    }
    // The values separated by tabs, then a line end (a lone line end for none).
    template <class T>
    void list(const T* values, std::size_t n) {
        char* p = reserve(n * (decimal_width<T> + 1) + 1);
        for (std::size_t k = 0; k < n; ++k) {
            if (k > 0) *p++ = '\t';
            p = put_decimal(p, values[k]);
        }
        *p++ = '\n';
        commit(p);
    }

    // Writes what is buffered and closes the file; false when that or an earlier write failed.
    bool close();

  private:

    // Room for n more bytes; the caller writes there and hands the end back to commit().
    char* reserve(std::size_t n);
    void commit(const char* end) { len_ = static_cast<std::size_t>(end - buf_.get()); }
    bool flush();
    bool close_quietly();
    void fail();
    static void flush_at_exit();

    std::string path_;
    int fd_ = -1;
    std::unique_ptr<char[]> buf_;
    std::size_t capacity_ = 0;
    std::size_t len_ = 0;
    std::int64_t flushed_ = 0;
    bool failed_ = false;
};
