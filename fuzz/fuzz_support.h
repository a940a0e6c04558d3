// What the fuzz targets share: silenced output streams, a per-process scratch directory for
// the files the readers need, and storage for objects that must be destroyed even when a
// fatal input error jumps back into the target past the frames that would destroy them.
#pragma once

#include <unistd.h>

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <new>
#include <ostream>
#include <streambuf>
#include <string>

namespace fuzz_support {

// Swallows everything; formatting still happens, so the printing code is exercised.
class null_buffer : public std::streambuf {
  protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

inline null_buffer& null_buf() {
    static null_buffer buf;
    return buf;
}

inline std::ostream& null_stream() {
    static std::ostream out(&null_buf());
    return out;
}

// The library reports every bad input on std::cout/std::cerr, which would bury the
// fuzzer's own progress lines. Standard error itself (file descriptor 2) stays open:
// libFuzzer and the sanitizers report there.
inline void silence_library_output() {
    std::cout.rdbuf(&null_buf());
    std::cerr.rdbuf(&null_buf());
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::perror("freopen");
}

// A directory of this process alone, so that targets running side by side never share a
// file; removed when the fuzzer exits normally.
inline const std::string& scratch_dir() {
    // Never destroyed: the exit handler below runs after static destructors would have.
    static const std::string& dir = *new std::string([] {
        std::string templ =
            (std::filesystem::temp_directory_path() / "sorvexa_fuzz.XXXXXX").string();
        if (::mkdtemp(templ.data()) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(scratch_dir(), ec);
        });
        return templ;
    }());
    return dir;
}

inline std::string scratch_path(const std::string& name) {
    return scratch_dir() + "/" + name;
}

inline void write_file(const std::string& path, const std::uint8_t* data, std::size_t size) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        std::perror(path.c_str());
        std::abort();
    }
    if (size > 0 && std::fwrite(data, 1, size, f) != size) std::abort();
    std::fclose(f);
}

inline void clear_scratch_dir() {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(scratch_dir(), ec))
        std::filesystem::remove(entry.path(), ec);
}

// Where a fatal input error lands: the target calls setjmp on this buffer before it hands
// the input to the library, and points sorvexa::process_exit at jump_back, so that the
// library's "end the process" becomes "abandon this input".
inline std::jmp_buf& jump_target() {
    static std::jmp_buf env;
    return env;
}

[[noreturn]] inline void jump_back(int) {
    std::longjmp(jump_target(), 1);
}

// Room for one T in static storage. A fatal input error inside T's constructor or in one
// of its operations jumps straight back into the target, skipping the destructor that
// would close T's file; the target destroys it through the slot instead. The slot counts
// as occupied from the moment construction starts: the readers end the process only from
// their constructor bodies, when every member (the open file among them) already exists.
template <class T>
class slot {
  public:
    template <class... Args>
    T& emplace(Args&&... args) {
        reset();
        live_ = true;
        return *new (bytes_) T(static_cast<Args&&>(args)...);
    }
    T& get() { return *std::launder(reinterpret_cast<T*>(bytes_)); }
    void reset() {
        if (!live_) return;
        live_ = false;
        get().~T();
    }

  private:
    alignas(T) unsigned char bytes_[sizeof(T)];
    bool live_ = false;
};

}  // namespace fuzz_support
