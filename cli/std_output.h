// Standard output checked at the end of a program, as careful command-line tools do: a help
// text or a summary that could not be written (a full disk, a closed pipe's I/O error, a
// failing close of a file on a network file system) must not end with status 0.
#pragma once

#include <string_view>

namespace sorvexa {

// Runs `program` as a whole main(), then flushes standard output and closes file
// descriptor 1, checking both and every write before them. When `program` returned 0 and
// something failed, prints one line, "[NAME: ]can not write standard output: REASON", on
// standard error and returns 1; a non-zero status is returned as it is, without a second
// message. A program that ends through exit() (a fatal input error) is not checked.
//
// For main() only: in-process callers (tests, fuzz targets) need descriptor 1 kept open.
int main_checking_stdout(int (*program)(int, char**), int argc, char** argv,
                         std::string_view name = {});

}  // namespace sorvexa
