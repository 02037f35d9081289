// The USB tests run with umockdev's preload library, so that libusb reaches
// the virtual board's USB bus; main re-executes the binary with it first.
#include <gtest/gtest.h>

#include "sim/usb/usb.h"

int main(int argc, char **argv)
{
    if (!vexa::sim::preload_usb())
        return 1;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
