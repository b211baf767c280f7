# Toolchain: g++ for 64-bit RISC-V (g++-riscv64-linux-gnu), with the sysroot that scripts/make-sysroot makes; the programs run
# under qemu-riscv64. Not clang++ as elsewhere: lld does not relax RISC-V code before version 15, which other objects rely on.
set(TERN_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-riscv64 CACHE PATH "Headers and libraries for riscv64")
set(TERN_TRIPLE riscv64-linux-gnu)
set(TERN_MULTIARCH riscv64-linux-gnu)
set(TERN_CROSS_GCC ON CACHE BOOL "Compile with g++ instead of clang++")
set(CMAKE_SYSTEM_PROCESSOR riscv64)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-riscv64;-L;${TERN_SYSROOT})
