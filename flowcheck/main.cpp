#include "flowcheck_main.h"

int main(int argc, char** argv) {
    return flowcheck_main(argc, argv);
}
