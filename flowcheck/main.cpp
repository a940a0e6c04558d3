#include "flowcheck_main.h"
#include "std_output.h"

int main(int argc, char** argv) {
    return sorvexa::main_checking_stdout(flowcheck_main, argc, argv, "sorvexa-flowcheck");
}
