#include <sorvexa/detail/binary_file.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>

namespace {
// A refill after a jump reads a small block (one record is usually within it); each refill
// that continues where the last one ended doubles the block, up to the largest size.
constexpr std::size_t small_chunk = 4 << 10;
constexpr std::size_t large_chunk = 512 << 10;

// Reads `n` bytes at `at` into `to`, as many calls as it takes; stops at the end of the file
// or at an error (a directory), returning what was read.
std::size_t read_at(int fd, unsigned char* to, std::size_t n, std::int64_t at) {
    std::size_t done = 0;
    while (done < n) {
        ssize_t got = ::pread(fd, to + done, n - done, static_cast<off_t>(at + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    return done;
}
}  // namespace

// The helper that reads one block ahead. It holds at most one request: the block that
// follows the caller's buffer, which the caller either takes whole (waiting for it to be
// read) or drops (without waiting: the helper is waited for before it is asked again, and
// its block is only handed over once read). A process forked meanwhile has no helper
// thread: its copy is left alone, never waited on.
struct binary_file::read_ahead {
    int fd;
    pid_t owner = ::getpid();
    pthread_t thread{};
    std::mutex mutex;
    std::condition_variable asked, done;
    std::vector<unsigned char> block = std::vector<unsigned char>(large_chunk);
    // Written by the caller (under the lock, which the helper reads them under).
    std::int64_t at = 0;
    bool pending = false;  // a block asked for and not yet taken or dropped
    bool quit = false;
    // Written by the helper, under the lock.
    bool busy = false;   // reading into `block`
    bool ready = false;  // the block asked for is read
    std::size_t got = 0;

    explicit read_ahead(int file) : fd(file) {}

    static void* run(void* self) {
        static_cast<read_ahead*>(self)->serve();
        return nullptr;
    }

    void serve() {
        std::unique_lock lock(mutex);
        for (;;) {
            asked.wait(lock, [&] { return quit || (pending && !ready); });
            if (quit) return;
            const std::int64_t from = at;
            busy = true;
            lock.unlock();
            const std::size_t n = read_at(fd, block.data(), block.size(), from);
            lock.lock();
            busy = false;
            got = n;
            ready = true;
            done.notify_all();
        }
    }

    void ask(std::int64_t from) {
        std::unique_lock lock(mutex);
        done.wait(lock, [&] { return !busy; });
        at = from;
        pending = true;
        ready = false;
        asked.notify_one();
    }

    // The bytes read of the block asked for, once read.
    std::size_t take() {
        std::unique_lock lock(mutex);
        done.wait(lock, [&] { return ready; });
        pending = false;
        return got;
    }

    void drop() {
        std::lock_guard lock(mutex);
        pending = false;
    }

    void stop() {
        {
            std::lock_guard lock(mutex);
            quit = true;
            asked.notify_one();
        }
        ::pthread_join(thread, nullptr);
    }
};

binary_file::binary_file() = default;

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

void binary_file::release() {
    stop_read_ahead();
    if (buf_.size() > small_chunk) {
        std::vector<unsigned char>().swap(buf_);
        buf_len_ = 0;
        chunk_ = small_chunk;
    }
}

void binary_file::close() {
    stop_read_ahead();
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    buf_len_ = 0;
    std::vector<unsigned char>().swap(buf_);
}

// Reads into the buffer from file offset `at`; returns the bytes now buffered from there.
std::size_t binary_file::fill_from(std::int64_t at) {
    if (take_read_ahead(at)) return buf_len_ - static_cast<std::size_t>(at - buf_at_);
    // Skipping a little past the buffer (a walk over records that steps over their data)
    // still counts as going on where the last refill ended.
    const std::int64_t end = buf_at_ + static_cast<std::int64_t>(buf_len_);
    const bool sequential =
        buf_len_ > 0 && at >= end && at - end <= static_cast<std::int64_t>(chunk_);
    chunk_ = sequential ? std::min(chunk_ * 2, large_chunk) : small_chunk;
    if (buf_.size() < chunk_) buf_.resize(chunk_);
    buf_at_ = at;
    buf_len_ = read_at(fd_, buf_.data(), chunk_, at);
    if (chunk_ == large_chunk && buf_len_ == chunk_) start_read_ahead();
    return buf_len_;
}

// The block read ahead becomes the buffer when it holds `at`; otherwise it is dropped.
bool binary_file::take_read_ahead(std::int64_t at) {
    if (!ahead_ || !ahead_->pending || !own_helper()) return false;
    const std::int64_t from = ahead_->at;
    if (at < from || at >= from + static_cast<std::int64_t>(large_chunk)) {
        ahead_->drop();
        return false;
    }
    const std::size_t got = ahead_->take();
    if (at >= from + static_cast<std::int64_t>(got)) return false;
    buf_.swap(ahead_->block);
    buf_at_ = from;
    buf_len_ = got;
    if (buf_len_ == large_chunk) start_read_ahead();
    return true;
}

// Asks for the block after the buffer, starting the helper on first use; without a helper
// (a thread cannot be made) reading goes on as before.
void binary_file::start_read_ahead() {
    if (!regular_ || buf_at_ + static_cast<std::int64_t>(buf_len_) >= size_) return;
    if (!own_helper()) {
        ahead_ = std::make_unique<read_ahead>(fd_);
        // The helper takes no signals: they stay with the threads of the program.
        sigset_t all, saved;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &saved);
        const int made = ::pthread_create(&ahead_->thread, nullptr, read_ahead::run, ahead_.get());
        ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
        if (made != 0) {
            ahead_.reset();
            return;
        }
    }
    ahead_->ask(buf_at_ + static_cast<std::int64_t>(buf_len_));
}

void binary_file::stop_read_ahead() {
    if (own_helper()) ahead_->stop();
    ahead_.reset();
}

// Whether there is a helper of this process. A process forked from the one that made it has
// a copy without the thread: that copy is let go, never waited on or asked again. Checked
// only where the helper is used (once a block), not on every refill.
bool binary_file::own_helper() {
    if (ahead_ && ahead_->owner != ::getpid()) (void)ahead_.release();
    return ahead_ != nullptr;
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
                off = pos_ - buf_at_;
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
