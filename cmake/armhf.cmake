# Toolchain for 32-bit ARM with Debian's cross compiler, against the libraries that tools/sysroot.sh unpacks, with
# qemu's user emulation to run what was built:
#   tools/sysroot.sh armhf build-arm/sysroot
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(ARVOK_SYSROOT ${CMAKE_BINARY_DIR}/sysroot CACHE PATH "unpacked libraries of the device's architecture")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ARVOK_SYSROOT)
set(CMAKE_SYSROOT ${ARVOK_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The compiler's remarks on how its version 7 changed the passing of some arguments.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;${ARVOK_SYSROOT})
