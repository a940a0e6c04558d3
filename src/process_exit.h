// Ending the process on a fatal input error.
#pragma once

namespace sorvexa {

// Ends the process with `status`. Tests and fuzz targets may point this at their own
// function (for example one that jumps back into the harness); it must not return.
using exit_function = void (*)(int status);
extern exit_function process_exit;

// Flushes standard output and error (and every C stream, so output files keep every byte
// written so far), then calls process_exit.
[[noreturn]] void fatal_exit(int status);

}  // namespace sorvexa
