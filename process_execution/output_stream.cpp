#include "process_execution/output_stream.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <tern/foundation/log.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "foundation/error_text.h"
#include "process_execution/logger.h"

namespace mwl::ProcessExecution {

namespace {

/// What a pipe holds by default: one read empties it.
constexpr std::size_t CHUNK = 64UL * 1024;
/// Bytes until the time limit is looked at again: about a millisecond's worth.
constexpr std::size_t PASS_LIMIT = 1024UL * 1024;
/// Longest piece of a line in the log.
constexpr std::size_t PIECE = 127;
/// The log level of the lines.
constexpr int TRACE_LEVEL = 7;

}  // namespace

OutputStream::OutputStream(std::string& output)
    : mOutput(output), mTraced(output.size()), mBuffer(std::make_unique_for_overwrite<char[]>(CHUNK)) {}

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
    // Unbuffered: the chunk below is the buffer, and what the pipe holds is always what is left to read.
    static_cast<void>(setvbuf(mStream.get(), nullptr, _IONBF, 0));
    mFd = fd;
    return StatusCode::Ok;
}

void OutputStream::Read() {
    if (mFd >= 0) {
        ReadUpTo(PASS_LIMIT);
    }
}

void OutputStream::ReadRest() {
    int available = 0;
    if (mFd >= 0) {
        // Not known how much: rather something that is written meanwhile than nothing.
        const bool isKnown = ioctl(mFd, FIONREAD, &available) == 0;
        ReadUpTo(isKnown ? static_cast<std::size_t>(available) : PASS_LIMIT);
    }
    TraceLines(true);
}

void OutputStream::ReadUpTo(std::size_t limit) {
    bool empty = false;
    while (limit > 0 && !empty) {
        const std::size_t wanted = std::min(limit, CHUNK);
        const std::size_t count = fread(mBuffer.get(), 1, wanted, mStream.get());
        const int error = errno;
        mOutput.append(mBuffer.get(), count);
        limit -= count;
        if (count < wanted) {
            const bool failed = ferror(mStream.get()) != 0;
            clearerr(mStream.get());
            empty = !(failed && error == EINTR);
            if (empty && !(failed && error == EAGAIN)) {
                mFd = -1;  // its end: polled no more; the stream still owns it
            }
        }
    }
    TraceLines(empty);
}

void OutputStream::TraceLines(bool all) {
    if (!ProcessLogger::Writes(TRACE_LEVEL)) {
        mTraced = mOutput.size();
        return;
    }
    while (mTraced < mOutput.size()) {
        const char* const begin = mOutput.data() + mTraced;
        const std::size_t length = std::min(mOutput.size() - mTraced, PIECE);
        const auto* const newline = static_cast<const char*>(memchr(begin, '\n', length));
        const std::size_t size = newline != nullptr ? static_cast<std::size_t>(newline - begin) + 1 : length;
        if (newline == nullptr && size < PIECE && !all) {
            return;
        }
        TERN_LOG_TRACE(LOGGER, "Line %d: %s", mLine, std::string(begin, size).c_str());
        ++mLine;
        mTraced += size;
    }
}

}  // namespace mwl::ProcessExecution
