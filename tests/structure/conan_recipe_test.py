#!/usr/bin/env python3
"""The sources that the Conan recipe exports are enough to configure the project as the recipe does, and the recipe names
each library that is then installed. Conan itself is not needed: stand-ins take the place of what the recipe imports.

  conan_recipe_test.py PROJECT_FOLDER CXX
"""
import importlib.util
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import types


class Anything:
    """Stands in for what the recipe only creates and asks to work."""

    def __init__(self, *_, **__):
        self.cache_variables = {}
        created.append(self)

    def __getattr__(self, _):
        return lambda *_, **__: None


created = []


def copy(_, pattern, source, destination):
    """As conan.tools.files.copy, for a file's name and for "*"."""
    if pattern == "*":
        shutil.copytree(source, destination, symlinks=True, dirs_exist_ok=True)
    else:
        shutil.copy(pathlib.Path(source) / pattern, destination)


def load(recipe):
    """The recipe's class, with stand-ins for Conan."""
    stand_ins = {
        "conan": {"ConanFile": object},
        "conan.errors": {"ConanInvalidConfiguration": Exception},
        "conan.tools": {},
        "conan.tools.build": {"check_min_cppstd": None},
        "conan.tools.cmake": dict.fromkeys(("CMake", "CMakeDeps", "CMakeToolchain"), Anything) | {"cmake_layout": None},
        "conan.tools.files": {"copy": copy},
        "conan.tools.gnu": {"PkgConfigDeps": Anything},
    }
    for name, content in stand_ins.items():
        module = types.ModuleType(name)
        vars(module).update(content)
        sys.modules[name] = module
    sys.dont_write_bytecode = True
    spec = importlib.util.spec_from_file_location("recipe", recipe)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module.TernDBusService


def main():
    project, compiler = pathlib.Path(sys.argv[1]), sys.argv[2]
    recipe = load(project / "packaging/conan/conanfile.py")()
    with tempfile.TemporaryDirectory() as work:
        sources, build = pathlib.Path(work) / "sources", pathlib.Path(work) / "build"
        sources.mkdir()
        recipe.recipe_folder = str(project / "packaging/conan")
        recipe.export_sources_folder = str(sources)
        recipe.export_sources()
        recipe.options = types.SimpleNamespace(**recipe.default_options)
        recipe.generate()
        variables = {name: value for each in created for name, value in each.cache_variables.items()}
        flags = [f"-D{name}={'ON' if value else 'OFF'}" for name, value in variables.items()]
        configured = subprocess.run(
            ["cmake", "-S", sources, "-B", build, f"-DCMAKE_CXX_COMPILER={compiler}", *flags],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if configured.returncode != 0:
            print(f"the exported sources cannot be configured:\n{configured.stdout}")
            return 1
        installed = re.findall(r"/lib(tern-[a-z-]+)\.so\"", (build / "cmake_install.cmake").read_text())
    recipe.cpp_info = Anything()
    recipe.package_info()
    named = recipe.cpp_info.libs
    if not installed or sorted(set(installed)) != sorted(named):
        print(f"installed are {sorted(set(installed))}, the recipe names {sorted(named)}")
        return 1
    print(f"configured with {' '.join(flags)}; {len(named)} libraries are named")
    return 0


sys.exit(main())
