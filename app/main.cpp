#include "app/startup.h"

int main(int argc, char** argv) {
    return afd_main(argc, argv);
}
