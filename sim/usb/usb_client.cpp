// The board's USB as a process that attaches the board reaches it: the
// preload library that lets its libusb see the bus, the bus's testbed and
// the device's state through the host's "usb" service, and libusb's start,
// which points the preload library at the bus of the attached board.
#include <dlfcn.h>
#include <libusb.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "sim/usb/usb.h"
#include "sim/usb/usb_settings.h"

namespace vexa::sim {
namespace {

const char kPreload[] = "libumockdev-preload.so.0";
const char kPreloadTried[] = "VEXA_USB_PRELOAD_TRIED";

std::vector<char *> own_arguments(std::vector<std::string> *words)
{
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::string word;
    while (std::getline(in, word, '\0'))
        words->push_back(word);
    std::vector<char *> argv;
    for (auto &w : *words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    return argv;
}

// Before libusb looks at the machine: the preload library is pointed at the
// attached board's bus (the testbed's root in UMOCKDEV_DIR, which it reads
// on every call). Without the library, libusb sees the machine's own USB,
// and the program is told once how to reach the board's.
void point_libusb_at_board()
{
    if (!usb_preloaded()) {
        static std::once_flag told;
        std::call_once(told, [] {
            std::fprintf(stderr, "vexaboard: libusb in this process sees this machine's USB, not the virtual "
                                 "board's; start the program with LD_PRELOAD=%s to reach the board's bus\n",
                         kPreload);
        });
        return;
    }
    try {
        const std::string testbed = usb_testbed(Board::current());
        if (!testbed.empty())
            ::setenv("UMOCKDEV_DIR", testbed.c_str(), 1);
    } catch (const std::exception &) {
        // No board can be attached: libusb goes on as it would.
    }
}

} // namespace

bool usb_preloaded()
{
    void *preload = ::dlopen(kPreload, RTLD_LAZY | RTLD_NOLOAD);
    if (preload == nullptr)
        return false;
    ::dlclose(preload);
    return true;
}

bool preload_usb()
{
    if (usb_preloaded())
        return true;
    if (std::getenv(kPreloadTried) != nullptr) {
        std::fprintf(stderr, "the virtual board's USB needs umockdev's preload library (%s, Debian "
                             "package libumockdev0), which could not be loaded\n", kPreload);
        return false;
    }
    const char *old = std::getenv("LD_PRELOAD");
    const std::string preload = old && *old ? std::string(kPreload) + ":" + old : kPreload;
    ::setenv("LD_PRELOAD", preload.c_str(), 1);
    ::setenv(kPreloadTried, "1", 1);
    std::vector<std::string> words;
    std::vector<char *> argv = own_arguments(&words);
    std::fflush(nullptr);
    ::execv("/proc/self/exe", argv.data());
    std::perror("re-executing with umockdev's preload library");
    return false;
}

std::optional<UsbDeviceState> usb_device_state(const Board &board)
{
    const auto reply = board.call(kUsbService, "state");
    if (!reply || *reply == "none")
        return std::nullopt;
    return parse_usb_state(*reply);
}

std::string usb_testbed(const Board &board)
{
    const auto reply = board.call(kUsbService, "testbed");
    return reply && *reply != "none" ? *reply : std::string();
}

} // namespace vexa::sim

// libusb's start, as the library and any program call it: the board is
// attached (the default board when none is) and its bus made the one the
// preload library shows, then libusb itself starts. The board's library
// comes before libusb in a program's lookup order, so this is the
// libusb_init every caller reaches.
extern "C" int libusb_init(libusb_context **context)
{
    using Init = int (*)(libusb_context **);
    static const Init real = reinterpret_cast<Init>(::dlsym(RTLD_NEXT, "libusb_init"));
    vexa::sim::point_libusb_at_board();
    return real != nullptr ? real(context) : LIBUSB_ERROR_NOT_SUPPORTED;
}
