// zormeshd: the mesh daemon as it runs on the access point.
#include "core/mesh_main.h"
#include "platform/linux_os.h"

int main(int argc, char** argv) {
    static LinuxOs linuxOs;
    setOs(&linuxOs);
    return mesh_main(argc, argv);
}
