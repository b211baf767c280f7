#include "process_execution/output_stream.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "foundation/error_text.h"
#include "process_execution/logger.h"

namespace mwl::ProcessExecution {

namespace {

/// A quarter of what a pipe holds by default: the first read of a full one lets the writer go on while the
/// rest is taken out.
constexpr std::size_t CHUNK = 16UL * 1024;
/// Bytes until the time limit is looked at again: about a millisecond's worth.
constexpr std::size_t PASS_LIMIT = 1024UL * 1024;
/// Longest piece of a line in the log.
constexpr std::size_t PIECE = 127;
/// The log level of the lines.
constexpr int TRACE_LEVEL = 7;

}  // namespace

OutputStream::OutputStream(std::string& output)
    : mOutput(output),
      mText(output),
      mTraced(output.size()),
      mBuffer(std::make_unique_for_overwrite<char[]>(CHUNK)) {}

StatusCode OutputStream::Open(UniqueFd pipe) {
    mStream.reset(fdopen(pipe.Get(), "r"));
    if (mStream == nullptr) {
        TERN_LOG_ERROR(LOGGER, "Open stream failed with error code: %s", ErrorText(errno));
        return StatusCode::StreamError;
    }
    static_cast<void>(pipe.Release());  // the stream closes it
    const int fd = fileno(mStream.get());
    if (fd < 0) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "Not able to get file descriptor for open stream: %s", ErrorText(error));
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "Not able to set open stream as non-blocking: %s", ErrorText(error));
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    mFd = fd;
    return StatusCode::Ok;
}

void OutputStream::Read(Clock::time_point until) {
    const std::size_t end = mOutput.size() + PASS_LIMIT;
    // Lines that an earlier call had no time for come first.
    bool more = TraceLines(false, until);
    while (more && mFd >= 0 && mOutput.size() < end) {
        more = ReadChunk(end - mOutput.size());
        more = TraceLines(!more, until) && more;
    }
}

void OutputStream::ReadRest(Clock::time_point until) {
    int available = 0;
    if (mFd >= 0) {
        // Not known how much: rather something that is written meanwhile than nothing.
        const bool isKnown = ioctl(mFd, FIONREAD, &available) == 0;
        const std::size_t end = mOutput.size() + (isKnown ? static_cast<std::size_t>(available) : PASS_LIMIT);
        while (mFd >= 0 && mOutput.size() < end && ReadChunk(end - mOutput.size())) {
        }
    }
    if (!TraceLines(true, until)) {
        TERN_LOG_TRACE(LOGGER, "Line %d and the following, %zu bytes, are not logged: the time is up", mLine,
                       mOutput.size() - mTraced);
    }
}

bool OutputStream::ReadChunk(std::size_t limit) {
    ssize_t count = 0;
    do {
        count = read(mFd, mBuffer.get(), std::min(limit, CHUNK));
    } while (count < 0 && errno == EINTR);
    if (count > 0) {
        mText.Append(mBuffer.get(), static_cast<std::size_t>(count));
        return true;
    }
    if (count < 0 && errno == EAGAIN) {
        return false;
    }
    if (count < 0) {
        TERN_LOG_ERROR(LOGGER, "Not able to read the output any further: %s", ErrorText(errno));
    }
    mFd = -1;  // polled no more; the stream still owns it
    return false;
}

bool OutputStream::TraceLines(bool all, Clock::time_point until) {
    if (!ProcessLogger::Writes(TRACE_LEVEL)) {
        mTraced = mOutput.size();
        return true;
    }
    while (mTraced < mOutput.size()) {
        const char* const begin = mOutput.data() + mTraced;
        const std::size_t length = std::min(mOutput.size() - mTraced, PIECE);
        const auto* const newline = static_cast<const char*>(memchr(begin, '\n', length));
        const std::size_t size = newline != nullptr ? static_cast<std::size_t>(newline - begin) + 1 : length;
        if (newline == nullptr && size < PIECE && !all) {
            return true;
        }
        if (Clock::now() >= until) {
            return false;
        }
        TERN_LOG_TRACE(LOGGER, "Line %d: %s", mLine, std::string(begin, size).c_str());
        ++mLine;
        mTraced += size;
    }
    return true;
}

}  // namespace mwl::ProcessExecution
