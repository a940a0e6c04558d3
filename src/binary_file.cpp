#include "binary_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {
// A refill after a jump reads a small block (one record is usually within it); each refill
// that continues where the last one ended doubles the block, up to the largest size.
constexpr std::size_t small_chunk = 4 << 10;
constexpr std::size_t large_chunk = 512 << 10;
}  // namespace

binary_file::~binary_file() {
    close();
}

bool binary_file::open(const std::string& path) {
    close();
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) return false;
    struct stat st {};
    regular_ = ::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode);
    size_ = regular_ ? st.st_size : 0;
    pos_ = 0;
    eof_ = fail_ = false;
    buf_at_ = 0;
    buf_len_ = 0;
    chunk_ = small_chunk;
    return true;
}

void binary_file::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    buf_len_ = 0;
    std::vector<unsigned char>().swap(buf_);
}

// Reads into the buffer from file offset `at`; returns the bytes now buffered there.
std::size_t binary_file::fill_from(std::int64_t at) {
    // Skipping a little past the buffer (a walk over records that steps over their data)
    // still counts as going on where the last refill ended.
    const std::int64_t end = buf_at_ + static_cast<std::int64_t>(buf_len_);
    const bool sequential =
        buf_len_ > 0 && at >= end && at - end <= static_cast<std::int64_t>(chunk_);
    chunk_ = sequential ? std::min(chunk_ * 2, large_chunk) : small_chunk;
    if (buf_.size() < chunk_) buf_.resize(chunk_);
    buf_at_ = at;
    buf_len_ = 0;
    while (buf_len_ < chunk_) {
        ssize_t got = ::pread(fd_, buf_.data() + buf_len_, chunk_ - buf_len_,
                              static_cast<off_t>(at + static_cast<std::int64_t>(buf_len_)));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;  // end of file, or a file that cannot be read (a directory)
        buf_len_ += static_cast<std::size_t>(got);
    }
    return buf_len_;
}

// Moves past n bytes as reading them would: up to the end of the file at most.
std::size_t binary_file::drop(std::size_t n) {
    const std::int64_t left = pos_ < size_ ? size_ - pos_ : 0;
    const std::size_t done = static_cast<std::size_t>(std::min<std::uint64_t>(n, left));
    pos_ += static_cast<std::int64_t>(done);
    return done;
}

std::size_t binary_file::read(void* dst, std::size_t cap, std::size_t n) {
    auto* out = static_cast<unsigned char*>(dst);
    const std::size_t stored = std::min(cap, n);
    std::size_t done = 0;
    if (!eof_ && !fail_ && fd_ >= 0) {
        // Only what is stored is read through the buffer in a regular file.
        const std::size_t through = regular_ ? stored : n;
        while (done < through) {
            std::int64_t off = pos_ - buf_at_;
            if (off < 0 || off >= static_cast<std::int64_t>(buf_len_)) {
                if (fill_from(pos_) == 0) break;
                off = 0;
            }
            std::size_t take = std::min(through - done, buf_len_ - static_cast<std::size_t>(off));
            if (done < stored) {
                std::size_t copy = std::min(take, stored - done);
                std::memcpy(out + done, buf_.data() + off, copy);
            }
            done += take;
            pos_ += static_cast<std::int64_t>(take);
        }
        if (done == through && through < n) done += drop(n - through);
    }
    if (done < n) eof_ = fail_ = true;
    if (done < stored) std::memset(out + done, 0, stored - done);
    return done;
}

void binary_file::seek(std::int64_t pos) {
    if (fail_) return;
    if (pos < 0 || fd_ < 0)
        fail_ = true;
    else
        pos_ = pos;
}

void binary_file::seek_relative(std::int64_t off) {
    if (fail_) return;
    seek(pos_ + off);
}

void binary_file::seek_end() {
    if (fail_) return;
    if (fd_ < 0) {
        fail_ = true;
        return;
    }
    struct stat st {};
    if (::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode)) size_ = st.st_size;
    pos_ = size_;
}
