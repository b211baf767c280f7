# The device maker's own platform libraries in place of the bundled ones, found by pkg-config. Part of the installed package
# too, which a project may look for several times: the names are there for all of its folders then.
pkg_check_modules(TERN_FOUNDATION REQUIRED IMPORTED_TARGET GLOBAL libtern-foundation)
pkg_check_modules(TERN_BASIC_LOG REQUIRED IMPORTED_TARGET GLOBAL libtern-basic-log)
if(NOT TARGET tern::foundation)
  add_library(tern::foundation ALIAS PkgConfig::TERN_FOUNDATION)
endif()
if(NOT TARGET tern::basic-log)
  add_library(tern::basic-log ALIAS PkgConfig::TERN_BASIC_LOG)
endif()
