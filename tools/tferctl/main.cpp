#include "tferctl/Tferctl.h"

int main(int argc, char** argv) {
    return TferctlMain(argc, argv);
}
