// The command-line run: options, the SFF read indexes, the contig loop and both output files.
#pragma once

#include <string>

extern const std::string PRG;
extern const std::string VERSION;

// The whole program; returns the exit status. Every message, a fatal input error's included,
// is printed before it returns.
int sorvexa_main(int argc, char** argv);
