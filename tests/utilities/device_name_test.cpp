#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <tern-foundation/unit_path.h>
#include <tern/utilities/device_name.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "files.h"
#include "private_mounts.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/temp_folder.h"

using mwl::StatusCode;
using mwl::Utilities::DeviceName;
using tern::test::ChildResult;
using tern::test::ContentOf;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::LogCapture;
using tern::test::MakeFile;
using tern::test::RunInChild;
using tern::test::TempFolder;
using tern::test::Trace;
using testing::ElementsAre;

TERN_INTERPOSE(int, gethostname, (char* name, size_t size), (name, size))
TERN_INTERPOSE(int, sethostname, (const char* name, size_t size), (name, size))
TERN_INTERPOSE(FILE*, fopen64, (const char* path, const char* mode), (path, mode))

namespace {

const std::string LOGGER = "mwl::Utilities::DeviceName";
const std::string PATH = mwl::Unit::Path::MWL_LIB + mwl::Unit::Path::ETC + "/hostname";

/// Keeps the host-name file in a folder of the test.
class DeviceNameFile : public testing::Test {
protected:
    DeviceNameFile() { KeepFileAt(file); }

    void KeepFileAt(const std::string& path) {
        fault_fopen64.Replace(
            [path](const char* opened, const char* mode) {
                return fault_fopen64.Real(opened == PATH ? path.c_str() : opened, mode);
            },
            1000);
    }

    const TempFolder folder;
    const std::string file = folder / "hostname";
    const FaultScope<FILE*(const char*, const char*)> scope{fault_fopen64};
    const LogCapture log;
};

}  // namespace

TEST(DeviceName, IsMadeOfProductCodeAndTheDevicesHalfOfTheAddress) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"abc12", "00a0c91e2f3d", "ABC12-1E2F3D"},
        {"x", "001122aabbcc", "X-AABBCC"},
        {"x", "001122", "X-"},
        {"x", "001122a", "X-A"},
        {"x", "001122aabbccdd", "X-AABBCC"},
        {"x", "00:11:22:aa:bb:cc", "X-22:AA:"},
        {"gr\xc3\xbc\xff", "001122aabbcc", "GR\xc3\xbc\xff-AABBCC"},
        {"a z_09", "001122`{|}~@", "A Z_09-`{|}~@"},
    };
    for (const auto& [productCode, mac, expected] : rows) {
        const LogCapture log;
        std::string hostname;
        EXPECT_EQ(DeviceName::Create(productCode, mac, hostname), StatusCode::Ok);
        EXPECT_EQ(hostname, expected);
        EXPECT_THAT(log.Entries(),
                    ElementsAre(Trace(LOGGER, std::string("Create: ") + productCode + " " + mac)));
    }
}

TEST(DeviceName, IsNotMadeOfNothing) {
    const LogCapture log;
    std::string hostname = "untouched";
    EXPECT_EQ(DeviceName::Create("", "001122aabbcc", hostname), StatusCode::Failure);
    EXPECT_EQ(DeviceName::Create("x", "", hostname), StatusCode::Failure);
    EXPECT_EQ(DeviceName::Create("", "", hostname), StatusCode::Failure);
    EXPECT_EQ(hostname, "untouched");
    const std::string message = "Hostname cannot be created if product code (";
    EXPECT_THAT(log.Entries(),
                ElementsAre(Trace(LOGGER, "Create:  001122aabbcc"),
                            Error(LOGGER, message + ") or mac (001122aabbcc) is empty"),
                            Trace(LOGGER, "Create: x "), Error(LOGGER, message + "x) or mac () is empty"),
                            Trace(LOGGER, "Create:  "), Error(LOGGER, message + ") or mac () is empty")));
}

TEST(DeviceName, AnAddressShorterThanSixCharactersThrows) {
    const LogCapture log;
    std::string hostname = "untouched";
    for (const char* mac : {"0", "00112"}) {
        EXPECT_THROW(DeviceName::Create("x", mac, hostname), std::out_of_range) << mac;
    }
    EXPECT_EQ(hostname, "untouched");
}

