# Shared part of the ARM toolchain files; they set UPNP_TARGET_TRIPLE and
# UPNP_TARGET_PROCESSOR, and UPNP_QEMU, then include this file.
#
# Compiler: Debian's cross compiler for the triple (crossbuild-essential-<arch>),
# with its own C library. Qt: Debian's packages for the target architecture
# (qtbase5-dev:<arch> and the libraries it needs), unpacked into a target root
# UPNP_TARGET_ROOT rather than installed beside the host's, so that the host's
# package versions never have to match the target's. scripts/cross-test.sh
# makes that root.
#
# Test executables run through qemu-user with the target root as its library
# prefix, so ctest in the build tree runs the suite emulated.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${UPNP_TARGET_PROCESSOR})
set(CMAKE_C_COMPILER ${UPNP_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${UPNP_TARGET_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${UPNP_TARGET_TRIPLE})

if(NOT UPNP_TARGET_ROOT)
    set(UPNP_TARGET_ROOT "$ENV{UPNP_TARGET_ROOT}")
endif()
if(NOT UPNP_TARGET_ROOT)
    message(FATAL_ERROR "UPNP_TARGET_ROOT: the folder with the target's unpacked Qt packages")
endif()
# CMake's own compiler checks run this file again; they need the root too.
set(ENV{UPNP_TARGET_ROOT} "${UPNP_TARGET_ROOT}")

set(CMAKE_FIND_ROOT_PATH "${UPNP_TARGET_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Qt's libraries need others of the root (ICU, PCRE2, GLib...) at link time.
set(_rpath_link "-Wl,-rpath-link,${UPNP_TARGET_ROOT}/lib/${UPNP_TARGET_TRIPLE}:${UPNP_TARGET_ROOT}/usr/lib/${UPNP_TARGET_TRIPLE}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_rpath_link}")

set(CMAKE_CROSSCOMPILING_EMULATOR ${UPNP_QEMU} -L ${UPNP_TARGET_ROOT})
