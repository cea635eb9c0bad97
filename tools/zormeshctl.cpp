// zormeshctl: the management-side client of the mesh daemon's command socket.
#include "ctl.h"

#include <iostream>

int main(int argc, char** argv) {
    return ctl::run(argc, argv, std::cout, std::cerr);
}