TEST(DeviceName, TheKernelsNameIsRead) {
    char expected[256] = "";
    ASSERT_EQ(gethostname(expected, sizeof expected), 0);
    const LogCapture log;
    std::string hostname;
    EXPECT_EQ(DeviceName::GetHostname(hostname), StatusCode::Ok);
    EXPECT_EQ(hostname, expected);
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "GetHostname"),
                                           Info(LOGGER, "GetHostname: hostname: " + hostname)));
}

TEST(DeviceName, AKernelsNameThatCannotBeReadIsAFailure) {
    const LogCapture log;
    const FaultScope scope(fault_gethostname);
    fault_gethostname.Fail(-1, ENAMETOOLONG);
    std::string hostname = "untouched";
    EXPECT_EQ(DeviceName::GetHostname(hostname), StatusCode::Failure);
    EXPECT_EQ(hostname, "untouched");
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Trace(LOGGER, "GetHostname"),
                    Error(LOGGER, "GetHostname: Failed to get hostname, errno = File name too long")));
}

// gethostname(2) of some C libraries cuts a long name without terminating it.
TEST(DeviceName, AKernelsNameWithoutAnEndIsCutAtTheBuffer) {
    const LogCapture log;
    const FaultScope scope(fault_gethostname);
    size_t given = 0;
    fault_gethostname.Replace([&](char* name, size_t size) {
        given = size;
        memset(name, 'x', size);
        return 0;
    });
    std::string hostname;
    EXPECT_EQ(DeviceName::GetHostname(hostname), StatusCode::Ok);
    EXPECT_EQ(given, 64U);
    EXPECT_EQ(hostname, std::string(64, 'x'));
}

TEST(DeviceName, TheKernelIsGivenExactlyTheName) {
    const LogCapture log;
    const FaultScope scope(fault_sethostname);
    std::string given;
    fault_sethostname.Replace([&](const char* name, size_t size) {
        given.assign(name, size);
        return 0;
    });
    EXPECT_EQ(DeviceName::SetHostname("X-AABBCC"), StatusCode::Ok);
    EXPECT_EQ(given, "X-AABBCC");
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "SetHostname: X-AABBCC")));
}

TEST(DeviceName, AKernelsNameThatCannotBeSetIsAFailure) {
    const LogCapture log;
    const FaultScope scope(fault_sethostname);
    fault_sethostname.Fail(-1, EPERM);
    EXPECT_EQ(DeviceName::SetHostname("X-AABBCC"), StatusCode::Failure);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Trace(LOGGER, "SetHostname: X-AABBCC"),
                    Error(LOGGER, "SetHostname: Failed to set hostname, errno = Operation not permitted")));
}

TEST(DeviceName, TheKernelsNameIsSetAndReadBackInANamespaceOfItsOwn) {
    const std::string longest(63, 'x');
    const std::string tooLongToRead(64, 'x');
    const std::string tooLong(65, 'x');
    const ChildResult child = RunInChild([&] {
        if (unshare(CLONE_NEWUTS) != 0) {
            return 2;
        }
        std::string hostname;
        const bool held = DeviceName::SetHostname("X-AABBCC") == StatusCode::Ok &&
                          DeviceName::GetHostname(hostname) == StatusCode::Ok && hostname == "X-AABBCC" &&
                          DeviceName::SetHostname(longest) == StatusCode::Ok &&
                          DeviceName::GetHostname(hostname) == StatusCode::Ok && hostname == longest &&
                          DeviceName::SetHostname(tooLongToRead) == StatusCode::Ok &&
                          DeviceName::GetHostname(hostname) == StatusCode::Failure && hostname == longest &&
                          DeviceName::SetHostname(tooLong) == StatusCode::Failure;
        return held ? 0 : 1;
    });
    if (child.exitCode == 2) {
        GTEST_SKIP() << "a UTS namespace is not permitted here";
    }
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_EQ(child.log.back(),
              Error(LOGGER, "SetHostname: Failed to set hostname, errno = Invalid argument"));
}

