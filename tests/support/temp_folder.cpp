#include "temp_folder.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace tern::test {

namespace {

/// Absolute, whatever TMPDIR is: those who are given a path in it may have another working folder.
std::filesystem::path TemporaryPlace() {
    std::error_code error;
    const std::filesystem::path place = std::filesystem::temp_directory_path(error);
    if (error) {
        const char* const named =
            getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): nobody sets it meanwhile
        throw std::system_error(error,
                                std::string("TMPDIR is ").append(named != nullptr ? named : "not set"));
    }
    return std::filesystem::absolute(place);
}

}  // namespace

TempFolder::TempFolder() : mPath((TemporaryPlace() / "tern-test-XXXXXX").string()) {
    if (mkdtemp(mPath.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "temporary folder " + mPath);
    }
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

}  // namespace tern::test
