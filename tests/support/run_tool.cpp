#include "run_tool.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace fixture {

namespace {

std::string temp_template(const char* stem) {
    const char* base = std::getenv("TMPDIR");
    return std::string(base && *base ? base : "/tmp") + stem;
}

// An anonymous file: unlinked at once, so it goes away with its descriptor.
int scratch_file() {
    std::string templ = temp_template("/sorvexa-out-XXXXXX");
    int fd = mkstemp(templ.data());
    if (fd < 0) throw std::runtime_error("mkstemp failed for " + templ);
    unlink(templ.c_str());
    return fd;
}

std::string drain(int fd) {
    std::string text;
    char buf[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) != 0;) {
        if (n < 0 && errno != EINTR) break;
        if (n > 0) text.append(buf, static_cast<std::size_t>(n));
    }
    close(fd);
    return text;
}

}  // namespace

run_result run_binary(const std::string& binary, const std::vector<std::string>& args,
                      const std::string& cwd) {
    // Everything the child needs is built before fork: between fork and exec only
    // async-signal-safe calls are allowed.
    std::vector<std::string> storage{binary};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : storage) argv.push_back(s.data());
    argv.push_back(nullptr);

    const int out_fd = scratch_file();
    const int err_fd = scratch_file();
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        if (chdir(cwd.c_str()) != 0 || dup2(out_fd, 1) < 0 || dup2(err_fd, 2) < 0) _exit(126);
        execv(binary.c_str(), argv.data());
        _exit(127);
    }
    int wstatus = 0;
    while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    run_result r;
    r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -WTERMSIG(wstatus);
    r.out = drain(out_fd);
    r.err = drain(err_fd);
    return r;
}

temp_dir::temp_dir() : path_(temp_template("/sorvexa-test-XXXXXX")) {
    if (!mkdtemp(path_.data())) throw std::runtime_error("mkdtemp failed for " + path_);
}

temp_dir::~temp_dir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string temp_dir::operator/(std::string_view name) const {
    return path_ + "/" + std::string(name);
}

void write_text(const std::string& path, std::string_view text) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!f) throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

bool file_exists(const std::string& path) {
    std::error_code ec;
    return std::filesystem::exists(path, ec);
}

}  // namespace fixture