TEST(DeviceName, TheFileIsInTheConfigurationFolderOfThePlatformsLibraryFolder) {
    if (!tern::test::CanMountPrivately()) {
        GTEST_SKIP() << "a mount namespace is not permitted here";
    }
    const ChildResult child = RunInChild([] {
        std::string hostname;
        if (!tern::test::EnterPrivateMounts() || mount("tmpfs", "/var/lib", "tmpfs", 0, nullptr) != 0) {
            return 2;
        }
        // The folder is not made by the library.
        if (DeviceName::StoreHostname("X-AABBCC", true) != StatusCode::IoError) {
            return 3;
        }
        mkdir("/var/lib/mwl", 0755);
        mkdir("/var/lib/mwl/etc", 0755);
        return DeviceName::StoreHostname("X-AABBCC", false) == StatusCode::Ok &&
                       ContentOf("/var/lib/mwl/etc/hostname") == "X-AABBCC" &&
                       DeviceName::ReadHostname(hostname) == StatusCode::Ok && hostname == "X-AABBCC"
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log,
                ElementsAre(Trace(LOGGER, "StoreHostname: X-AABBCC, force:true"),
                            Error(LOGGER,
                                  "StoreHostname: Failed to create file '/var/lib/mwl/etc/hostname': No "
                                  "such file or directory"),
                            Trace(LOGGER, "StoreHostname: X-AABBCC, force:false"),
                            Trace(LOGGER, "ReadHostname"), Info(LOGGER, "ReadHostname: hostname: X-AABBCC")));
}

TEST_F(DeviceNameFile, AStoredNameReadsBackUnchanged) {
    std::string hostname;
    EXPECT_EQ(DeviceName::StoreHostname("X-AABBCC", false), StatusCode::Ok);
    EXPECT_EQ(ContentOf(file), "X-AABBCC");
    EXPECT_EQ(DeviceName::ReadHostname(hostname), StatusCode::Ok);
    EXPECT_EQ(hostname, "X-AABBCC");
    EXPECT_THAT(log.Entries(),
                ElementsAre(Trace(LOGGER, "StoreHostname: X-AABBCC, force:false"),
                            Trace(LOGGER, "ReadHostname"), Info(LOGGER, "ReadHostname: hostname: X-AABBCC")));
}

TEST_F(DeviceNameFile, AnExistingNameIsReplacedByForceOnly) {
    MakeFile(file, "a-longer-former-name\n");
    EXPECT_EQ(DeviceName::StoreHostname("new", false), StatusCode::AlreadyExists);
    EXPECT_EQ(ContentOf(file), "a-longer-former-name\n");
    EXPECT_EQ(DeviceName::StoreHostname("new", true), StatusCode::Ok);
    EXPECT_EQ(ContentOf(file), "new");
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "StoreHostname: new, force:false"),
                                           Info(LOGGER, "StoreHostname: Do not overwrite existing " + PATH),
                                           Trace(LOGGER, "StoreHostname: new, force:true")));
}

TEST_F(DeviceNameFile, AnEmptyFileExistsToo) {
    MakeFile(file);
    EXPECT_EQ(DeviceName::StoreHostname("new", false), StatusCode::AlreadyExists);
    EXPECT_EQ(ContentOf(file), "");
}

// Whether there is one is found out by opening it for reading.
TEST_F(DeviceNameFile, AFileThatCannotBeOpenedForReadingIsReplaced) {
    ASSERT_EQ(DeviceName::StoreHostname("OLD", true), StatusCode::Ok);
    fault_fopen64.Replace(
        [this](const char*, const char* mode) -> FILE* {
            if (*mode == 'r') {
                errno = EACCES;
                return nullptr;
            }
            return fault_fopen64.Real(file.c_str(), mode);
        },
        2);
    EXPECT_EQ(DeviceName::StoreHostname("NEW", false), StatusCode::Ok);
    EXPECT_EQ(ContentOf(file), "NEW");
}

TEST_F(DeviceNameFile, TheFirstLineIsTheName) {
    const std::pair<std::string, std::string> rows[] = {
        {"name", "name"},
        {"name\n", "name"},
        {"name\nsecond\n", "name"},
        {"", ""},
        {"\nsecond", ""},
        {"name\r\n", "name\r"},
        {" name ", " name "},
        {std::string(100000, 'x') + "\ny", std::string(100000, 'x')},
        {std::string("na\0me\n", 6), std::string("na\0me", 5)}};
    for (const auto& [content, expected] : rows) {
        MakeFile(file, content);
        std::string hostname = "before";
        EXPECT_EQ(DeviceName::ReadHostname(hostname), StatusCode::Ok);
        EXPECT_EQ(hostname, expected);
    }
}

