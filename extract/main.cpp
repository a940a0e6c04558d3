#include "driver.h"
#include "std_output.h"

int main(int argc, char** argv) {
    return sorvexa::main_checking_stdout(sorvexa_main, argc, argv);
}
