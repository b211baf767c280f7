#pragma once

#include <cstddef>
#include <string>

namespace mwl::ProcessExecution {

/// Appends to a string of which nobody knows how long it becomes. A std::string doubles its room, moves as
/// often, and gets the pages of each room one by one. From 1 MiB on this one takes room for 16 MiB, then for
/// 256 MiB, and has only the pages that are written to made, many at a time. When it moves it gives the old
/// ones back as it goes, so that hardly more memory is in use than the text is long. One thread at a time.
class LongText {
public:
    /// `text` is what is appended to; it must outlive the object.
    explicit LongText(std::string& text) : mText(text) {}
    LongText(const LongText&) = delete;
    LongText& operator=(const LongText&) = delete;

    /// Appends `size` bytes. Where so much room is refused the text grows as any string. Without memory for
    /// that either std::bad_alloc passes through, and the text is as it was.
    void Append(const char* bytes, std::size_t size);

private:
    /// Moves to the next room; stays where it is refused.
    void Widen();
    /// Of what is appended next.
    void MakePages();

    std::string& mText;
    std::size_t mMade = 0;  ///< up to here in the text's room the pages are there
};

}  // namespace mwl::ProcessExecution
