// A program on the desk that uses the board's USB through the library, as a
// service does: started with umockdev's preload library and VEXA_BOARD
// naming the board, its first library call is bi_usb_open. It prints what
// came back, a line each:
//   usb_program read            "open RC", then "read TEXT" (what the device held)
//   usb_program write TEXT      "open RC", then "wrote N"
#include <cstdio>
#include <cstring>
#include <string>

#include "vexasdk/system.h"

int main(int argc, char **argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (!(mode == "read" && argc == 2) && !(mode == "write" && argc == 3)) {
        std::fprintf(stderr, "usage: usb_program read | write TEXT\n");
        return 2;
    }
    const int32_t rc = bi_usb_open(0x1209, 0x0001, 0xff, 0, 2, nullptr);
    std::printf("open %d\n", static_cast<int>(rc));
    if (rc != 0)
        return 0;
    if (mode == "read") {
        uint8_t buf[256];
        const int32_t n = bi_usb_blocking_read(buf, sizeof buf, 1000);
        std::printf("read %s\n", n < 0 ? "(failed)" : std::string(reinterpret_cast<char *>(buf), n).c_str());
    } else {
        const int32_t n = bi_usb_blocking_write(reinterpret_cast<const uint8_t *>(argv[2]),
                                                static_cast<int32_t>(std::strlen(argv[2])), 1000);
        std::printf("wrote %d\n", static_cast<int>(n));
    }
    bi_usb_close();
    return 0;
}
