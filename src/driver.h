// The command-line run: options, the SFF read indexes, the contig loop and both output files.
#pragma once

#include <string>

extern const std::string PRG;
extern const std::string VERSION;

// The whole program; returns the exit status (fatal input errors end the process instead).
int sorvexa_main(int argc, char** argv);
