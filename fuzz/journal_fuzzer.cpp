#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "platform/basic_log/log_sink.h"
#include "platform/basic_log/log_socket.h"

// Messages of arbitrary bytes, by programs of arbitrary names, on their way to the journal and to syslog:
// what is sent is read by a plain reading of the journal's protocol and of a syslog line. Nothing in a text
// or a name becomes a field or a line of its own. An input is one byte for the level and the way, one for the
// length of the program's name, the name, the text.

namespace {

using mwl::Log::Sent;

void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

struct Datagram {
    std::string path;
    std::string bytes;
};
std::vector<Datagram> gSent;
/// For the first attempt of each message.
Sent gAnswer = Sent::Yes;

struct Field {
    std::string name;
    std::string value;
};

/// As systemd's documentation of the native protocol has it: "NAME=VALUE\n", or "NAME\n", the length as 64
/// bits with the least byte first, the value and "\n".
std::vector<Field> FieldsOf(std::string_view entry) {
    std::vector<Field> fields;
    while (!entry.empty()) {
        const std::size_t end = entry.find('\n');
        Require(end != std::string_view::npos);
        const std::string_view line = entry.substr(0, end);
        entry.remove_prefix(end + 1);
        const std::size_t sign = line.find('=');
        if (sign != std::string_view::npos) {
            fields.push_back({std::string(line.substr(0, sign)), std::string(line.substr(sign + 1))});
            continue;
        }
        Require(entry.size() >= 8);
        std::uint64_t size = 0;
        for (std::size_t i = 8; i > 0; --i) {
            size = size << 8 | static_cast<unsigned char>(entry[i - 1]);
        }
        entry.remove_prefix(8);
        Require(size < entry.size() && entry[size] == '\n');
        fields.push_back({std::string(line), std::string(entry.substr(0, size))});
        entry.remove_prefix(size + 1);
    }
    return fields;
}

bool IsControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

bool IsOneLine(std::string_view text) {
    for (const char c : text) {
        if (IsControl(c)) {
            return false;
        }
    }
    return true;
}

void CheckEntry(const std::string& entry, int level, std::string_view text) {
    const std::vector<Field> fields = FieldsOf(entry);
    Require(fields.size() == 4);
    Require(fields[0].name == "PRIORITY" && fields[0].value == std::to_string(level));
    Require(fields[1].name == "SYSLOG_IDENTIFIER");
    Require(fields[2].name == "TID" && fields[2].value == std::to_string(gettid()));
    Require(fields[3].name == "MESSAGE" && fields[3].value == text);
}

void CheckLine(std::string_view line, int level) {
    const std::string priority = "<" + std::to_string(8 | level) + ">";
    Require(line.substr(0, priority.size()) == priority && IsOneLine(line));
}

std::string Content(int file) {
    struct stat status {};
    Require(fstat(file, &status) == 0);
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    Require(pread(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    const int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
    Require(fcntl(file, F_GET_SEALS) == seals);
    return bytes;
}

}  // namespace

namespace mwl::Log {

// Stands in for the way to the daemons.
Sent SendToLogSocket(const char* path, iovec* parts, std::size_t count, int file, Patience&) noexcept {
    const Sent answer = gAnswer;
    gAnswer = Sent::Yes;
    if (answer != Sent::Yes) {
        return answer;
    }
    std::string bytes = file >= 0 ? Content(file) : "";
    for (std::size_t i = 0; i < count; ++i) {
        bytes.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
    }
    gSent.push_back({path, bytes});
    return Sent::Yes;
}

Sent SendToLogStream(const char* path, const iovec* parts, std::size_t count, Patience& patience) noexcept {
    return SendToLogSocket(path, const_cast<iovec*>(parts), count, -1, patience);
}

}  // namespace mwl::Log

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const int level = data[0] % 8;
    const bool isJournal = (data[0] & 8) != 0;
    const bool isOnDetour = (data[0] & 16) != 0;
    // The name of a program ends at a zero byte.
    std::string name(input.substr(2, data[1]));
    name.resize(std::string_view(name.c_str()).size());
    const std::string_view text = input.substr(2 + std::min<std::size_t>(data[1], size - 2));

    char* const own = program_invocation_short_name;
    program_invocation_short_name = name.data();
    std::vector<char> framed(mwl::Log::FRAME_ROOM + text.size() + mwl::Log::FRAME_ROOM);
    text.copy(framed.data() + mwl::Log::FRAME_ROOM, text.size());
    gSent.clear();
    gAnswer = !isOnDetour ? Sent::Yes : isJournal ? Sent::TooLarge : Sent::Stream;
    mwl::Log::WriteMessage(isJournal ? mwl::Log::Sink::Journal : mwl::Log::Sink::Syslog, level,
                           framed.data() + mwl::Log::FRAME_ROOM, text.size());
    program_invocation_short_name = own;

    Require(gSent.size() == 1);
    if (isJournal) {
        Require(gSent.front().path == "/run/systemd/journal/socket");
        CheckEntry(gSent.front().bytes, level, text);
    } else {
        Require(gSent.front().path == "/dev/log");
        CheckLine(gSent.front().bytes, level);
    }
    return 0;
}
