#pragma once

// What the tests of copying trees share: two folders, and system calls that fail. Include it in the one
// source of a test program.

#include <dirent.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <algorithm>

#include "files.h"
#include "name_lookups.h"
#include "private_mounts.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"

TERN_INTERPOSE(int, syncfs, (int file), (file))
TERN_INTERPOSE(int, closedir, (DIR * stream), (stream))
TERN_INTERPOSE(struct dirent*, readdir64, (DIR * stream), (stream))
TERN_INTERPOSE(ssize_t, sendfile64, (int to, int from, off_t* offset, size_t count),
               (to, from, offset, count))
TERN_INTERPOSE(int, fchmod, (int file, mode_t mode), (file, mode))
TERN_INTERPOSE(int, fchown, (int file, uid_t user, gid_t group), (file, user, group))

namespace tern::test::copies {

using mwl::StatusCode;
using mwl::Utilities::FileSystem;
using tern::test::ChildResult;
using tern::test::ContentOf;
using tern::test::Error;
using tern::test::Exists;
using tern::test::FaultScope;
using tern::test::FolderOn;
using tern::test::Info;
using tern::test::Inspect;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::MakeFile;
using tern::test::ModeOf;
using tern::test::RunInChild;
using tern::test::SetLogThreshold;
using tern::test::Trace;
using tern::test::Warning;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

inline const std::string LOGGER = "mwl::Utilities::FileSystem";
inline const std::string NO_ENTRY = "No such file or directory";

/// Names in the order in which a walk meets them.
inline std::vector<std::string> NamesInOrder(const std::string& folder) {
    std::vector<std::string> names;
    DIR* stream = opendir(folder.c_str());
    while (const dirent* entry = readdir(stream)) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(stream);
    return names;
}

/// On the file system of the parameter; every user and group name is this process's own unless a test says
/// otherwise.
class FileSystemCopy : public testing::TestWithParam<const char*> {
protected:
    FileSystemCopy() {
        EXPECT_EQ(mkdir((folder / "from").c_str(), 0755), 0);
        EXPECT_EQ(mkdir((folder / "to").c_str(), 0755), 0);
        lookups.KnowEveryName();
    }

    StatusCode CopyAll() { return FileSystem::CopyFolderContent(from, to, true, true); }
    LogEntry Copied(const std::string& name, const std::string& status = "Ok") {
        return Info(LOGGER,
                    "CopyFolderContent: Copy " + from + name + " to " + to + name + ", status = " + status);
    }

    FolderOn folder{GetParam()};
    tern::test::NameLookups lookups;
    const std::string from = folder / "from/";
    const std::string to = folder / "to/";
    const FaultScope<int(DIR*)> closedirScope{fault_closedir};
    const FaultScope<ssize_t(int, int, off_t*, size_t)> sendfileScope{fault_sendfile64};
    const FaultScope<int(int, mode_t)> chmodScope{fault_fchmod};
    const FaultScope<int(int, uid_t, gid_t)> chownScope{fault_fchown};
};

/// The file systems that every system has: the one for temporary files and one in memory.
INSTANTIATE_TEST_SUITE_P(OnDiskAndInMemory, FileSystemCopy, testing::Values("/tmp", "/dev/shm"));

}  // namespace tern::test::copies
