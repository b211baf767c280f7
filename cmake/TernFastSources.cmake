# Where the build optimises at all, fast is what runs for every message, value, job, lock and wake-up; the rest, which runs
# rarely or waits for the kernel, is small. Each folder names its fast sources next to all of its sources.

# tern_fast_sources(TARGET FILE...): these sources of the calling folder are to be fast. Each has to be a source of the
# target already: a name that matches nothing, for example after a file was renamed, would make a file slow and nobody
# would notice.
function(tern_fast_sources target)
  get_target_property(sources ${target} SOURCES)
  foreach(file IN LISTS ARGN)
    set(path ${CMAKE_CURRENT_SOURCE_DIR}/${file})
    if(NOT path IN_LIST sources)
      message(FATAL_ERROR "tern_fast_sources: ${file} is not among the sources that ${CMAKE_CURRENT_SOURCE_DIR} has for ${target}")
    endif()
    set_property(TARGET ${target} APPEND PROPERTY TERN_FAST_SOURCES ${path})
  endforeach()
endfunction()

# tern_small_sources(TARGET): all other sources of the target are to be small. Called once every folder has had its turn.
function(tern_small_sources target)
  get_target_property(sources ${target} SOURCES)
  get_target_property(fast ${target} TERN_FAST_SOURCES)
  list(FILTER sources INCLUDE REGEX "\\.cpp$")
  if(fast)
    list(REMOVE_ITEM sources ${fast})
  endif()
  set_property(SOURCE ${sources} TARGET_DIRECTORY ${target}
    PROPERTY COMPILE_OPTIONS $<$<NOT:$<CONFIG:Debug>>:-Os>)
endfunction()
