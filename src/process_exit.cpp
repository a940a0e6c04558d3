#include "process_exit.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace sorvexa {

exit_function process_exit = [](int status) { std::exit(status); };

void fatal_exit(int status) {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    process_exit(status);
    std::abort();  // an exit hook that returns is a harness bug
}

}  // namespace sorvexa
