# Toolchain: clang++ for 64-bit ARM, with the sysroot that scripts/make-sysroot makes; the programs run under qemu-aarch64.
set(TERN_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-arm64 CACHE PATH "Headers and libraries for arm64")
set(TERN_TRIPLE aarch64-linux-gnu)
set(TERN_MULTIARCH aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;${TERN_SYSROOT})
