// The physical floor of a run: every SFF file is read once, front to back, in large blocks,
// and for every read a record of the same shape and size as the tool's read records is
// written with large writes. No index, no seeks, no per-read allocation, no contig lines:
// whatever the tool does beyond this is overhead that an implementation could in principle
// remove, so this program's time is the lower bound to measure the tool against.
//
//   floor [-f] OUT SFF...
//
// -f adds the flow index line and the whole flowgram line to every record, as the tool's
// option of the same name does.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "output_file.h"

namespace {

constexpr std::size_t kReadBlock = std::size_t{4} << 20;
constexpr std::size_t kWriteBlock = std::size_t{8} << 20;
constexpr std::size_t kFileHeaderSize = 31;
constexpr std::size_t kReadHeaderSize = 16;
// 16-bit header and flow counts and a few thousand bases make a real record a few KiB; a
// corrupt base count must not make the buffer grow to gigabytes.
constexpr std::size_t kMaxRecord = std::size_t{64} << 20;

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "floor: %s\n", what.c_str());
    std::exit(1);
}

[[noreturn]] void die_errno(const std::string& what) {
    die(what + ": " + std::strerror(errno));
}

// Anonymous memory for the big buffers, asked for in huge pages where the kernel offers them:
// on a virtual machine a page fault costs microseconds, and faulting in 16 MiB of small pages
// would cost a small run more than its parsing.
class block {
  public:
    explicit block(std::size_t size) { allocate(size); }
    ~block() { release(); }
    block(const block&) = delete;
    block& operator=(const block&) = delete;

    unsigned char* data() const { return data_; }
    std::size_t size() const { return size_; }

    // Keeps the first `keep` bytes.
    void grow(std::size_t size, std::size_t keep) {
        if (size <= size_) return;
        unsigned char* old = data_;
        void* old_map = map_;
        const std::size_t old_map_size = map_size_;
        allocate(size);
        std::memcpy(data_, old, keep);
        ::munmap(old_map, old_map_size);
    }

  private:
    static constexpr std::size_t kHuge = std::size_t{2} << 20;

    void allocate(std::size_t size) {
        size = (size + kHuge - 1) / kHuge * kHuge;
        // One huge page more than needed, so that the buffer can start on a huge-page
        // boundary.
        map_size_ = size + kHuge;
        map_ =
            ::mmap(nullptr, map_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map_ == MAP_FAILED) die_errno("cannot allocate a buffer");
        const auto at = reinterpret_cast<std::uintptr_t>(map_);
        data_ = static_cast<unsigned char*>(map_) + ((kHuge - at % kHuge) % kHuge);
        size_ = size;
        ::madvise(data_, size_, MADV_HUGEPAGE);  // a mere hint: plain pages work as well
    }
    void release() {
        if (map_ != nullptr) ::munmap(map_, map_size_);
    }

    void* map_ = nullptr;
    std::size_t map_size_ = 0;
    unsigned char* data_ = nullptr;
    std::size_t size_ = 0;
};

// Sequential input. Records are parsed in place, so a record that straddles two blocks is
// moved to the front of the buffer first; that copies a few kilobytes per block at most.
class input {
  public:
    // The buffer is shared by all files, so that only the first one faults it in.
    input(const std::string& path, block& buf) : path_(path), buf_(buf) {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) die_errno("cannot open " + path);
        ::posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    ~input() { ::close(fd_); }
    input(const input&) = delete;
    input& operator=(const input&) = delete;

