#include "temp_folder.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace tern::test {

TempFolder::TempFolder() : mPath((std::filesystem::temp_directory_path() / "tern-test-XXXXXX").string()) {
    if (mkdtemp(mPath.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

}  // namespace tern::test
