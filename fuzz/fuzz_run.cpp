// The whole program on one ACE file and one or two SFF files cut from a single input:
//
//   byte 0      flags: bit 0 adds -f; bit 1 adds a second SFF operand; bit 2 makes that
//               second operand the first file again; bits 3-4 pick the ACE file's name
//               (x.ace, x.ACE, x.ace.bak, x), which decides the output names
//   4 bytes     length n of the ACE file, little-endian (cut to what is left)
//   n bytes     the ACE file
//   4 bytes     length m of the first SFF file, little-endian (cut to what is left)
//   m bytes     the first SFF file
//   the rest    the second SFF file
//
// Each input runs in a child process. A fatal input error ends a run halfway through the
// driver, whose locals hold open files and megabyte buffers that no jump back could release,
// so in-process runs would exhaust descriptors and memory within minutes. The child's
// coverage counters are copied back into this process before the next input, so the fuzzer
// is still guided by what the run reached.
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "coverage_counters.h"
#include "driver.h"
#include "fuzz_support.h"
#include "process_exit.h"

namespace {

// Shared with the child: whether it got to the end of its run, then its counters.
constexpr std::size_t counters_offset = 64;
volatile int* finished = nullptr;
std::uint8_t* child_counters = nullptr;
std::uint8_t* counters = nullptr;
std::size_t counter_bytes = 0;

std::uint32_t take_length(const std::uint8_t*& data, std::size_t& size) {
    std::uint32_t n = 0;
    for (int k = 0; k < 4 && size > 0; ++k, ++data, --size)
        n |= static_cast<std::uint32_t>(*data) << (8 * k);
    return n;
}

std::string take_bytes(const std::uint8_t*& data, std::size_t& size, std::size_t n) {
    if (n > size) n = size;
    std::string out(reinterpret_cast<const char*>(data), n);
    data += n;
    size -= n;
    return out;
}

void save(const std::string& path, const std::string& bytes) {
    fuzz_support::write_file(path, reinterpret_cast<const std::uint8_t*>(bytes.data()),
                             bytes.size());
}

// The child's way out, for a finished run and for a fatal input error alike. _exit skips
// the fuzzer's own exit handlers, which would take any exit of the child for a failure.
[[noreturn]] void child_exit(int) {
    if (counter_bytes > 0) std::memcpy(child_counters, counters, counter_bytes);
    *finished = 1;
    std::fflush(nullptr);
    ::_exit(0);
}

}  // namespace

// Every fork copies the page tables of the whole process. The sanitizer's quarantine of
// freed blocks (each input's copies among them) would otherwise grow this process to
// hundreds of megabytes and halve the rate of runs; a use after free in the run itself
// happens in the child, whose quarantine starts empty, so a small one loses nothing there.
extern "C" const char* __asan_default_options() {
    return "quarantine_size_mb=16";
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_support::silence_library_output();
    counters = fuzz_support::coverage_counters();
    counter_bytes = fuzz_support::coverage_counter_count();
    void* block = ::mmap(nullptr, counters_offset + counter_bytes, PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) {
        std::perror("mmap");
        std::abort();
    }
    finished = static_cast<volatile int*>(block);
    child_counters = static_cast<std::uint8_t*>(block) + counters_offset;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const unsigned flags = data[0];
    ++data;
    --size;
    const std::string ace = take_bytes(data, size, take_length(data, size));
    const std::string sff1 = take_bytes(data, size, take_length(data, size));
    const std::string sff2 = take_bytes(data, size, size);

    static const char* const ace_names[] = {"x.ace", "x.ACE", "x.ace.bak", "x"};
    const std::string ace_path = fuzz_support::scratch_path(ace_names[(flags >> 3) & 3]);
    const std::string sff1_path = fuzz_support::scratch_path("a.sff");
    const std::string sff2_path =
        (flags & 4) != 0 ? sff1_path : fuzz_support::scratch_path("b.sff");
    save(ace_path, ace);
    save(sff1_path, sff1);
    std::vector<std::string> args{"Sorvexa"};
    if ((flags & 1) != 0) args.emplace_back("-f");
    args.push_back(ace_path);
    args.push_back(sff1_path);
    if ((flags & 2) != 0) {
        if ((flags & 4) == 0) save(sff2_path, sff2);
        args.push_back(sff2_path);
    }
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    *finished = 0;
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        std::perror("fork");
        std::abort();
    }
    if (pid == 0) {
        // A child left behind by a fuzzer that gave up on it (a timeout) must not run on.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        sorvexa::process_exit = child_exit;
        child_exit(sorvexa_main(static_cast<int>(args.size()), argv.data()));
    }

    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            std::perror("waitpid");
            std::abort();
        }
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || *finished != 1) {
        // The child has printed its sanitizer report; this makes the fuzzer keep the input.
        std::fprintf(stderr, "fuzz_run: the run ended abnormally (wait status 0x%x)\n", status);
        std::abort();
    }
    if (counter_bytes > 0) std::memcpy(counters, child_counters, counter_bytes);
    fuzz_support::clear_scratch_dir();
    return 0;
}