    // Makes `n` bytes available at data(); false when the file ends first.
    bool ensure(std::size_t n) {
        if (end_ - begin_ >= n) return true;
        if (begin_ > 0) {
            std::memmove(buf_.data(), buf_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        // Room for a whole block after the wanted bytes keeps every read(2) full-sized.
        if (buf_.size() < n + kReadBlock) buf_.grow(n + kReadBlock, end_);
        while (end_ < n && !at_end_) {
            const ssize_t got = ::read(fd_, buf_.data() + end_, kReadBlock);
            if (got < 0) {
                if (errno == EINTR) continue;
                die_errno("cannot read " + path_);
            }
            if (got == 0) at_end_ = true;
            end_ += static_cast<std::size_t>(got);
            bytes_read_ += static_cast<std::uint64_t>(got);
        }
        return end_ >= n;
    }
    const unsigned char* data() const { return buf_.data() + begin_; }
    void consume(std::size_t n) { begin_ += n; }
    // Drops bytes that may lie beyond the buffered ones (a header longer than a block).
    bool skip(std::size_t n) {
        while (n > 0) {
            if (!ensure(1)) return false;
            const std::size_t step = std::min(n, end_ - begin_);
            consume(step);
            n -= step;
        }
        return true;
    }
    std::uint64_t bytes_read() const { return bytes_read_; }

  private:
    std::string path_;
    int fd_ = -1;
    block& buf_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    bool at_end_ = false;
    std::uint64_t bytes_read_ = 0;
};

// Output through one big buffer, emptied with one write(2) whenever it is nearly full.
class output {
  public:
    explicit output(const std::string& path) : path_(path), buf_(kWriteBlock) {
        fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd_ < 0) die_errno("cannot create " + path);
    }
    ~output() {
        flush();
        if (::close(fd_) != 0) die_errno("cannot close " + path_);
    }
    output(const output&) = delete;
    output& operator=(const output&) = delete;

    // A pointer to room for at least `n` characters; hand the end back through commit().
    char* reserve(std::size_t n) {
        if (len_ + n > buf_.size()) {
            flush();
            buf_.grow(n, 0);
        }
        return base() + len_;
    }
    void commit(char* end) { len_ = static_cast<std::size_t>(end - base()); }
    std::uint64_t bytes_written() const { return written_ + len_; }

  private:
    char* base() const { return reinterpret_cast<char*>(buf_.data()); }

    void flush() {
        const char* p = base();
        std::size_t left = len_;
        while (left > 0) {
            const ssize_t put = ::write(fd_, p, left);
            if (put < 0) {
                if (errno == EINTR) continue;
                die_errno("cannot write " + path_);
            }
            p += put;
            left -= static_cast<std::size_t>(put);
        }
        written_ += len_;
        len_ = 0;
    }

    std::string path_;
    int fd_ = -1;
    block buf_;
    std::size_t len_ = 0;
    std::uint64_t written_ = 0;
};

template <bool big>
std::uint16_t u16(const unsigned char* p) {
    return big ? static_cast<std::uint16_t>(p[0] << 8 | p[1])
               : static_cast<std::uint16_t>(p[1] << 8 | p[0]);
}

template <bool big>
std::uint32_t u32(const unsigned char* p) {
    return big ? std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 |
                     p[3]
               : std::uint32_t{p[3]} << 24 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[1]} << 8 |
                     p[0];
}

struct file_header {
    std::uint32_t reads = 0;
    std::uint16_t header_length = 0;
    std::uint16_t flows = 0;
};

template <bool big>
file_header parse_file_header(const unsigned char* p) {
    // magic 4, version 4, index offset 8, index length 4: the fields after them are the
    // only ones the walk needs.
    return file_header{u32<big>(p + 20), u16<big>(p + 24), u16<big>(p + 28)};
}

// Characters a record line can take at most: a tab or line end per value plus its digits
// (3 for a quality score, 6 for a signed 16-bit flow number, 5 for a flowgram value).
std::size_t record_bound(std::size_t name, std::size_t bases, std::size_t flows) {
    return name + 3 + 4 * bases + 1 + 7 * bases + 1 + 6 * flows + 1;
}

struct totals {
    std::uint64_t reads = 0;
    std::uint64_t bytes_in = 0;
};

