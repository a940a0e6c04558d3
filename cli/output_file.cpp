#include "output_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>


namespace {

// The files open now (Sorvexa's run has two, sorvexa-flowcheck's four), for the flush on the
// way out of the process.
output_file* open_files[4] = {nullptr, nullptr, nullptr, nullptr};

void track(output_file* added, output_file* removed) {
    for (auto& slot : open_files) {
        if (slot == removed) slot = nullptr;
        if (added != nullptr && slot == nullptr) {
            slot = added;
            added = nullptr;
        }
    }
}

// One message for the first failed write: later ones (the other file on a full disk) add
// nothing the user needs.
void report_write_failure(const std::string& path) {
    static bool reported = false;
    if (reported) return;
    reported = true;
    std::cerr << "can not write file " << path << std::endl;
}

}  // namespace

output_file::output_file(const std::string& path, std::size_t buffer)
    : path_(path), fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {
    if (fd_ < 0) return;
    // A file-size limit then fails the write with EFBIG, which is reported, instead of
    // killing the process without a word.
    std::signal(SIGXFSZ, SIG_IGN);
    static const bool handler = std::atexit(flush_at_exit) == 0;
    (void)handler;
    // Not zero-filled: only the bytes written are ever touched.
    buf_ = std::make_unique_for_overwrite<char[]>(buffer);
    capacity_ = buffer;
    track(this, nullptr);
}

output_file::~output_file() {
    if (!failed_ && !close_quietly()) report_write_failure(path_);
}

char* output_file::reserve(std::size_t n) {
    if (capacity_ - len_ < n) {
        // After a failure the buffer only takes what is written, to be dropped.
        if (failed_) len_ = 0;
        else if (!flush()) fail();
        if (capacity_ < n) {
            buf_ = std::make_unique_for_overwrite<char[]>(n);
            capacity_ = n;
        }
    }
    return buf_.get() + len_;
}

// Writes the buffer out. A short write is retried for the rest; one that writes nothing,
// or an error other than an interruption, is a failure.
bool output_file::flush() {
    std::size_t done = 0;
    while (done < len_) {
        const ssize_t n = ::write(fd_, buf_.get() + done, len_ - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    flushed_ += static_cast<std::int64_t>(len_);
    len_ = 0;
    return true;
}

// Flushes and closes; false when either failed. The file counts as closed afterwards.
bool output_file::close_quietly() {
    if (fd_ < 0) return true;
    bool ok = flush();
    ok = ::close(fd_) == 0 && ok;
    fd_ = -1;
    len_ = 0;
    track(nullptr, this);
    return ok;
}

bool output_file::close() {
    if (!failed_ && !close_quietly()) fail();
    return !failed_;
}

// The file is closed first, so that the flush on the way out leaves it alone.
void output_file::fail() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
        len_ = 0;
        track(nullptr, this);
    }
    failed_ = true;
    report_write_failure(path_);
}

void output_file::flush_at_exit() {
    for (output_file* f : open_files)
        if (f != nullptr && !f->flush()) report_write_failure(f->path_);
}
