#include "server_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <thread>

#include "run_tool.h"

namespace fixture {

namespace {

int decode(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return -WTERMSIG(status);
    return -999;
}

}  // namespace

server_process::server_process(const std::string& binary, const std::vector<std::string>& args,
                               const std::string& scratch_dir, double seconds)
    : out_path(scratch_dir + "/server.out"), err_path(scratch_dir + "/server.err") {
    std::vector<std::string> argv_store{binary};
    argv_store.insert(argv_store.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argv_store) argv.push_back(a.data());
    argv.push_back(nullptr);
    // Opened here, before the child runs: a server started in the same directory after
    // another must never be read with the earlier one's output (its address, say).
    const int out_fd = ::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err_fd = ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid = ::fork();
    if (pid == 0) {
        ::dup2(out_fd, 1);
        ::dup2(err_fd, 2);
        ::execv(binary.c_str(), argv.data());
        ::_exit(127);
    }
    ::close(out_fd);
    ::close(err_fd);
    const std::regex address(R"(http://[^/\s]+:([0-9]+)/)");
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        std::smatch m;
        const std::string text = out();
        if (std::regex_search(text, m, address)) {
            port = std::stoi(m[1].str());
            return;
        }
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) {  // ended before serving
            pid = -1;
            exit_status = decode(status);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

server_process::~server_process() {
    if (pid > 0) stop(SIGKILL, 10);
}

int server_process::stop(int sig, double seconds) {
    if (pid <= 0) return exit_status;
    ::kill(pid, sig);
    return wait(seconds);
}

int server_process::wait(double seconds) {
    if (pid <= 0) return exit_status;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            pid = -1;
            exit_status = decode(status);
            return exit_status;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    pid = -1;
    exit_status = -1000;
    return exit_status;
}

std::string server_process::out() const {
    return read_file(out_path);
}

std::string server_process::err() const {
    return read_file(err_path);
}

}  // namespace fixture
