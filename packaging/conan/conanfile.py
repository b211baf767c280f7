"""Conan recipe (Conan 2) of libtern-dbus-service: `conan create packaging/conan` in a checkout."""

import os

from conan import ConanFile
from conan.errors import ConanInvalidConfiguration
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, CMakeDeps, CMakeToolchain, cmake_layout
from conan.tools.files import copy
from conan.tools.gnu import PkgConfigDeps


class TernDBusService(ConanFile):
    name = "libtern-dbus-service"
    version = "0.1.0"
    description = "Frame and tools for service processes on the system D-Bus"
    license = "Proprietary"  # none has been chosen: all rights reserved
    topics = ("dbus", "systemd", "sd-bus", "embedded")
    package_type = "shared-library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"test_support": [True, False]}
    default_options = {"test_support": True}

    def layout(self):
        cmake_layout(self)

    def export_sources(self):
        root = os.path.join(self.recipe_folder, "..", "..")
        for pattern in ("CMakeLists.txt", "README.md", "CONTRIBUTING.md", "CHANGELOG.md"):
            copy(self, pattern, root, self.export_sources_folder)
        for folder in ("cmake", "dbus_client", "dbus_message", "diagnostics", "docs", "examples", "foundation", "include",
                       "packaging", "parser", "platform", "process_execution", "queued_processings", "scripts", "service",
                       "synchronizer", "tests/support", "threading", "timer", "typed", "utilities"):
            copy(self, "*", os.path.join(root, folder), os.path.join(self.export_sources_folder, folder))

    def validate(self):
        if self.settings.os != "Linux":
            raise ConanInvalidConfiguration("systemd is on Linux only")
        check_min_cppstd(self, 20)

    def requirements(self):
        self.requires("libsystemd/[>=252]", transitive_headers=True)
        # Loaded when an archive is first opened; its headers and its soname are needed at build time.
        self.requires("libzip/[>=1.7]", options={"shared": True})
        # The same when introspection data is first read.
        self.requires("expat/[>=2.4]", options={"shared": True})

    def build_requirements(self):
        self.tool_requires("cmake/[>=3.25]")
        self.tool_requires("pkgconf/[>=1.9]")

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["TERN_BUILD_TESTS"] = False
        toolchain.cache_variables["TERN_BUILD_EXAMPLES"] = False
        toolchain.cache_variables["TERN_BUILD_TOOLS"] = False
        toolchain.cache_variables["TERN_BUILD_TEST_SUPPORT"] = bool(self.options.test_support)
        toolchain.generate()
        CMakeDeps(self).generate()
        PkgConfigDeps(self).generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()

    def package_info(self):
        # The project's own CMake package is the one that is documented.
        self.cpp_info.set_property("cmake_find_mode", "none")
        self.cpp_info.builddirs = [os.path.join("lib", "cmake", "TernDBusService")]
        self.cpp_info.libs = ["tern-diagnostics", "tern-dbus-typed", "tern-dbus-service", "tern-foundation",
                              "tern-basic-log"]
