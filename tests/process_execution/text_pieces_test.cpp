#include "process_execution/text_pieces.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <string>

#include "foundation/unique_fd.h"
#include "support/interpose.h"
#include "support/temp_folder.h"

TERN_INTERPOSE(void*, mmap64, (void* address, size_t size, int access, int flags, int fd, off_t offset),
               (address, size, access, flags, fd, offset))
TERN_INTERPOSE(int, munmap, (void* address, size_t size), (address, size))

namespace mwl::ProcessExecution {
namespace {

using tern::test::FaultScope;

constexpr std::size_t MIB = std::size_t{1024} * 1024;

/// No two pieces of it are alike.
std::string LongText(std::size_t size) {
    std::string text;
    text.reserve(size + 8);
    for (std::size_t number = 0; text.size() < size; ++number) {
        text += std::to_string(number);
    }
    text.resize(size);
    return text;
}

class TextPiecesTest : public testing::Test {
protected:
    /// Collects up to so many bytes of what was given to Offer; returns how many there were.
    std::size_t Collect(std::size_t size) {
        std::size_t done = 0;
        while (done < size && pieces.MakeRoom()) {
            const ssize_t count = pieces.Read(source.Get(), size - done);
            if (count <= 0) {
                break;
            }
            done += static_cast<std::size_t>(count);
        }
        return done;
    }
    void Offer(const std::string& text) {
        const std::string path = folder / "text";
        std::ofstream(path) << text;
        source.Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    }

    const tern::test::TempFolder folder;
    UniqueFd source;
    TextPieces pieces;
};

TEST_F(TextPiecesTest, AppendsWhatWasCollectedByteForByte) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, MIB - 1, MIB, MIB + 1, 3 * MIB + 4711}) {
        const std::string text = LongText(size);
        Offer(text);
        EXPECT_EQ(Collect(10 * MIB), size);
        EXPECT_EQ(pieces.GetSize(), size);
        std::string output = "before";
        pieces.MoveTo(output);
        EXPECT_TRUE(output == "before" + text) << size;
        EXPECT_EQ(pieces.GetSize(), 0U);
    }
}

TEST_F(TextPiecesTest, GoesOnAfterwards) {
    const std::string text = LongText(5 * MIB);
    Offer(text);
    std::string output;
    for (const std::size_t size : {MIB / 2, 2 * MIB, 5 * MIB}) {
        Collect(size);
        pieces.MoveTo(output);
        pieces.MoveTo(output);
    }
    EXPECT_TRUE(output == text);
}

TEST_F(TextPiecesTest, ReadsNoFurtherThanTheLimit) {
    Offer("abcdef");
    ASSERT_TRUE(pieces.MakeRoom());
    EXPECT_EQ(pieces.Read(source.Get(), 2), 2);
    EXPECT_EQ(pieces.GetSize(), 2U);
}

TEST_F(TextPiecesTest, AFailedReadChangesNothing) {
    Offer("abc");
    EXPECT_EQ(Collect(2), 2U);
    errno = 0;
    EXPECT_EQ(pieces.Read(-1, 1), -1);
    EXPECT_EQ(errno, EBADF);
    std::string output;
    pieces.MoveTo(output);
    EXPECT_EQ(output, "ab");
}

TEST_F(TextPiecesTest, WithoutMemoryThereIsNoRoomAndWhatThereIsStays) {
    const std::string text = LongText(MIB + 100);
    Offer(text);
    EXPECT_EQ(Collect(MIB), MIB);
    {
        const FaultScope scope(fault_mmap64);
        fault_mmap64.Fail(MAP_FAILED, ENOMEM);
        EXPECT_FALSE(pieces.MakeRoom());
    }
    EXPECT_TRUE(pieces.MakeRoom());
    EXPECT_EQ(Collect(MIB), 100U);
    std::string output;
    pieces.MoveTo(output);
    EXPECT_TRUE(output == text);
}

TEST_F(TextPiecesTest, EachPieceIsReleased) {
    Offer(LongText(3 * MIB));
    const FaultScope scope(fault_munmap);
    int released = 0;
    fault_munmap.Replace(
        [&](void* address, std::size_t size) {
            released += size == MIB ? 1 : 0;
            return fault_munmap.Real(address, size);
        },
        1000);
    EXPECT_EQ(Collect(2 * MIB), 2 * MIB);
    std::string output;
    pieces.MoveTo(output);
    EXPECT_EQ(released, 2);
    {
        TextPieces others;
        ASSERT_TRUE(others.MakeRoom());
        EXPECT_EQ(others.Read(source.Get(), 10), 10);
    }
    EXPECT_EQ(released, 3);
}

}  // namespace
}  // namespace mwl::ProcessExecution
