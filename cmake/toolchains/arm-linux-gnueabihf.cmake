# 32-bit ARMv7 with hardware floating point (Debian armhf). See debian-cross.cmake.
set(UPNP_TARGET_TRIPLE arm-linux-gnueabihf)
set(UPNP_TARGET_PROCESSOR armv7)
set(UPNP_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
