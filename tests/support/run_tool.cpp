#include "run_tool.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace fixture {

namespace {

// Reads back what the child wrote and closes the file, which removes it.
std::string drain(std::FILE* f) {
    std::string text;
    std::rewind(f);
    for (int c; (c = std::fgetc(f)) != EOF;) text += static_cast<char>(c);
    std::fclose(f);
    return text;
}

}  // namespace

run_result run_binary(const std::string& binary, const std::vector<std::string>& args,
                      const std::string& cwd, const run_limits& limits) {
    // Everything the child needs is built before fork: between fork and exec only
    // async-signal-safe calls are allowed. execv does not write to its arguments.
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    // The added entries replace inherited ones of the same name.
    std::vector<char*> envp;
    for (const auto& e : limits.environment) envp.push_back(const_cast<char*>(e.c_str()));
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string_view entry(*e);
        const auto named = [&entry](const std::string& added) {
            const auto eq = added.find('=');
            return entry.size() > eq && entry.compare(0, eq + 1, added, 0, eq + 1) == 0;
        };
        if (std::none_of(limits.environment.begin(), limits.environment.end(), named))
            envp.push_back(*e);
    }
    envp.push_back(nullptr);
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    if (out == nullptr || err == nullptr) throw std::runtime_error("tmpfile failed");
    int out_fd = fileno(out);
    const int err_fd = fileno(err);
    if (!limits.stdout_path.empty()) {
        out_fd = ::open(limits.stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (out_fd < 0) throw std::runtime_error("cannot open " + limits.stdout_path);
    }
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        if (chdir(cwd.c_str()) != 0 || dup2(out_fd, 1) < 0 || dup2(err_fd, 2) < 0) _exit(126);
        if (limits.file_size >= 0) {
            const rlimit fsize{static_cast<rlim_t>(limits.file_size),
                               static_cast<rlim_t>(limits.file_size)};
            if (setrlimit(RLIMIT_FSIZE, &fsize) != 0) _exit(125);
        }
        execve(binary.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    if (out_fd != fileno(out)) ::close(out_fd);
    int wstatus = 0;
    rusage usage{};
    while (wait4(pid, &wstatus, 0, &usage) < 0 && errno == EINTR) {
    }
    const int status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -WTERMSIG(wstatus);
    return {status, drain(out), drain(err), usage.ru_maxrss};
}

temp_dir::temp_dir()
    : path((std::filesystem::temp_directory_path() / "sorvexa-test-XXXXXX").string()) {
    if (!mkdtemp(path.data())) throw std::runtime_error("mkdtemp failed for " + path);
}

temp_dir::~temp_dir() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

}  // namespace fixture
