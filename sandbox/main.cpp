#include "Sandbox.h"

int main(int argc, char** argv) {
    return sandbox::Main(argc, argv);
}
