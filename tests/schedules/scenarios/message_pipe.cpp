// The message pipe with two writers: full, and closed.

#include <fcntl.h>
#include <tern/service/message_pipe.h>

#include <algorithm>
#include <array>
#include <thread>

#include "../scenario.h"
#include "foundation/unique_fd.h"

namespace tern::schedules {

namespace {

using mw::tern::MessagePipe;
using mw::tern::StatusCode;

/// A page holds one.
using Message = std::array<char, 4096>;

/// As small as a pipe can be.
void MakeSmall(const MessagePipe& pipe) {
    Promise(fcntl(pipe.GetWriteFd(), F_SETPIPE_SZ, 4096) == 4096, "a pipe of one page can be had");
}

bool Write(MessagePipe& pipe, char content) {
    Message message;
    message.fill(content);
    const StatusCode status = pipe.WriteMessage(message.data(), message.size());
    Promise(status == StatusCode::Ok || status == StatusCode::IoError, "written, or refused as closed");
    return status == StatusCode::Ok;
}

bool Read(MessagePipe& pipe, unsigned timeoutMs) {
    Message message;
    const StatusCode status = pipe.ReadMessage(message.data(), message.size(), timeoutMs);
    Promise(status == StatusCode::Ok || status == StatusCode::Timeout || status == StatusCode::IoError,
            "read, nothing there in time, or closed: a look that found something is not in vain");
    if (status == StatusCode::Ok) {
        Promise(std::all_of(message.begin(), message.end(), [&](char byte) { return byte == message[0]; }),
                "a message arrives whole");
    }
    return status == StatusCode::Ok;
}

}  // namespace

TERN_SCENARIO(pipe_two_writers, "two writers fill it, and one reader empties it") {
    MessagePipe pipe;
    Promise(pipe.Initialize() == StatusCode::Ok, "there are pipes");
    MakeSmall(pipe);
    const auto write = [&](char content) {
        Call("writer");
        Promise(Write(pipe, content) && Write(pipe, content), "both are written");
    };
    std::thread one([&] { write('1'); });
    std::thread other([&] { write('2'); });
    int messages = 0;
    while (messages < 4) {
        messages += Read(pipe, 1000) ? 1 : 0;
    }
    one.join();
    other.join();
    Promise(Engine::Get()->IdleTime() == 0, "nobody waits for a time-out");
}

TERN_SCENARIO(pipe_closed_while_full, "it is closed while two write to a full one, by the reader") {
    MessagePipe pipe;
    Promise(pipe.Initialize() == StatusCode::Ok, "there are pipes");
    MakeSmall(pipe);
    int written[2] = {0, 0};
    std::thread one([&] {
        Call("writer");
        written[0] = (Write(pipe, '1') ? 1 : 0) + (Write(pipe, '1') ? 1 : 0);
    });
    std::thread other([&] {
        Call("writer");
        written[1] = Write(pipe, '2') ? 1 : 0;
    });
    int messages = Read(pipe, 1) ? 1 : 0;
    {
        const Stopping stopping(1);
        pipe.Close();
        one.join();
        other.join();
    }
    while (Read(pipe, 1)) {
        ++messages;
    }
    Promise(written[0] + written[1] == messages, "what was told as written is read, and nothing else");
}

TERN_SCENARIO(pipe_closed_beside_reader, "it is closed by a third while one writes and one reads") {
    MessagePipe pipe;
    Promise(pipe.Initialize() == StatusCode::Ok, "there are pipes");
    MakeSmall(pipe);
    int written = 0;
    int messages = 0;
    std::thread writer([&] {
        Call("writer");
        while (written < 2 && Write(pipe, '1')) {
            ++written;
        }
    });
    std::thread reader([&] {
        Call("reader");
        while (Read(pipe, 100000)) {
            ++messages;
        }
    });
    {
        const Stopping stopping;
        pipe.Close();
        writer.join();
        reader.join();
    }
    while (Read(pipe, 1)) {
        ++messages;
    }
    Promise(written == messages, "what was told as written is read, and nothing else");
}

TERN_SCENARIO(pipe_closed_twice, "two close it while one writes") {
    MessagePipe pipe;
    Promise(pipe.Initialize() == StatusCode::Ok, "there are pipes");
    MakeSmall(pipe);
    int written = 0;
    std::thread writer([&] {
        Call("writer");
        while (written < 2 && Write(pipe, '1')) {
            ++written;
        }
    });
    std::thread other([&] {
        Call("closer");
        pipe.Close();
    });
    {
        const Stopping stopping;
        pipe.Close();
        other.join();
        writer.join();
    }
    int messages = 0;
    while (Read(pipe, 1)) {
        ++messages;
    }
    Promise(written == messages, "what was told as written is read, and nothing else");
}

TERN_SCENARIO(pipe_closed_again, "it is closed while full, made anew, and closed while one writes") {
    MessagePipe pipe;
    Promise(pipe.Initialize() == StatusCode::Ok, "there are pipes");
    MakeSmall(pipe);
    Promise(Write(pipe, '1'), "there is room");
    const mwl::UniqueFd former(pipe.GetReadFd());
    const auto writeWhileOneCloses = [&] {
        std::thread closer([&] {
            Call("closer");
            const Stopping stopping;
            pipe.Close();
        });
        const bool isWritten = Write(pipe, '2');
        closer.join();
        return isWritten;
    };
    int written = 1 + (writeWhileOneCloses() ? 1 : 0);
    int messages = 0;
    while (Read(pipe, 1)) {
        ++messages;
    }
    Promise(pipe.Initialize() == StatusCode::Ok, "there are pipes");
    written += writeWhileOneCloses() ? 1 : 0;
    while (Read(pipe, 1)) {
        ++messages;
    }
    Promise(written == messages, "what was told as written is read, and nothing else");
}

}  // namespace tern::schedules
