#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tern/parser/ini_parser.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/temp_folder.h"

TERN_INTERPOSE(ssize_t, read, (int fd, void* buffer, size_t size), (fd, buffer, size))

namespace mwl::Parser {
namespace {

using tern::test::Error;
using tern::test::Info;
using tern::test::LogCapture;
using tern::test::LogEntry;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

using Values = std::map<std::string, std::string>;

const std::string NAME = "mwl::Parser";

LogEntry Split(const std::string& attribute, const std::string& value) {
    return Info(NAME, "attribute: " + attribute + " ---- value: " + value);
}
LogEntry Section(const std::string& line) {
    return Info(NAME, "Find section " + line);
}
LogEntry BadSection(const std::string& line) {
    return Error(NAME, "Section badly defined --> " + line);
}
LogEntry BadLine(const std::string& line) {
    return Error(NAME, "Attribute and value badly defined --> " + line);
}

class IniParserTest : public ::testing::Test {
protected:
    std::string Write(const std::string& content) {
        std::ofstream(mPath, std::ios::binary) << content;
        return mPath;
    }

    StatusCode Parse(const std::string& content, Values& values) {
        return IniParser::Parse(Write(content), values);
    }

    const tern::test::TempFolder mFolder;
    const std::string mPath = mFolder / "file.ini";
};

TEST_F(IniParserTest, AcceptedFiles) {
    const struct {
        std::string content;
        Values values;
        std::vector<LogEntry> log;
    } ROWS[] = {
        {"", {}, {}},
        {"a=b", {{"a", "b"}}, {Split("a", "b")}},
        {"a=b\n", {{"a", "b"}}, {Split("a", "b")}},
        {"a=b=c\n", {{"a", "b=c"}}, {Split("a", "b=c")}},
        {" a = b \n", {{" a ", " b "}}, {Split(" a ", " b ")}},
        {"\ta\t=\tb\t", {{"\ta\t", "\tb\t"}}, {Split("\ta\t", "\tb\t")}},
        {"=x\n", {{"", "x"}}, {Split("", "x")}},
        {"x=\n", {{"x", ""}}, {Split("x", "")}},
        {"=\n", {{"", ""}}, {Split("", "")}},
        {"==\n", {{"", "="}}, {Split("", "=")}},
        {"a=b\r\nc=d\r\n", {{"a", "b\r"}, {"c", "d\r"}}, {Split("a", "b\r"), Split("c", "d\r")}},
        {"# note=1\n", {{"# note", "1"}}, {Split("# note", "1")}},
        {"a=1\nb=2\na=3\n", {{"a", "3"}, {"b", "2"}}, {Split("a", "1"), Split("b", "2"), Split("a", "3")}},
        {"[main]\nport=1\n[other]\nport=2\n",
         {{"port", "2"}},
         {Section("[main]"), Split("port", "1"), Section("[other]"), Split("port", "2")}},
        {"path=/a/[x]\n", {}, {Section("path=/a/[x]")}},
        {"[]\n", {}, {Section("[]")}},
        {"] [ ]\n", {}, {Section("] [ ]")}},
        {"[[main]\n", {}, {Section("[[main]")}},
        {"a=]\n", {{"a", "]"}}, {Split("a", "]")}},
        {"\xc3\xa9\xff=\x80\n", {{"\xc3\xa9\xff", "\x80"}}, {Split("\xc3\xa9\xff", "\x80")}},
        {std::string("a\0b=c\0d\n", 8),
         {{std::string("a\0b", 3), std::string("c\0d", 3)}},
         {Split("a", "c")}},
    };
    for (const auto& row : ROWS) {
        LogCapture log;
        Values values;
        EXPECT_EQ(Parse(row.content, values), StatusCode::Ok) << row.content;
        EXPECT_EQ(values, row.values) << row.content;
        EXPECT_EQ(log.Entries(), row.log) << row.content;
    }
}

TEST_F(IniParserTest, RefusedFilesKeepWhatCameBefore) {
    const struct {
        std::string content;
        Values values;
        LogEntry last;
    } ROWS[] = {
        {"\n", {}, BadLine("")},
        {"a=b\n\nc=d\n", {{"a", "b"}}, BadLine("")},
        {"a=b\n# note\nc=d\n", {{"a", "b"}}, BadLine("# note")},
        {"a=b\n; note\n", {{"a", "b"}}, BadLine("; note")},
        {"\r\n", {}, BadLine("\r")},
        {"word", {}, BadLine("word")},
        {"]", {}, BadLine("]")},
        {"k=[x\n", {}, BadSection("k=[x")},
        {"a=b\n[main\n", {{"a", "b"}}, BadSection("[main")},
        {"]k=[\n", {}, BadSection("]k=[")},
        {"[", {}, BadSection("[")},
        {"[a\n]=b\n", {}, BadSection("[a")},
    };
    for (const auto& row : ROWS) {
        LogCapture log;
        Values values;
        EXPECT_EQ(Parse(row.content, values), StatusCode::InvalidArgument) << row.content;
        EXPECT_EQ(values, row.values) << row.content;
        ASSERT_FALSE(log.Entries().empty()) << row.content;
        EXPECT_EQ(log.Entries().back(), row.last) << row.content;
    }
}

TEST_F(IniParserTest, TheCallersEntriesStayOrAreOverwritten) {
    Values values{{"mine", "1"}, {"shared", "2"}};
    EXPECT_EQ(Parse("shared=3\nnew=4\n", values), StatusCode::Ok);
    EXPECT_THAT(values, ElementsAre(Pair("mine", "1"), Pair("new", "4"), Pair("shared", "3")));
}

TEST_F(IniParserTest, EntriesAreOrderedByteWise) {
    Values values;
    EXPECT_EQ(Parse("b=1\n\xff=2\nB=3\n=4\n", values), StatusCode::Ok);
    EXPECT_THAT(values, ElementsAre(Pair("", "4"), Pair("B", "3"), Pair("b", "1"), Pair("\xff", "2")));
}

TEST_F(IniParserTest, LongLinesAndManyAreRead) {
    std::string content;
    Values expected;
    for (int i = 0; i < 20000; ++i) {
        content += "key" + std::to_string(i) + "=value" + std::to_string(i) + "\n";
        expected["key" + std::to_string(i)] = "value" + std::to_string(i);
    }
    content += "long=" + std::string(3000000, 'x');
    expected["long"] = std::string(3000000, 'x');
    LogCapture log(3);
    Values values;
    EXPECT_EQ(Parse(content, values), StatusCode::Ok);
    EXPECT_TRUE(values == expected);
}

TEST_F(IniParserTest, AMissingFile) {
    LogCapture log;
    Values values{{"mine", "1"}};
    const std::string path = mFolder / "missing.ini";
    EXPECT_EQ(IniParser::Parse(path, values), StatusCode::NotFound);
    EXPECT_EQ(IniParser::Parse("", values), StatusCode::NotFound);
    EXPECT_THAT(values, ElementsAre(Pair("mine", "1")));
    EXPECT_THAT(log.Entries(NAME), IsEmpty());
    EXPECT_TRUE(log.Contains(tern::test::Trace("mwl::Utilities::FileSystem",
                                               "CheckFileExist: file '" + path + "' does not exist")));
}

// Whatever keeps the path from being followed counts as a missing file.
TEST_F(IniParserTest, AFileThatCannotBeReached) {
    Write("a=b\n");
    const std::string loop = mFolder / "loop";
    ASSERT_EQ(symlink("loop", loop.c_str()), 0);
    const std::pair<std::string, int> rows[] = {
        {mPath + "/below.ini", ENOTDIR},
        {loop, ELOOP},
        {mFolder / std::string(NAME_MAX + 1, 'n'), ENAMETOOLONG},
    };
    for (const auto& [path, error] : rows) {
        struct stat information {};
        ASSERT_EQ(stat(path.c_str(), &information), -1) << path;
        ASSERT_EQ(errno, error) << path;
        LogCapture log;
        Values values{{"mine", "1"}};
        EXPECT_EQ(IniParser::Parse(path, values), StatusCode::NotFound) << path;
        EXPECT_THAT(values, ElementsAre(Pair("mine", "1")));
        EXPECT_THAT(log.Entries(NAME), IsEmpty()) << path;
    }
}

// A socket exists, but open(2) refuses it, whoever asks.
TEST_F(IniParserTest, AFileThatCannotBeOpened) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(mPath.size(), sizeof address.sun_path);
    mPath.copy(address.sun_path, mPath.size());
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    LogCapture log;
    Values values{{"mine", "1"}};
    EXPECT_EQ(IniParser::Parse(mPath, values), StatusCode::OpenFailed);
    EXPECT_THAT(values, ElementsAre(Pair("mine", "1")));
    EXPECT_THAT(log.Entries(), ElementsAre(Error(NAME, "Error opening file [" + mPath + "]")));
    close(fd);
}

TEST_F(IniParserTest, AFolderCannotBeRead) {
    LogCapture log;
    Values values;
    EXPECT_EQ(IniParser::Parse(mFolder.Path(), values), StatusCode::IoError);
    EXPECT_THAT(values, IsEmpty());
    EXPECT_THAT(log.Entries(), ElementsAre(Error(NAME, "Error reading file [" + mFolder.Path() + "]")));
}

TEST_F(IniParserTest, NoDescriptorIsLeftOpen) {
    const std::size_t descriptors = tern::test::CountDescriptors();
    LogCapture log;
    for (const char* const content : {"a=b\n", "\n", "[\n"}) {
        Values values;
        static_cast<void>(Parse(content, values));
    }
    EXPECT_EQ(tern::test::CountDescriptors(), descriptors);
}

// A program that another thread starts meanwhile had the file open as long as it ran.
TEST_F(IniParserTest, NoProgramInheritsTheFile) {
    LogCapture log;
    int flags = 0;
    const tern::test::FaultScope scope(fault_read);
    fault_read.Replace([&](int fd, void* buffer, size_t size) {
        flags = fcntl(fd, F_GETFD);
        return fault_read.Real(fd, buffer, size);
    });
    Values values;
    EXPECT_EQ(Parse("a=b\n", values), StatusCode::Ok);
    EXPECT_EQ(flags, FD_CLOEXEC);
    EXPECT_THAT(values, ElementsAre(Pair("a", "b")));
}

TEST_F(IniParserTest, AnInterruptedReadLosesNothing) {
    LogCapture log;
    const tern::test::FaultScope scope(fault_read);
    fault_read.Fail(-1, EINTR, 3);
    Values values;
    EXPECT_EQ(Parse("a=b\nc=d", values), StatusCode::Ok);
    EXPECT_THAT(values, ElementsAre(Pair("a", "b"), Pair("c", "d")));
}

TEST_F(IniParserTest, WhatIsReadInPiecesIsWhole) {
    LogCapture log;
    const tern::test::FaultScope scope(fault_read);
    fault_read.Replace([](int fd, void* buffer, size_t) { return fault_read.Real(fd, buffer, 1); }, 100);
    Values values;
    EXPECT_EQ(Parse("a=b\n=\n[s]\nlong=value", values), StatusCode::Ok);
    EXPECT_THAT(values, ElementsAre(Pair("", ""), Pair("a", "b"), Pair("long", "value")));
}

TEST_F(IniParserTest, AFileThatBreaksOffKeepsItsWholeLines) {
    LogCapture log;
    const tern::test::FaultScope scope(fault_read);
    fault_read.Replace(
        [calls = 0](int fd, void* buffer, size_t) mutable -> ssize_t {
            if (++calls <= 6) {
                return fault_read.Real(fd, buffer, 1);
            }
            errno = EIO;
            return -1;
        },
        100);
    Values values;
    EXPECT_EQ(Parse("a=b\nc=d\n", values), StatusCode::IoError);
    EXPECT_THAT(values, ElementsAre(Pair("a", "b")));
    EXPECT_THAT(log.Entries(),
                ElementsAre(Split("a", "b"), Error(NAME, "Error reading file [" + mPath + "]")));
}

TEST_F(IniParserTest, ParseAttributeValueClearsBothOnFailure) {
    LogCapture log;
    std::string attribute = "old";
    std::string value = "old";
    EXPECT_EQ(IniParser::ParseAttributeValue("no separator", attribute, value), 0);
    EXPECT_EQ(attribute, "");
    EXPECT_EQ(value, "");
    EXPECT_THAT(log.Entries(), ElementsAre(BadLine("no separator")));
}

// A single line knows nothing of sections.
TEST_F(IniParserTest, ParseAttributeValueSplitsAtTheFirstSeparator) {
    LogCapture log;
    std::string attribute = "old";
    std::string value = "old";
    EXPECT_EQ(IniParser::ParseAttributeValue("[a]=b=c", attribute, value), 1);
    EXPECT_EQ(attribute, "[a]");
    EXPECT_EQ(value, "b=c");
    EXPECT_THAT(log.Entries(), ElementsAre(Split("[a]", "b=c")));
}

}  // namespace
}  // namespace mwl::Parser
