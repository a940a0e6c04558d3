#include "sff2bam_main.h"
#include "std_output.h"

int main(int argc, char** argv) {
    return sorvexa::main_checking_stdout(sff2bam_main, argc, argv, "sorvexa-sff2bam");
}
