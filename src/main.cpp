#include "driver.h"

int main(int argc, char** argv) {
    return sorvexa_main(argc, argv);
}
