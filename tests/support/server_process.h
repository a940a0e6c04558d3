// A server started as a child process for end-to-end tests: its standard output is watched
// for the address it prints, and it is stopped with a signal.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace fixture {

struct server_process {
    pid_t pid = -1;
    int port = 0;
    int exit_status = -1000;  // once the child has ended
    std::string out_path, err_path;

    // Starts `binary` with `args`; waits up to `seconds` for a line holding
    // "http://HOST:PORT/". port stays 0 when none came (the child may have ended).
    server_process(const std::string& binary, const std::vector<std::string>& args,
                   const std::string& scratch_dir, double seconds = 30);
    ~server_process();
    server_process(const server_process&) = delete;

    // Sends `sig` and waits up to `seconds` for the child to end; its exit status, or minus
    // the signal that killed it, or -1000 when it did not end in time (it is then killed).
    int stop(int sig, double seconds = 30);
    // Waits for a child that ends by itself.
    int wait(double seconds = 30);
    std::string out() const;
    std::string err() const;
};

}  // namespace fixture
