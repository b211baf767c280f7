#pragma once

#include <tern/foundation/log.h>

#include <cmath>
#include <cstddef>

#include "dbus_message/logged_text.h"

namespace mw::tern::DBusMessage {

/// The log of one parse, held within bounds: a message of megabytes would otherwise write as many lines as it
/// has entries, and keep the thread for as long as the log takes them. Lines past the bounds are counted, and
/// summed up in one line when the parse ends, at the level of the most severe among them.
///
/// Log through TERN_PARSE_LOG, with texts of the message passed through Text. Below the threshold a line
/// costs what it costs without bounds, one byte read and a branch, and does not count.
class ParseLog {
public:
    static constexpr int ERROR = 3;
    static constexpr int INFO = 6;
    static constexpr int TRACE = 7;

    /// Lines of one parse, and bytes: those of the texts, and LINE_BYTES a line for what is around them,
    /// which is between 60 and 140. The line that reaches the limit is still written.
    static constexpr unsigned LINES = 512;
    static constexpr std::size_t BYTES = std::size_t{64} * 1024;
    static constexpr std::size_t LINE_BYTES = 96;
    /// The last of these are kept for errors, so that what failed is not crowded out by what was read.
    static constexpr unsigned LINES_FOR_ERRORS = 128;
    static constexpr std::size_t BYTES_FOR_ERRORS = std::size_t{16} * 1024;

    ParseLog() = default;
    /// Sums up what was left out, if any.
    ~ParseLog() {
        if (mLeftOut != 0) {
            SumUp();
        }
    }
    ParseLog(const ParseLog&) = delete;
    ParseLog& operator=(const ParseLog&) = delete;

    /// Whether a line of this level is to be written now; counts it, either way, unless the threshold is
    /// below it.
    bool Admits(int level) { return mwl::ProcessLogger::Writes(level) && Count(level); }

    /// A text as it is logged, its bytes counted. Lives as long as the log call.
    LoggedText Text(const char* text) { return {text, mBytes}; }

    /// A number as it is logged, its length counted where that is out of the ordinary.
    template <typename Number>
    Number Shown(Number number) {
        return number;
    }
    double Shown(double number) {
        if (std::fabs(number) > 1e20) {
            mBytes += 300;  // "%f" writes all digits
        }
        return number;
    }

private:
    bool Count(int level);
    void SumUp() const;

    unsigned mLines = 0;
    std::size_t mBytes = 0;
    std::size_t mLeftOut = 0;
    int mMostSevere = TRACE;  ///< of those left out
};

}  // namespace mw::tern::DBusMessage

/// TERN_LOG_ERROR, TERN_LOG_INFO or TERN_LOG_TRACE within the bounds of a ParseLog.
#define TERN_PARSE_LOG(parseLog, LEVEL, ...)                               \
    do {                                                                   \
        if ((parseLog).Admits(::mw::tern::DBusMessage::ParseLog::LEVEL)) { \
            TERN_LOG_##LEVEL(__VA_ARGS__);                                 \
        }                                                                  \
    } while (false)
