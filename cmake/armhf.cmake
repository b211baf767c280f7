# Toolchain: clang++ for 32-bit ARM, with the sysroot that scripts/make-sysroot makes; the programs run under qemu-arm.
set(TERN_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf CACHE PATH "Headers and libraries for armhf")
set(TERN_TRIPLE arm-linux-gnueabihf)
set(TERN_MULTIARCH arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;${TERN_SYSROOT})
