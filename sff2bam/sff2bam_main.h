// The sorvexa-sff2bam program, callable in process (its main() adds the standard-output
// check).
#pragma once

extern const char* const sff2bam_version;

// The whole program; returns the exit status: 0 done, 1 bad input or a failed write, 2 a bad
// command line.
int sff2bam_main(int argc, char** argv);
