// Running the Sorvexa binary as a child process, and the scratch directory that the
// end-to-end tests need around it.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fixture {

struct run_result {
    int status = -1;  // exit status, or minus the signal number when the child was killed
    std::string out, err;
    long max_rss_kib = 0;  // the child's peak resident memory
};

// Set in the child before it starts: a file-size limit in bytes (RLIMIT_FSIZE), or none;
// a file (a path as this process sees it, such as /dev/full) to take the child's standard
// output in place of the captured one, which then stays empty.
struct run_limits {
    long long file_size = -1;
    std::string stdout_path;
    // NAME=value entries for the child's environment, replacing inherited ones of that name.
    std::vector<std::string> environment;
};

// No limit, standard output sent to `path`.
inline run_limits stdout_to(std::string path) {
    run_limits limits;
    limits.stdout_path = std::move(path);
    return limits;
}

// Runs `binary` with `args` (argv[0] not included) in the directory `cwd`, no shell
// involved. Output goes to unlinked temporary files rather than pipes so that a chatty
// child can never block on a full pipe.
run_result run_binary(const std::string& binary, const std::vector<std::string>& args,
                      const std::string& cwd, const run_limits& limits = {});

#ifdef SORVEXA_BIN
// The binary under test; its path is compiled into each test executable, not into this
// library, so the library can be linked by tools built without the binary.
inline run_result run_tool(const std::vector<std::string>& args, const std::string& cwd = ".",
                           const run_limits& limits = {}) {
    return run_binary(SORVEXA_BIN, args, cwd, limits);
}
#endif

// A fresh directory under the system's temporary directory ($TMPDIR first), removed with
// its contents on destruction.
struct temp_dir {
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    // `name` relative to the directory.
    std::string operator/(std::string_view name) const { return path + "/" + std::string(name); }
    std::string path;
};

// The whole file as bytes; empty when it cannot be read.
std::string read_file(const std::string& path);

}  // namespace fixture
