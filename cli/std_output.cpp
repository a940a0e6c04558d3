#include "std_output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <streambuf>

namespace sorvexa {

namespace {

// Stands in front of std::cout's own buffer to keep the reason of its first failed write.
// The C library drops what it could not write, so a failed std::flush in the middle of a
// program leaves only the stream's error flag and no errno for the check at the end.
// Unbuffered, so standard output keeps the C library's buffering (line by line on a
// terminal) and its order relative to standard error.
class error_keeping_buf : public std::streambuf {
  public:
    explicit error_keeping_buf(std::streambuf* to) : to_(to) {}
    // The errno of the first failure; -1 when it failed without telling why.
    int error() const { return error_; }
    void note_error(int e) {
        if (error_ == 0) error_ = e != 0 ? e : -1;
    }

  protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        errno = 0;
        const int_type r = to_->sputc(traits_type::to_char_type(c));
        if (traits_type::eq_int_type(r, traits_type::eof())) note_error(errno);
        return r;
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        errno = 0;
        const std::streamsize r = to_->sputn(s, n);
        if (r < n) note_error(errno);
        return r;
    }
    int sync() override {
        errno = 0;
        const int r = to_->pubsync();
        if (r != 0) note_error(errno);
        return r;
    }

  private:
    std::streambuf* to_;
    int error_ = 0;
};

}  // namespace

int main_checking_stdout(int (*program)(int, char**), int argc, char** argv,
                         std::string_view name) {
    // Never deleted: a fatal error leaves through exit(), and the library's own flush of
    // std::cout at exit must still find its buffer.
    auto* buf = new error_keeping_buf(std::cout.rdbuf());
    std::cout.rdbuf(buf);

    const int status = program(argc, argv);

    std::cout.flush();
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) buf->note_error(errno);
    // Closing the descriptor, not the stream: the library flushes std::cout once more at
    // exit, which must find a stream, and finds nothing left to write. A close that fails is
    // a write that failed (delayed write-back); a descriptor closed from the start and never
    // written to is no failure.
    if (::close(STDOUT_FILENO) != 0 && errno != EBADF) buf->note_error(errno);
    if (status != 0 || buf->error() == 0) return status;
    if (!name.empty()) std::cerr << name << ": ";
    std::cerr << "can not write standard output";
    if (buf->error() > 0) std::cerr << ": " << std::strerror(buf->error());
    std::cerr << std::endl;
    return 1;
}

}  // namespace sorvexa
