// The sorvexa-flowcheck program, callable in process (its main() adds the standard-output
// check).
#pragma once

extern const char* const flowcheck_version;

// The whole program; returns the exit status (fatal input errors end the process instead).
int flowcheck_main(int argc, char** argv);
