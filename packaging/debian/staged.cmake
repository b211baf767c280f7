# Run by cpack on the staged files: Debian wants manual pages and changelogs compressed, and cpack strips no archives.
file(GLOB_RECURSE files ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-8]
  ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog*)
list(FILTER files EXCLUDE REGEX "\\.gz$")
if(files)
  execute_process(COMMAND gzip -9n ${files} COMMAND_ERROR_IS_FATAL ANY)
endif()
file(GLOB_RECURSE archives ${CPACK_TEMPORARY_DIRECTORY}/*.a)
if(archives)
  execute_process(COMMAND strip --strip-debug --enable-deterministic-archives ${archives} COMMAND_ERROR_IS_FATAL ANY)
endif()
