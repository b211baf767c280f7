#include <tern/parser/ini_parser.h>

#include <fcntl.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "foundation/unique_fd.h"
#include "platform/static_text.h"

namespace mwl::Parser {

namespace {

const StaticText LOGGER("mwl::Parser");
const StaticText SECTION_OPENER("[");
const StaticText SECTION_CLOSER("]");

/// The lines of a file, which ends for it at the first read that fails. Not a std::ifstream: a program that
/// another thread starts meanwhile would inherit its descriptor.
class LineReader {
public:
    explicit LineReader(const std::string& path) : mFile(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}

    bool IsOpen() const { return static_cast<bool>(mFile); }
    bool HasFailed() const { return mHasFailed; }

    /// Stores the next line without its newline; false behind the last. A line that breaks off is none.
    bool Next(std::string& line) {
        line.clear();
        bool hasBegun = false;
        while (mNext < mEnd || Fill()) {
            hasBegun = true;
            const char* const begin = mBuffer.data() + mNext;
            const char* const end = mBuffer.data() + mEnd;
            const char* const newline = std::find(begin, end, '\n');
            line.append(begin, newline);
            mNext += static_cast<std::size_t>(newline - begin);
            if (newline != end) {
                ++mNext;
                return true;
            }
        }
        return hasBegun && !mHasFailed;
    }

private:
    bool Fill() {
        ssize_t count = 0;
        do {
            count = read(mFile.Get(), mBuffer.data(), mBuffer.size());
        } while (count < 0 && errno == EINTR);
        mHasFailed = count < 0;
        mNext = 0;
        mEnd = count > 0 ? static_cast<std::size_t>(count) : 0;
        return count > 0;
    }

    const UniqueFd mFile;
    std::array<char, 4096> mBuffer;
    std::size_t mNext = 0;
    std::size_t mEnd = 0;
    bool mHasFailed = false;
};

}  // namespace

mw::tern::StatusCode IniParser::Parse(const std::string& path, std::map<std::string, std::string>& values) {
    const StatusCode exists = mwl::Utilities::FileSystem::CheckFileExist(path);
    if (exists != StatusCode::Ok) {
        return exists;
    }
    LineReader file(path);
    if (!file.IsOpen()) {
        TERN_LOG_ERROR(LOGGER, "Error opening file [%s]", path.c_str());
        return StatusCode::OpenFailed;
    }
    std::string line;
    std::string attribute;
    std::string value;
    while (file.Next(line)) {
        // Fixed by the interface: anywhere in the line, a value included. The header says so.
        const std::size_t opener = line.find(SECTION_OPENER);
        if (opener != std::string::npos) {
            if (line.find(SECTION_CLOSER, opener) == std::string::npos) {
                TERN_LOG_ERROR(LOGGER, "Section badly defined --> %s", line.c_str());
                return StatusCode::InvalidArgument;
            }
            TERN_LOG_INFO(LOGGER, "Find section %s", line.c_str());
            continue;
        }
        if (ParseAttributeValue(line, attribute, value) == 0) {
            return StatusCode::InvalidArgument;
        }
        values.insert_or_assign(attribute, value);
    }
    // A read error ends the lines as the end of the file does: a folder, which opens like a file, would pass
    // for an empty one, and a file that broke off for a whole one.
    if (file.HasFailed()) {
        TERN_LOG_ERROR(LOGGER, "Error reading file [%s]", path.c_str());
        return StatusCode::IoError;
    }
    return StatusCode::Ok;
}

int IniParser::ParseAttributeValue(const std::string& line, std::string& attribute, std::string& value) {
    attribute.clear();
    value.clear();
    const std::size_t separator = line.find('=');
    if (separator == std::string::npos) {
        TERN_LOG_ERROR(LOGGER, "Attribute and value badly defined --> %s", line.c_str());
        return 0;
    }
    attribute.assign(line, 0, separator);
    value.assign(line, separator + 1);
    TERN_LOG_INFO(LOGGER, "attribute: %s ---- value: %s", attribute.c_str(), value.c_str());
    return 1;
}

}  // namespace mwl::Parser
