# Toolchain: clang++ for 32-bit x86, with the sysroot that scripts/make-sysroot makes. The programs name the sysroot's
# own loader and libraries, so that they run as they are.
set(TERN_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-i386 CACHE PATH "Headers and libraries for i386")
set(TERN_TRIPLE i686-linux-gnu)
set(TERN_MULTIARCH i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,--dynamic-linker=${TERN_SYSROOT}/lib/ld-linux.so.2")
foreach(kind EXE SHARED)
  # The old kind of path, by which the libraries' own libraries are found as well.
  string(APPEND CMAKE_${kind}_LINKER_FLAGS_INIT
    " -Wl,--disable-new-dtags,-rpath,${TERN_SYSROOT}/usr/lib/${TERN_MULTIARCH}")
endforeach()
