#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <tern/parser/ini_parser.h>
#include <tern/utilities/device_name.h>
#include <tern/utilities/file_system.h>
#include <tern/utilities/folder_monitor.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_set>

#include "limits.h"
#include "plain_file.h"
#include "scenarios.h"
#include "support/wait_until.h"
#include "utilities/private_mounts.h"

namespace tern::test {

namespace {

using mwl::Utilities::DeviceName;
using mwl::Utilities::FileSystem;

/// Not to be reached by a log file that waits for a busy disk, as the watching thread writes to one.
constexpr std::chrono::seconds MOMENT{SLOWNESS > 1 ? 20 : 6};

bool Exists(const std::string& path) {
    return std::filesystem::exists(path);
}

/// A folder of two files and a sub-folder with one.
std::string MakeTree(const Stage& stage) {
    const std::string tree = stage / "tree";
    std::filesystem::create_directories(tree + "/sub");
    WritePlainFile(tree + "/one", "first");
    WritePlainFile(tree + "/two", "second");
    WritePlainFile(tree + "/sub/three", "third");
    return tree;
}

void RunCopyFile(Stage& stage) {
    WritePlainFile(stage / "from", "content");
    WritePlainFile(stage / "to", "former content");
    stage.Sweep([&] {
        if (stage.Accept(FileSystem::CopyFile(stage / "from", stage / "to"), "CopyFile")) {
            stage.Expect(ReadPlainFile(stage / "to") == "content", "the copy is whole");
        }
    });
}

void RunCopyFolder(Stage& stage) {
    const std::string tree = MakeTree(stage);
    const std::string copy = stage / "copy";
    std::filesystem::create_directory(copy);
    stage.Sweep([&] {
        if (stage.Accept(FileSystem::CopyFolderContent(tree + "/", copy + "/", true, true),
                         "CopyFolderContent")) {
            stage.Expect(ReadPlainFile(copy + "/one") == "first" &&
                             ReadPlainFile(copy + "/two") == "second" &&
                             ReadPlainFile(copy + "/sub/three") == "third",
                         "the copy is whole");
        }
    });
}

/// What reports everything, on a file and on a tree.
void RunWholeCopies(Stage& stage) {
    const std::string tree = MakeTree(stage);
    const std::string copy = stage / "copy";
    std::filesystem::create_directory(copy);
    stage.Sweep([&] {
        if (stage.Accept(FileSystem::WriteWholeContent(tree + "/one", "new"), "WriteWholeContent")) {
            stage.Expect(ReadPlainFile(tree + "/one") == "new", "the content is written");
        }
        if (stage.Accept(FileSystem::CopyWholeFile(tree + "/two", stage / "to"), "CopyWholeFile")) {
            stage.Expect(ReadPlainFile(stage / "to") == "second", "the copy is whole");
        }
        if (stage.Accept(FileSystem::CopyWholeFolderContent(tree + "/", copy + "/"),
                         "CopyWholeFolderContent")) {
            stage.Expect(ReadPlainFile(copy + "/one") == ReadPlainFile(tree + "/one") &&
                             ReadPlainFile(copy + "/two") == "second" &&
                             ReadPlainFile(copy + "/sub/three") == "third",
                         "the copy is whole");
        }
    });
}

void RunDeleteFolder(Stage& stage) {
    const std::string tree = MakeTree(stage);
    stage.Sweep([&] {
        if (stage.Accept(FileSystem::DeleteFolder(tree, false), "DeleteFolder")) {
            stage.Expect(!Exists(tree), "the folder is gone");
        }
    });
}

void RunDeleteContent(Stage& stage) {
    const std::string tree = MakeTree(stage);
    stage.Sweep([&] {
        if (stage.Accept(FileSystem::DeleteFolderContent(tree, true, true), "DeleteFolderContent")) {
            const Shortage::Aside aside;
            stage.Expect(std::filesystem::is_empty(tree), "the content is gone");
        }
    });
}

void RunUsage(Stage& stage) {
    const std::string tree = MakeTree(stage);
    stage.Sweep([&] {
        unsigned int one = 0;
        unsigned int all = 0;
        if (stage.Accept(FileSystem::GetDiskUsage(tree + "/one", one), "GetDiskUsage") &&
            stage.Accept(FileSystem::GetRecursiveDiskUsage(tree, all), "GetRecursiveDiskUsage")) {
            stage.Expect(all >= 3 * one && one > 0, "everything is counted");
        }
    });
}

void RunLists(Stage& stage) {
    const std::string tree = MakeTree(stage);
    stage.Sweep([&] {
        FileSystem files;
        std::set<std::string> names;
        if (stage.Accept(files.ListFiles(tree, names), "ListFiles")) {
            stage.Expect(names == std::set<std::string>{"one", "two"}, "every file is listed");
        }
        std::unordered_set<std::string> folders;
        if (stage.Accept(files.ListDirectories(tree, folders), "ListDirectories")) {
            stage.Expect(folders.size() == 1, "every folder is listed");
        }
        bool empty = true;
        if (stage.Accept(files.IsFolderEmpty(tree, empty), "IsFolderEmpty")) {
            stage.Expect(!empty, "the folder is not taken for empty");
        }
    });
}

void RunSingleFiles(Stage& stage) {
    stage.Sweep([&] {
        const std::string file = stage / "file";
        if (!stage.Accept(FileSystem::WriteContent(file, "content"), "WriteContent")) {
            return;
        }
        stage.Expect(ReadPlainFile(file) == "content", "the content is written");
        if (stage.Accept(FileSystem::Rename(file, stage / "moved"), "Rename")) {
            stage.Expect(Exists(stage / "moved"), "the file is renamed");
            stage.Accept(FileSystem::CheckFileExist(stage / "moved"), "CheckFileExist");
            stage.Accept(FileSystem::SetDefaultAccessRights(stage / "moved"), "SetDefaultAccessRights");
            if (stage.Accept(FileSystem::DeleteFile(stage / "moved"), "DeleteFile")) {
                stage.Expect(!Exists(stage / "moved"), "the file is gone");
            }
        }
        stage.Accept(FileSystem::CheckDirectoryExist(stage.Folder()), "CheckDirectoryExist");
    });
}

void RunLinks(Stage& stage) {
    stage.Sweep([&] {
        const std::string link = stage / "link";
        if (!stage.Accept(FileSystem::CreateSymbolicLink("target", link), "CreateSymbolicLink")) {
            return;
        }
        std::string target;
        if (stage.Accept(FileSystem::ReadLink(link, target), "ReadLink")) {
            stage.Expect(target == "target", "the target is told");
        }
        if (stage.Accept(FileSystem::DeleteSymbolicLink(link), "DeleteSymbolicLink")) {
            stage.Expect(!std::filesystem::is_symlink(link), "the link is gone");
        }
    });
}

void RunFolders(Stage& stage) {
    // NOLINTBEGIN(concurrency-mt-unsafe): the only thread
    const passwd* const user = getpwuid(getuid());
    const std::string owner = user == nullptr ? "root" : user->pw_name;
    const group* const users = getgrgid(getgid());
    const std::string group = users == nullptr ? "root" : users->gr_name;
    // NOLINTEND(concurrency-mt-unsafe)
    stage.Sweep([&] {
        const std::string folder = stage / "made";
        if (stage.Accept(FileSystem::CreateFolder(folder), "CreateFolder")) {
            stage.Expect(Exists(folder), "the folder is made");
            stage.Accept(FileSystem::ChangeOwnership(folder, owner, group), "ChangeOwnership");
            std::filesystem::remove(stage / "link");
            std::filesystem::create_directory_symlink(folder, stage / "link");
            stage.Accept(FileSystem::CreateFolder(stage / "link"), "CreateFolder");
            // Whether there is such a user is the machine's matter.
            static_cast<void>(FileSystem::SetMeadowOwner(folder));
        }
    });
}

void RunIniFile(Stage& stage) {
    const std::string file = stage / "file.ini";
    WritePlainFile(file, "[section]\none=1\ntwo=2\n");
    stage.Sweep([&] {
        std::map<std::string, std::string> values;
        if (stage.Accept(mwl::Parser::IniParser::Parse(file, values), "Parse")) {
            stage.Expect(values.size() == 2, "every value is read");
        }
    });
}

/// Gives this process a place for the host name's file and a host name of its own; false when the system does
/// not let it.
bool HasOwnHostname() {
    static const bool has = [] {
        const bool isPrivate = unshare(CLONE_NEWUTS) == 0 && EnterPrivateMounts() &&
                               mount("tmpfs", "/var/lib", "tmpfs", 0, nullptr) == 0;
        std::error_code failed;
        std::filesystem::create_directories("/var/lib/mwl/etc", failed);
        return isPrivate && !failed;
    }();
    return has;
}

void RunDeviceName(Stage& stage) {
    const bool hasOwn = HasOwnHostname();
    std::filesystem::remove("/var/lib/mwl/etc/hostname");
    stage.Sweep([&] {
        std::string name;
        if (stage.Accept(DeviceName::Create("ab1", "001122aabbcc", name), "Create")) {
            stage.Expect(name == "AB1-AABBCC", "the name is made");
        }
        std::string current;
        if (stage.Accept(DeviceName::GetHostname(current), "GetHostname")) {
            stage.Expect(!current.empty(), "there is a name");
        }
        if (!hasOwn) {
            return;
        }
        if (stage.Accept(DeviceName::SetHostname("faults"), "SetHostname")) {
            stage.Expect(gethostname(name.data(), name.size()) == 0 && name.starts_with("faults"),
                         "the name is set");
        }
        if (stage.Accept(DeviceName::StoreHostname("stored", false), "StoreHostname") &&
            stage.Accept(DeviceName::ReadHostname(current), "ReadHostname")) {
            stage.Expect(current == "stored", "the name is kept");
        }
    });
}

/// Watched until something comes, which ends the watch.
void RunFolderMonitor(Stage& stage) {
    std::atomic<bool> told{false};
    mwl::Utilities::FolderMonitor monitor(stage.Folder());
    stage.Sweep([&] {
        const mwl::StatusCode started = monitor.Start(
            [&](const std::string& name, unsigned int) {
                monitor.Stop();
                told = name == "new";
            },
            IN_CREATE);
        if (stage.Accept(started, "Start")) {
            WritePlainFile(stage / "new", "");
            stage.Expect(WaitUntil([&] { return told.load(); }, MOMENT), "the file is told of");
        }
    });
}

/// Watched in vain and stopped.
void RunFolderMonitorStop(Stage& stage) {
    mwl::Utilities::FolderMonitor monitor(stage.Folder());
    stage.Sweep([&] {
        if (stage.Accept(monitor.Start([](const std::string&, unsigned int) {}, 0), "Start")) {
            monitor.Stop();
        }
    });
}

}  // namespace

std::vector<Scenario> FileScenarios() {
    return {{"copy-file", RunCopyFile},
            {"copy-folder", RunCopyFolder},
            {"copy-whole", RunWholeCopies},
            {"delete-folder", RunDeleteFolder},
            {"delete-folder-content", RunDeleteContent},
            {"disk-usage", RunUsage},
            {"list-folder", RunLists},
            {"single-files", RunSingleFiles},
            {"links", RunLinks},
            {"folders-and-owners", RunFolders},
            {"ini-file", RunIniFile},
            {"device-name", RunDeviceName},
            {"folder-monitor", RunFolderMonitor},
            {"folder-monitor-stop", RunFolderMonitorStop}};
}

}  // namespace tern::test
