#include "demo/Demo.h"

int main(int argc, char** argv) {
    return ky_demo::Main(argc, argv);
}
