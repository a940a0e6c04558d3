// What the fuzz targets share: silenced output streams, a per-process scratch directory for
// the files the readers need, and one way to run an input.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
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

// Sorvexa's driver reports every bad input on std::cout/std::cerr, which would bury the
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

// What every target that feeds files to the library does first.
inline void start_target() {
    silence_library_output();
}

// The library ends no run: a bad input comes back as a status, and the target goes on to
// the next input.
template <class F>
void run_input(F run) {
    run();
}

}  // namespace fuzz_support