// Walks the records of one file from header_length on and writes one record per read.
template <bool big>
void walk_records(input& in, const file_header& h, bool flowgram, output& out,
                  const std::string& path, totals& t) {
    const std::size_t flow_bytes = 2 * std::size_t{h.flows};
    for (std::uint32_t n = 0; n < h.reads; ++n) {
        if (!in.ensure(kReadHeaderSize)) {
            std::fprintf(stderr, "floor: %s ends after %u of %u reads\n", path.c_str(), n, h.reads);
            return;
        }
        const unsigned char* p = in.data();
        const std::size_t header_length = u16<big>(p);
        const std::size_t name_length = u16<big>(p + 2);
        const std::size_t bases = u32<big>(p + 4);
        const std::uint16_t qual_left = u16<big>(p + 8);
        const std::uint16_t qual_right = u16<big>(p + 10);
        const std::uint16_t adapter_left = u16<big>(p + 12);
        const std::uint16_t adapter_right = u16<big>(p + 14);

        // A read header length too small for the name is taken as just covering it.
        const std::size_t head = std::max(header_length, kReadHeaderSize + name_length);
        const std::size_t data = flow_bytes + 3 * bases;
        const std::size_t size = head + (data + 7) / 8 * 8;
        if (size > kMaxRecord) die(path + ": read " + std::to_string(n) + " is implausibly large");
        if (!in.ensure(size)) {
            std::fprintf(stderr, "floor: %s: read %u is cut short\n", path.c_str(), n);
            return;
        }
        p = in.data();
        const unsigned char* name = p + kReadHeaderSize;
        const unsigned char* flowgram_values = p + head;
        const unsigned char* flow_index = flowgram_values + flow_bytes;
        const unsigned char* quality = flow_index + 2 * bases;

        // Kept bases, 1-based and inclusive; a right clip of 0 means "no clip". Clips past the
        // last base are cut to it: the data sets measured here have none.
        std::size_t left = std::max(qual_left, adapter_left);
        if (left < 1) left = 1;
        const std::size_t right =
            std::min<std::size_t>({adapter_right != 0 ? adapter_right : bases,
                                   qual_right != 0 ? qual_right : bases, bases});

        char* o = out.reserve(record_bound(name_length, bases, h.flows));
        std::memcpy(o, name, name_length);
        o += name_length;
        *o++ = '\t';
        *o++ = '1';
        *o++ = '\n';
        for (std::size_t k = left; k <= right; ++k) {
            if (k > left) *o++ = '\t';
            o = put_decimal(o, quality[k - 1]);
        }
        *o++ = '\n';
        if (flowgram) {
            // Flow numbers count from the read's first base, key and left clip included.
            std::int16_t flow = -1;
            for (std::size_t k = 1; k <= right; ++k) {
                flow = static_cast<std::int16_t>(flow + flow_index[k - 1]);
                if (k < left) continue;
                if (k > left) *o++ = '\t';
                o = put_decimal(o, flow);
            }
            *o++ = '\n';
            for (std::size_t f = 0; f < h.flows; ++f) {
                if (f > 0) *o++ = '\t';
                o = put_decimal(o, u16<big>(flowgram_values + 2 * f));
            }
            *o++ = '\n';
        }
        out.commit(o);
        in.consume(size);
        ++t.reads;
    }
}

void process_file(const std::string& path, block& buf, bool flowgram, output& out, totals& t) {
    input in(path, buf);
    if (!in.ensure(kFileHeaderSize)) die(path + " is too short for an SFF header");
    const unsigned char* p = in.data();
    bool big;
    if (std::memcmp(p, "\x2E\x73\x66\x66", 4) == 0) {
        big = true;
    } else if (std::memcmp(p, "\x66\x66\x73\x2E", 4) == 0) {
        big = false;
    } else {
        die(path + " is not an SFF file");
    }
    const file_header h = big ? parse_file_header<true>(p) : parse_file_header<false>(p);
    if (!in.skip(h.header_length)) die(path + " ends inside its header");
    if (big)
        walk_records<true>(in, h, flowgram, out, path, t);
    else
        walk_records<false>(in, h, flowgram, out, path, t);
    t.bytes_in += in.bytes_read();
}

}  // namespace

int main(int argc, char** argv) {
    int first = 1;
    bool flowgram = false;
    if (first < argc && std::strcmp(argv[first], "-f") == 0) {
        flowgram = true;
        ++first;
    }
    if (argc - first < 2) {
        std::fprintf(stderr, "usage: floor [-f] OUT SFF...\n");
        return 2;
    }
    totals t;
    std::uint64_t bytes_out = 0;
    {
        output out(argv[first]);
        block buf(kReadBlock + kReadBlock / 2);
        for (int k = first + 1; k < argc; ++k) process_file(argv[k], buf, flowgram, out, t);
        bytes_out = out.bytes_written();
    }
    std::printf("floor: %llu reads, %llu bytes read, %llu bytes written\n",
                static_cast<unsigned long long>(t.reads),
                static_cast<unsigned long long>(t.bytes_in),
                static_cast<unsigned long long>(bytes_out));
    return 0;
}
