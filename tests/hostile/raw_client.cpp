#include "raw_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "dbus_message/raw_messages.h"
#include "names.h"

namespace hostile {

namespace {

using tern::test::WireHeader;

std::string Hexadecimal(const std::string& text) {
    std::string digits;
    for (const char c : text) {
        digits += "0123456789abcdef"[static_cast<unsigned char>(c) / 16];
        digits += "0123456789abcdef"[static_cast<unsigned char>(c) % 16];
    }
    return digits;
}

}  // namespace

RawClient::RawClient(const std::string& address) : mSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    const std::string path = address.substr(address.find('=') + 1);
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    if (connect(mSocket.Get(), reinterpret_cast<sockaddr*>(&name), sizeof name) != 0) {
        throw std::runtime_error("the bus does not take a connection");
    }
    using std::string_literals::operator""s;
    Write("\0AUTH EXTERNAL "s + Hexadecimal(std::to_string(getuid())) + "\r\n");
    char answer[256];
    if (read(mSocket.Get(), answer, sizeof answer) < 2 || std::string_view(answer, 2) != "OK") {
        throw std::runtime_error("the bus refuses this user");
    }
    Write("BEGIN\r\n");
    Send("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello", "", "");
}

void RawClient::Call(std::string_view member, std::string_view signature, std::string_view body) {
    Send(BUS_NAME, PATH, INTERFACE, member, signature, body);
}

void RawClient::Send(std::string_view destination, std::string_view path, std::string_view interface,
                     std::string_view member, std::string_view signature, std::string_view body) {
    const WireHeader header{WireHeader::MethodCall,
                            WireHeader::NO_REPLY_EXPECTED,
                            ++mSerial,
                            path,
                            interface,
                            member,
                            destination,
                            signature};
    Write(header.Bytes(body.size()));
    Write(body);
}

void RawClient::Write(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t written = send(mSocket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (written < 0 && errno != EINTR) {
            throw std::runtime_error("the bus has hung up");
        }
        bytes.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
}

}  // namespace hostile
