#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "support/temp_folder.h"

namespace tern::test {

inline void MakeFile(const std::string& path, const std::string& content = "") {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string ContentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

inline struct stat Inspect(const std::string& path) {
    struct stat information {};
    EXPECT_EQ(stat(path.c_str(), &information), 0) << path << ": " << strerror(errno);
    return information;
}

inline mode_t ModeOf(const std::string& path) {
    return Inspect(path).st_mode & 07777;
}

/// Whether there is an entry, a dangling link included.
inline bool Exists(const std::string& path) {
    struct stat information {};
    return lstat(path.c_str(), &information) == 0;
}

/// Makes that many folders of that name below `path`, one in the other, each with a file; the deepest may be
/// deeper than any path can tell.
inline void MakeDeepTree(const std::string& path, int depth, const std::string& name) {
    int folder = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < depth; ++level) {
        ASSERT_EQ(mkdirat(folder, name.c_str(), 0755), 0) << level << ": " << strerror(errno);
        const int below = openat(folder, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(below, 0);
        close(folder);
        folder = below;
        close(openat(folder, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    }
    close(folder);
}

/// In a child: no more than that many descriptors from here on.
inline bool LimitDescriptors(rlim_t limit) {
    const rlimit resource{limit, limit};
    return setrlimit(RLIMIT_NOFILE, &resource) == 0;
}

/// A temporary folder on the file system of `place`.
class FolderOn {
public:
    explicit FolderOn(const std::string& place) {
        const char* former = getenv("TMPDIR");
        const std::optional<std::string> kept =
            former == nullptr ? std::nullopt : std::optional<std::string>(former);
        setenv("TMPDIR", place.c_str(), 1);
        mFolder.emplace();
        if (kept) {
            setenv("TMPDIR", kept->c_str(), 1);
        } else {
            unsetenv("TMPDIR");
        }
    }

    const std::string& Path() const { return mFolder->Path(); }
    std::string operator/(const std::string& name) const { return *mFolder / name; }

private:
    std::optional<TempFolder> mFolder;
};

}  // namespace tern::test
