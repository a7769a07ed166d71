#include "service/Tfersvc.h"

int main(int argc, char** argv) {
    return TfersvcMain(argc, argv);
}
