# Flags of this project's own targets; nothing here reaches a consumer.
function(tern_own_target target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2
    $<$<BOOL:${TERN_WARNINGS_AS_ERRORS}>:-Werror>
    $<$<BOOL:${TERN_COVERAGE}>:--coverage -fprofile-update=atomic>)
  # 64-bit time and file offsets on 32-bit platforms too.
  target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
  target_link_options(${target} PRIVATE $<$<BOOL:${TERN_COVERAGE}>:--coverage>)
  if(TERN_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${TERN_SANITIZE} -fno-sanitize-recover=all
      -fno-omit-frame-pointer
      # g++ itself says that its flow warnings are wrong more often than right in instrumented code.
      $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    target_link_options(${target} PRIVATE -fsanitize=${TERN_SANITIZE})
  endif()
endfunction()

# Relative relocations in the packed form, a bit instead of 24 bytes each, where linker and C library (2.36) know it. A linker
# that does not only warns.
set(CMAKE_REQUIRED_LINK_OPTIONS LINKER:-z,pack-relative-relocs)
check_cxx_source_compiles("#include <features.h>
  #if !__GLIBC_PREREQ(2, 36)
  #error too old
  #endif
  int main() {}" TERN_PACKS_RELOCATIONS FAIL_REGEX "unknown -z|ignored")
unset(CMAKE_REQUIRED_LINK_OPTIONS)

# As above, for a shared library: complete, and exporting nothing but our own names.
set(TERN_EXPORTS ${CMAKE_CURRENT_LIST_DIR}/tern-exports.map)
function(tern_own_library target)
  tern_own_target(${target})
  if(TERN_PACKS_RELOCATIONS)
    target_link_options(${target} PRIVATE LINKER:-z,pack-relative-relocs)
  endif()
  if(TERN_COVERAGE)
    # Its entry is found by name, so that nothing is hidden in this build.
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/coverage_dump.cpp)
    target_link_libraries(${target} PRIVATE ${CMAKE_DL_LIBS})
  elseif(NOT TERN_SANITIZE)
    target_link_options(${target} PRIVATE -Wl,--no-undefined -Wl,--version-script=${TERN_EXPORTS})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${TERN_EXPORTS})
  endif()
endfunction()