TEST_F(DeviceNameFile, AMissingFileIsAnInputOutputError) {
    std::string hostname = "untouched";
    EXPECT_EQ(DeviceName::ReadHostname(hostname), StatusCode::IoError);
    EXPECT_EQ(hostname, "untouched");
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "ReadHostname"),
                                           Error(LOGGER, "ReadHostname: Failed to read file '" + PATH +
                                                             "': No such file or directory")));
}

TEST_F(DeviceNameFile, AFileThatCannotBeReadIsAnInputOutputError) {
    KeepFileAt(folder.Path());
    std::string hostname = "untouched";
    EXPECT_EQ(DeviceName::ReadHostname(hostname), StatusCode::IoError);
    EXPECT_EQ(hostname, "untouched");
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "ReadHostname"),
                                           Error(LOGGER, "ReadHostname: Failed to read file '" + PATH +
                                                             "': Is a directory")));
}

TEST_F(DeviceNameFile, AFileThatCannotBeCreatedIsAnInputOutputError) {
    KeepFileAt(folder / "none/hostname");
    EXPECT_EQ(DeviceName::StoreHostname("name", false), StatusCode::IoError);
    KeepFileAt(folder.Path());
    EXPECT_EQ(DeviceName::StoreHostname("name", true), StatusCode::IoError);
    const std::string message = "StoreHostname: Failed to create file '" + PATH + "': ";
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "StoreHostname: name, force:false"),
                                           Error(LOGGER, message + "No such file or directory"),
                                           Trace(LOGGER, "StoreHostname: name, force:true"),
                                           Error(LOGGER, message + "Is a directory")));
}

TEST_F(DeviceNameFile, AFullDiskIsAnInputOutputError) {
    KeepFileAt("/dev/full");
    EXPECT_EQ(DeviceName::StoreHostname("name", true), StatusCode::IoError);
    // More than the stream holds back: the writing fails, not only the closing.
    const std::string large(1000000, 'x');
    EXPECT_EQ(DeviceName::StoreHostname(large, true), StatusCode::IoError);
    const auto message =
        Error(LOGGER, "StoreHostname: Failed to write file '" + PATH + "': No space left on device");
    EXPECT_THAT(log.Entries(),
                ElementsAre(Trace(LOGGER, "StoreHostname: name, force:true"), message,
                            Trace(LOGGER, "StoreHostname: " + large + ", force:true"), message));
}

TEST_F(DeviceNameFile, EmptyNamesAndAnyBytesAreStored) {
    EXPECT_EQ(DeviceName::StoreHostname("", true), StatusCode::Ok);
    EXPECT_EQ(ContentOf(file), "");
    const std::string bytes("a\0b\n\xff", 5);
    EXPECT_EQ(DeviceName::StoreHostname(bytes, true), StatusCode::Ok);
    EXPECT_EQ(ContentOf(file), bytes);
}

TEST_F(DeviceNameFile, DescriptorsCloseOnExecutionAndOnEveryPath) {
    const std::size_t before = tern::test::CountDescriptors();
    fault_fopen64.Replace(
        [this](const char*, const char* mode) {
            FILE* stream = fault_fopen64.Real(file.c_str(), mode);
            if (stream != nullptr) {
                EXPECT_EQ(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
            }
            return stream;
        },
        1000);
    std::string hostname;
    EXPECT_EQ(DeviceName::StoreHostname("name", false), StatusCode::Ok);
    EXPECT_EQ(DeviceName::StoreHostname("name", false), StatusCode::AlreadyExists);
    EXPECT_EQ(DeviceName::ReadHostname(hostname), StatusCode::Ok);
    KeepFileAt("/dev/full");
    EXPECT_EQ(DeviceName::StoreHostname("name", true), StatusCode::IoError);
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}
