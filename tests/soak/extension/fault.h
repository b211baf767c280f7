#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace soak {

/// One deliberate fault, so that a test shows that the soak notices it. Any thread.
///
/// | name | what goes wrong |
/// |---|---|
/// | memory | each call leaves 64 KiB behind |
/// | descriptor | every 10th call leaves a descriptor open |
/// | thread | every 50th call leaves a thread behind |
/// | reply | every 100th call is never answered |
/// | answer | every 100th call is answered wrongly |
/// | signal | every 100th signal is left out |
/// | watchdog | the 100th call holds the loop up for 6 seconds |
/// | crash | the 100th call ends the process |
/// | keep | from the 3rd on no number is kept, but said to be |
/// | status | the process ends with success, whatever happened |
/// | hang | the process does not end |
class Fault {
public:
    enum class Answer { Right, Wrong, None };

    /// Empty for no fault. Throws std::invalid_argument for a name that is not in the table.
    explicit Fault(const std::string& name);

    /// To be asked at each call.
    Answer OnCall();
    /// Whether this number, which is to be kept, is to be forgotten.
    bool IsForgotten(std::uint64_t number) const;
    /// Whether this signal is to be left out.
    bool IsLeftOut(std::uint64_t number) const;
    /// The status with which the process ends; may not return.
    int ExitStatus(int status) const;

private:
    enum class Kind {
        Nothing,
        Memory,
        Descriptor,
        Thread,
        Reply,
        Answer,
        Signal,
        Watchdog,
        Crash,
        Keep,
        Status,
        Hang
    };

    Kind mKind;
    std::atomic<std::uint64_t> mCalls{0};
};

}  // namespace soak
