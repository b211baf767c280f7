#include "jobs.h"

#include <tern/parser/ini_parser.h>
#include <tern/process_execution/command.h>
#include <tern/utilities/file_system.h>
#include <tern/utilities/zipper.h>

#include <map>
#include <set>

using mwl::StatusCode;
using mwl::Utilities::FileSystem;
using mwl::Utilities::Zipper;

namespace soak {

namespace {

constexpr unsigned int FILES = 5;
constexpr std::size_t FILE_SIZE = 3000;
constexpr std::size_t SETTINGS = 20;
/// Enough for a file that is cut off to be noticed.
constexpr std::size_t KEPT_LINES = 300;
/// Generous: only a hang takes so long.
constexpr unsigned int PROGRAM_TIMEOUT_MS = 60000;

StatusCode FirstFailure(StatusCode first, StatusCode second) {
    return first != StatusCode::Ok ? first : second;
}

}  // namespace

Jobs::Jobs(Progress& progress, std::string folder) : mProgress(progress), mFolder(std::move(folder)) {}

StatusCode Jobs::Open() {
    const std::string work = mFolder + "/jobs";
    StatusCode status = FileSystem::CheckDirectoryExist(work) == StatusCode::Ok
                            ? FileSystem::DeleteFolder(work, true)
                            : StatusCode::Ok;
    for (const char* const folder : {"/jobs", "/source", "/kept"}) {
        status = FirstFailure(status, FileSystem::CreateFolder(mFolder + folder));
    }
    for (unsigned int i = 0; i < FILES && status == StatusCode::Ok; ++i) {
        status = FileSystem::WriteContent(mFolder + "/source/file" + std::to_string(i),
                                          std::string(FILE_SIZE, static_cast<char>('a' + i)));
    }
    return status;
}

StatusCode Jobs::Run(const std::string& kind) {
    StatusCode status = StatusCode::NotSupported;
    if (kind == "command") {
        status = RunProgram();
    } else if (kind == "archive") {
        status = PackAndUnpack();
    } else if (kind == "reload") {
        status = ReloadSettings();
    }
    if (status != StatusCode::Ok) {
        ++mProgress.failures;
    }
    return status;
}

StatusCode Jobs::RunProgram() {
    const std::string input(FILE_SIZE, 'x');
    std::string output;
    int exitCode = 1;
    mwl::ProcessExecution::Command program("/bin/cat", PROGRAM_TIMEOUT_MS);
    const StatusCode status = program.RunWithInput(input, {}, output, exitCode);
    ++mProgress.commands;
    return status == StatusCode::Ok && (exitCode != 0 || output != input) ? StatusCode::Failure : status;
}

StatusCode Jobs::PackAndUnpack() {
    const std::string archive = Unique("archive");
    const std::string target = Unique("unpacked");
    StatusCode status = Zipper::Zip(mFolder + "/source", archive, "password");
    if (status == StatusCode::Ok) {
        status = Zipper::Unzip(archive, target, "password");
    }
    std::set<std::string> files;
    if (status == StatusCode::Ok) {
        status = FileSystem().ListFiles(target, files);
    }
    if (status == StatusCode::Ok && files.size() != FILES) {
        status = StatusCode::Failure;
    }
    status = FirstFailure(status, FileSystem::DeleteFolder(target, false));
    ++mProgress.archives;
    return FirstFailure(status, FileSystem::DeleteFile(archive));
}

StatusCode Jobs::ReloadSettings() {
    std::string content = "[settings]\n";
    for (std::size_t i = 0; i < SETTINGS; ++i) {
        content += "key" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    }
    // As a whole, as another thread may be reading.
    const std::string settings = mFolder + "/settings.ini";
    StatusCode status = Replace(settings, content);
    std::map<std::string, std::string> values;
    if (status == StatusCode::Ok) {
        status = mwl::Parser::IniParser::Parse(settings, values);
    }
    ++mProgress.reloads;
    return status == StatusCode::Ok && values.size() != SETTINGS ? StatusCode::Failure : status;
}

StatusCode Jobs::Keep(const std::string& name, std::uint64_t number) {
    std::string content;
    for (std::size_t i = 0; i < KEPT_LINES; ++i) {
        content += std::to_string(number) + "\n";
    }
    return Replace(mFolder + "/kept/" + name, content);
}

StatusCode Jobs::Replace(const std::string& path, const std::string& content) {
    const std::string fresh = Unique("fresh");
    StatusCode status = FileSystem::WriteWholeContent(fresh, content);
    if (status == StatusCode::Ok) {
        status = FileSystem::Rename(fresh, path);
    }
    if (status != StatusCode::Ok) {
        static_cast<void>(FileSystem::DeleteFile(fresh));  // there may be none
    }
    return status;
}

std::string Jobs::Unique(const std::string& name) {
    return mFolder + "/jobs/" + name + std::to_string(++mNumber);
}

}  // namespace soak
