// Preloaded into a child process (LD_PRELOAD) to make close() fail as some file systems
// report a failed write back only there: closing a file whose path ends with the value of
// SORVEXA_CLOSE_FAILS closes it, then returns -1 with errno EIO.
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" int close(int fd) {
    using close_fn = int (*)(int);
    static const close_fn real = reinterpret_cast<close_fn>(dlsym(RTLD_NEXT, "close"));
    const char* suffix = std::getenv("SORVEXA_CLOSE_FAILS");
    bool fail = false;
    if (suffix != nullptr && *suffix != '\0') {
        char link[64], path[4096];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        const ssize_t n = readlink(link, path, sizeof path - 1);
        const std::size_t want = std::strlen(suffix);
        if (n >= 0 && static_cast<std::size_t>(n) >= want)
            fail = std::memcmp(path + n - static_cast<ssize_t>(want), suffix, want) == 0;
    }
    const int result = real(fd);
    if (!fail) return result;
    errno = EIO;
    return -1;
}
