// Internal header of the Sorvexa library, installed only because a public header includes
// it. It is not part of the library's interface and may change in any release: include the
// public headers instead.
//
// Positioned binary input with the end-of-file and fail states of a classic input stream:
// a read that delivers fewer bytes than asked sets both; reading or positioning a failed
// stream does nothing (a read then delivers 0 bytes); only clear() resets the states.
// Reads go through one buffer whose refill size grows while access is sequential and
// shrinks after a jump, so both a full walk and scattered fetches stay cheap. Once a read
// is sequential at the largest size, a helper thread reads the next block while the caller
// works on the current one: copying from the page cache is half the cost of a walk over
// records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class binary_file {
  public:
    binary_file();
    ~binary_file();
    binary_file(const binary_file&) = delete;
    binary_file& operator=(const binary_file&) = delete;

    bool open(const std::string& path);
    void close();
    // Gives back what a long sequential read gathered (the helper thread, its block, a buffer
    // grown past the smallest refill) for a file kept open while idle; the position, the
    // states and the bytes read stay as they were.
    void release();
    bool is_open() const { return fd_ >= 0; }

    // Reads `n` bytes, storing the first `cap` of them at `dst` and dropping the rest.
    // Returns the number of bytes delivered; the part of dst[0, min(n, cap)) that no byte
    // reached is set to zero. In a regular file the dropped bytes are stepped over, not
    // read, with the same result: a record that claims gigabytes costs nothing to pass.
    std::size_t read(void* dst, std::size_t cap, std::size_t n);
    std::size_t read(void* dst, std::size_t n) { return read(dst, n, n); }

    void seek(std::int64_t pos);  // absolute
    void seek_relative(std::int64_t off);
    void seek_end();
    std::int64_t tell() const { return fail_ ? -1 : pos_; }

    bool eof() const { return eof_; }
    bool fail() const { return fail_; }
    void clear() { eof_ = fail_ = false; }

    // Bytes between the read position and the end of the file (0 when not a regular file).
    std::int64_t bytes_left() const { return pos_ < size_ ? size_ - pos_ : 0; }

  private:
    struct read_ahead;

    std::size_t fill_from(std::int64_t at);
    bool take_read_ahead(std::int64_t at);
    void start_read_ahead();
    void stop_read_ahead();
    bool own_helper();
    std::size_t drop(std::size_t n);

    int fd_ = -1;
    std::int64_t size_ = 0;
    bool regular_ = false;  // size_ is the file's size: bytes can be counted, not read
    std::int64_t pos_ = 0;
    bool eof_ = false;
    bool fail_ = false;
    std::vector<unsigned char> buf_;
    std::int64_t buf_at_ = 0;  // file offset of buf_[0]
    std::size_t buf_len_ = 0;
    std::size_t chunk_ = 0;
    std::unique_ptr<read_ahead> ahead_;
};
