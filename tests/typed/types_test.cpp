#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <tern/typed/codec.h>
#include <tern/typed/types.h>
#include <unistd.h>

#include <unordered_set>

#include "foundation/unique_fd.h"
#include "round_trip.h"
#include "support/process_resources.h"

using namespace mwl::Typed;
using tern::test::BusMessage;
using tern::test::ReadOne;
using tern::test::ReadValue;
using tern::test::Require;
using tern::test::RoundTrip;

namespace {

class Types : public RoundTrip {};

TEST_F(Types, PathsAndSignaturesAreWhatSdBusMakesOfThem) {
    for (const char* const text : {"/", "/a", "/com/example/Room_1"}) {
        Check(ObjectPath::From(text).value(), "o", text);
    }
    for (const char* const text : {"", "u", "a{sv}", "(a(ii)v)"}) {
        Check(Signature::From(text).value(), "g", text);
    }
    Check(ObjectPath(), "o", "/");
    Check(Signature(), "g", "");
}

TEST(ObjectPath, IsCheckedWhenMade) {
    static_assert(ObjectPath::Check("/com/example"));
    EXPECT_EQ(ObjectPath("/com/example").GetText(), "/com/example");
    EXPECT_EQ(ObjectPath::From("/com/example").value().GetText(), "/com/example");
    EXPECT_FALSE(ObjectPath::From("com/example").has_value());
}

TEST(ObjectPath, AgreesWithSdBus) {
    std::vector<std::string> texts = {"",     "/",      "//",    "a",       "/a",     "/a/",       "/a//b",
                                      "/a/b", "/a.b",   "/a-b",  "/_",      "/0",     "/\u00e4",   "/a b",
                                      "a/b",  "/a/b/c", "/Z_z9", "/a/b/c/", "/a\x7f", "/a/b/{cd}", "/@["};
    texts.push_back("/" + std::string(64 * 1024 - 1, 'a'));
    texts.push_back("/" + std::string(64 * 1024, 'a'));
    for (const std::string& text : texts) {
        EXPECT_EQ(IsObjectPath(text), sd_bus_object_path_is_valid(text.c_str()) != 0) << text.substr(0, 50);
    }
    EXPECT_FALSE(IsObjectPath(std::string_view("/a\0b", 4)));
}

// Whether sd-bus lets a message have it.
bool IsSignatureForSdBus(tern::test::TestMessages& messages, const std::string& text) {
    const BusMessage message = messages.New();
    return sd_bus_message_append_basic(message.get(), 'g', text.c_str()) >= 0;
}

TEST_F(Types, SignaturesAreCheckedAsSdBusDoes) {
    std::vector<std::string> texts = {
        "",          "y",        "b",   "n",        "q",     "i",     "u",        "x",          "t",
        "d",         "s",        "o",   "g",        "h",     "v",     "us",       "as",         "a",
        "aa",        "aas",      "z",   "a{sv}",    "a{vs}", "a{s}",  "a{sv",     "a{svv}",     "a{}",
        "a{asv}",    "a{(s)v}",  "()",  "(u)",      "(u",    "u)",    "(())",     "((u))",      "a(us)",
        "a{sa{sv}}", "a{s(uu)}", "(a)", "(a{sv}u)", "r",     "e",     "a{s{sv}}", "us}",        "a}",
        "(u))",      "1",        " ",   "m",        "*",     "a{hv}", "a{ss}as",  "aaaa{i(ii)}"};
    for (const std::size_t depth : {31U, 32U, 33U}) {
        texts.push_back(std::string(depth, 'a') + "u");
        texts.push_back(std::string(depth, '(') + "u" + std::string(depth, ')'));
        std::string entries;
        for (std::size_t i = 0; i < depth; ++i) {
            entries += "a{s";
        }
        texts.push_back(entries + "u" + std::string(depth, '}'));
        texts.push_back(std::string(depth, 'a') + std::string(32, '(') + "u" + std::string(32, ')'));
    }
    for (const std::size_t size : {254U, 255U, 256U}) {
        texts.emplace_back(size, 'u');
    }
    for (const std::string& text : texts) {
        EXPECT_EQ(IsSignature(text), IsSignatureForSdBus(mMessages, text)) << text;
        EXPECT_EQ(Signature::From(text).has_value(), IsSignature(text)) << text;
    }
    EXPECT_FALSE(IsSignature("{sv}"));  // sd-bus takes it, but it is no type outside of an array
}

TEST(Signature, IsCheckedWhenMade) {
    static_assert(Signature::Check("a{sv}") && !Signature::Check("a{sv"));
    EXPECT_EQ(Signature("a{sv}").GetText(), "a{sv}");
}

TEST(ObjectPath, IsAKey) {
    const std::unordered_set<ObjectPath> paths = {ObjectPath("/a"), ObjectPath("/b"), ObjectPath("/a")};
    EXPECT_EQ(paths.size(), 2U);
    EXPECT_LT(ObjectPath("/a"), ObjectPath("/b"));
    EXPECT_NE(ObjectPath("/a"), ObjectPath("/b"));
}

TEST_F(Types, PathThatWasMovedFromIsRefused) {
    ObjectPath path("/a/path/that/is/longer/than/what/a/string/keeps/in/itself");
    const ObjectPath moved = std::move(path);
    EXPECT_GE(WriteResult(moved), 0);
    EXPECT_EQ(WriteResult(path), -EINVAL);  // NOLINT(bugprone-use-after-move): that is what it is about
}

/// Two descriptors are of one file.
bool AreOfOneFile(int first, int second) {
    struct stat a {};
    struct stat b {};
    return fstat(first, &a) == 0 && fstat(second, &b) == 0 && a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

class Descriptors : public RoundTrip {
protected:
    Descriptors() {
        int ends[2];
        Require(pipe2(ends, O_CLOEXEC), "pipe2");
        mPipe.Reset(ends[0]);
        mOtherEnd.Reset(ends[1]);
    }

    mwl::UniqueFd mPipe;
    mwl::UniqueFd mOtherEnd;
};

TEST_F(Descriptors, BorrowedIsTheMessagesOwn) {
    const std::size_t before = tern::test::CountDescriptors();
    {
        const BusMessage message = Written(BorrowedFd{mPipe.Get()});
        EXPECT_EQ(tern::test::CountDescriptors(), before + 1);  // sd-bus duplicates what is sent
        const ReadValue<BorrowedFd> read = ReadOne<BorrowedFd>(message);
        ASSERT_GT(read.result, 0);
        EXPECT_TRUE(AreOfOneFile(read.value.fd, mPipe.Get()));
        EXPECT_EQ(tern::test::CountDescriptors(), before + 1);
    }
    EXPECT_EQ(tern::test::CountDescriptors(), before);
    EXPECT_GE(fcntl(mPipe.Get(), F_GETFD), 0);
}

TEST_F(Descriptors, OwnedOutlivesTheMessage) {
    const std::size_t before = tern::test::CountDescriptors();
    {
        BusMessage message = Written(BorrowedFd{mPipe.Get()});
        const ReadValue<OwnedFd> read = ReadOne<OwnedFd>(message);
        ASSERT_GT(read.result, 0);
        message.reset();
        EXPECT_EQ(tern::test::CountDescriptors(), before + 1);
        EXPECT_TRUE(AreOfOneFile(read.value.Get(), mPipe.Get()));
        EXPECT_GE(read.value.Get(), 3);
        EXPECT_EQ(fcntl(read.value.Get(), F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}

TEST_F(Descriptors, OwnedIsNeverStandardInput) {
    const mwl::UniqueFd input(fcntl(0, F_DUPFD_CLOEXEC, 3));
    Require(close(0), "close");
    BusMessage message = Written(BorrowedFd{mPipe.Get()});
    const ReadValue<OwnedFd> read = ReadOne<OwnedFd>(message);
    EXPECT_GE(read.value.Get(), 3);
    message.reset();
    Require(dup2(input.Get(), 0), "dup2");
}

TEST_F(Descriptors, OwnedStaysWithTheSender) {
    const OwnedFd fd = OwnedFd::Duplicate(mPipe.Get());
    ASSERT_TRUE(fd);
    { const BusMessage message = Written(fd); }
    EXPECT_GE(fcntl(fd.Get(), F_GETFD), 0);
}

TEST_F(Descriptors, OwnedIsMovedReleasedAndReset) {
    const std::size_t before = tern::test::CountDescriptors();
    OwnedFd first = OwnedFd::Duplicate(mPipe.Get());
    OwnedFd second = std::move(first);
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): that is what it is about
    EXPECT_TRUE(second);
    second = OwnedFd::Duplicate(mOtherEnd.Get());
    EXPECT_EQ(tern::test::CountDescriptors(), before + 1);
    OwnedFd& same = second;
    second = std::move(same);
    EXPECT_TRUE(second);
    const mwl::UniqueFd released(second.Release());
    EXPECT_FALSE(second);
    EXPECT_GE(fcntl(released.Get(), F_GETFD), 0);
    second.Reset(OwnedFd::Duplicate(mPipe.Get()).Release());
    errno = 7;
    second.Reset();
    EXPECT_EQ(errno, 7);
    EXPECT_EQ(tern::test::CountDescriptors(), before + 1);
}

TEST_F(Descriptors, NoneCannotBeSentOrDuplicated) {
    EXPECT_EQ(WriteResult(BorrowedFd()), -EINVAL);
    EXPECT_EQ(WriteResult(OwnedFd()), -EINVAL);
    const int closed = OwnedFd::Duplicate(mPipe.Get()).Get();  // and gone again
    EXPECT_EQ(WriteResult(BorrowedFd{closed}), -EBADF);
    EXPECT_FALSE(OwnedFd::Duplicate(-1));
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Descriptors, OwnedIsRefusedWhereNoneIsLeft) {
    const BusMessage message = Written(BorrowedFd{mPipe.Get()});
    rlimit limit{};
    Require(getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
    rlimit none = limit;
    none.rlim_cur = 3;
    Require(setrlimit(RLIMIT_NOFILE, &none), "setrlimit");
    const ReadValue<OwnedFd> read = ReadOne<OwnedFd>(message);
    Require(setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");
    EXPECT_LT(read.result, 0);
    EXPECT_FALSE(read.value);
}

TEST_F(Descriptors, ManyLeakNone) {
    const std::size_t before = tern::test::CountDescriptors();
    for (int i = 0; i < 50; ++i) {
        std::vector<OwnedFd> sent;
        for (int k = 0; k < 3; ++k) {
            sent.push_back(OwnedFd::Duplicate(mPipe.Get()));
        }
        const ReadValue<std::vector<OwnedFd>> read = ReadOne<std::vector<OwnedFd>>(Written(sent));
        ASSERT_EQ(read.value.size(), 3U);
    }
    // A message that fails behind a descriptor that has been read.
    for (int i = 0; i < 50; ++i) {
        const BusMessage message = mMessages.Make("a(hai)", 1, mPipe.Get(), 1, 5);
        std::vector<std::tuple<OwnedFd, std::array<int, 2>>> wrong;
        Fault fault;
        EXPECT_EQ(Read(message.get(), wrong, fault), -EINVAL);
    }
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}

TEST_F(Types, BorrowIsOnTheBusWhatItHolds) {
    static_assert(SIGNATURE<Borrow<std::string_view>>.View() == "s");
    const BusMessage message = mMessages.Make("s", "text");
    const ReadValue<Borrow<std::string_view>> read = ReadOne<Borrow<std::string_view>>(message);
    EXPECT_EQ(*read.value, "text");
    EXPECT_EQ(read.value->size(), 4U);
    EXPECT_GE(WriteResult(Borrow<std::string_view>{"text"}), 0);
}

TEST(Results, DecomposeLikeATuple) {
    const Results<std::string, int> results{"text", 5};
    const auto& [text, number] = results;
    EXPECT_EQ(text, "text");
    EXPECT_EQ(number, 5);
    EXPECT_EQ(std::get<1>(results), 5);
    static_assert(std::tuple_size_v<Results<int, int, int>> == 3);
    static_assert(std::tuple_size_v<Results<>> == 0);
}

TEST(MakeSignature, PutsValuesBehindEachOther) {
    static_assert(SIGNATURE<> == Text(""));
    static_assert(SIGNATURE<int, const std::string&, std::vector<double>&&> == Text("isad"));
    static_assert(MakeSignature<bool, Any>() == Text("bv"));
}

}  // namespace
