// Extracts arbitrary bytes as a zip archive, without and with the password "secret", and checks that nothing
// is changed outside the target folder, that no descriptor is left open, and that the status is one of those
// promised.

#include <fcntl.h>
#include <tern/utilities/zipper.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace {

using mwl::StatusCode;
using mwl::Utilities::Zipper;
namespace fs = std::filesystem;

/// A folder for one input. The target is two levels down, and every level holds known entries only. libFuzzer
/// ends without running static destructors, so it is created and removed every time.
class Workspace {
public:
    Workspace() {
        std::string name = (fs::temp_directory_path() / "archive_fuzzer-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            abort();
        }
        mRoot = name;
        fs::create_directory(Box());
    }
    ~Workspace() {
        std::error_code ignored;
        fs::remove_all(mRoot, ignored);
    }
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    const fs::path& Root() const { return mRoot; }
    fs::path Box() const { return mRoot / "box"; }
    fs::path Archive() const { return mRoot / "archive.zip"; }
    fs::path Target() const { return Box() / "target"; }

private:
    fs::path mRoot;
};

std::size_t CountEntries(const fs::path& folder) {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

void Require(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "violated: %s\n", what);
        abort();
    }
}

bool IsPromised(StatusCode status) {
    switch (status) {
        case StatusCode::Ok:
        case StatusCode::Failure:
        case StatusCode::AccessDenied:
        case StatusCode::InvalidArgument:
        case StatusCode::IoError:
        case StatusCode::KeyNotFound:
        case StatusCode::NotFound:
        case StatusCode::OutOfMemory:
        case StatusCode::NotSupported:
        case StatusCode::NotPermitted:
            return true;
        default:
            return false;
    }
}

void Extract(const Workspace& workspace, const char* password) {
    fs::create_directories(workspace.Target() / "d");  // so that names with a folder part get somewhere
    const std::size_t descriptors = CountEntries("/proc/self/fd");
    const StatusCode status = Zipper::Unzip(workspace.Archive(), workspace.Target(), password);
    Require(IsPromised(status), "the status is one of those promised");
    Require(CountEntries("/proc/self/fd") == descriptors, "no descriptor is left open");
    Require(CountEntries(workspace.Root()) == 2 && CountEntries(workspace.Box()) == 1,
            "nothing is written outside the target folder");
    fs::remove_all(workspace.Target());
}

}  // namespace

// A claimed size that the machine cannot give is an answer, as without a sanitizer; and no unit takes more.
extern "C" const char* __asan_default_options();  // NOLINT
const char* __asan_default_options() {            // NOLINT
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Nothing: one run makes millions of messages.
    setenv("TERN_LOG_LEVEL", "1", 1);  // NOLINT(concurrency-mt-unsafe): before any thread
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Workspace workspace;
    std::ofstream(workspace.Archive(), std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    Extract(workspace, "");
    Extract(workspace, "secret");
    return 0;
}
