# SPDX-License-Identifier: Apache-2.0
# Debian's compilers for armhf (crossbuild-essential-armhf); what is built runs here by qemu-user-static.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CORVANE_KERNEL_ARCH arm)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # how GCC 7 changed the passing of arguments is of no concern
