#pragma once

#include <string>

namespace tern::test {

/// A folder of its own under the system's place for temporary files (TMPDIR, else /tmp), removed with all its
/// content at the end. Throws std::system_error when it cannot be made.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    /// Absolute, without a slash at its end.
    const std::string& Path() const { return mPath; }
    /// The path of an entry in the folder.
    std::string operator/(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

}  // namespace tern::test
