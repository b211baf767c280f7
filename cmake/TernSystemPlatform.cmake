# The device maker's own platform libraries in place of the bundled ones, found by pkg-config.
pkg_check_modules(TERN_FOUNDATION REQUIRED IMPORTED_TARGET GLOBAL libtern-foundation)
pkg_check_modules(TERN_BASIC_LOG REQUIRED IMPORTED_TARGET GLOBAL libtern-basic-log)
add_library(tern::foundation ALIAS PkgConfig::TERN_FOUNDATION)
add_library(tern::basic-log ALIAS PkgConfig::TERN_BASIC_LOG)
