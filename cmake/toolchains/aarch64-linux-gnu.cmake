# 64-bit ARM (Debian arm64). See debian-cross.cmake.
set(UPNP_TARGET_TRIPLE aarch64-linux-gnu)
set(UPNP_TARGET_PROCESSOR aarch64)
set(UPNP_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
