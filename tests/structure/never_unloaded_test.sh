#!/bin/bash
# A program that loads each of the libraries and closes it again, as with a plugin that is linked with it, still has it:
# threads and handlers of the library would run on without their code. Not by chance: g++ marks names so that the loader
# keeps a library, clang++ does not.
#   never_unloaded_test.sh CXX LIBRARY...
set -eu
cxx=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat >"$work/host.cpp" <<'END'
#include <dlfcn.h>

#include <cstdio>

int main(int, char* argv[]) {
    void* const library = dlopen(argv[1], RTLD_NOW);
    if (library == nullptr) {
        std::puts(dlerror());
        return 2;
    }
    dlclose(library);
    return dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) != nullptr ? 0 : 1;
}
END
"$cxx" "$work/host.cpp" -o "$work/host" -ldl
for library in "$@"; do
    readelf -dW "$library" | grep -q NODELETE || { echo "$library may be unloaded"; exit 1; }
    # Not with a sanitizer, whose own library would have to be loaded first.
    readelf -dW "$library" | grep -qE '[at]san' || "$work/host" "$library" || { echo "$library is unloaded"; exit 1; }
    echo "$(basename "$library") stays"
done
