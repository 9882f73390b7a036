// kelpth: one run performs one command.
#include "kelpth/functbl.h"

int main(int argc, char **argv) {
    return KelPthMain(argc, argv);
}
