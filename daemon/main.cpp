#include "daemon/Zoqmed.h"

int main(int argc, char** argv) {
    return zoqmed_main(argc, argv);
}
