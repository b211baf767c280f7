#pragma once

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "foundation/unique_fd.h"
#include "test_messages.h"

namespace tern::test {

/// The byte order of a message, as it says itself.
enum class ByteOrder : char { Little = 'l', Big = 'B' };

/// Writes D-Bus's wire format.
class WireWriter {
public:
    explicit WireWriter(ByteOrder order = ByteOrder::Little) : mOrder(order) {}

    void Align(std::size_t to) { mBytes.resize((mBytes.size() + to - 1) / to * to, '\0'); }
    void Byte(unsigned value) { mBytes += static_cast<char>(value); }
    void Uint32(std::size_t value) {
        Align(4);
        const std::size_t at = mBytes.size();
        mBytes.resize(at + 4);
        PatchUint32(at, value);
    }
    /// A number of any size, its bytes being those of the integer `value`.
    template <typename T>
    void Number(T value) {
        Align(sizeof value);
        const std::size_t at = mBytes.size();
        mBytes.resize(at + sizeof value);
        Patch(at, static_cast<std::uint64_t>(value), sizeof value);
    }
    void String(std::string_view text) {
        Uint32(text.size());
        mBytes.append(text);
        Byte(0);
    }
    void Signature(std::string_view text) {
        Byte(static_cast<unsigned>(text.size()));
        mBytes.append(text);
        Byte(0);
    }
    /// Where an array's length stands and where its first element begins.
    struct Array {
        std::size_t lengthAt;
        std::size_t start;
    };
    /// Begins an array whose elements are aligned to `alignment`; what is written up to EndArray is in it.
    Array BeginArray(std::size_t alignment) {
        Uint32(0);
        const std::size_t lengthAt = mBytes.size() - 4;
        Align(alignment);
        return {lengthAt, mBytes.size()};
    }
    void EndArray(const Array& array) { PatchUint32(array.lengthAt, mBytes.size() - array.start); }
    const std::string& Bytes() const { return mBytes; }

private:
    void PatchUint32(std::size_t at, std::size_t value) { Patch(at, value, 4); }
    void Patch(std::size_t at, std::uint64_t value, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            const std::size_t shift = mOrder == ByteOrder::Little ? i : size - 1 - i;
            mBytes[at + i] = static_cast<char>(value >> (8 * shift) & 0xff);
        }
    }

    ByteOrder mOrder;
    std::string mBytes;
};

/// What stands before a message's body. Empty texts are left out.
struct WireHeader {
    enum Type : unsigned { MethodCall = 1, Signal = 4 };
    static constexpr unsigned NO_REPLY_EXPECTED = 1;

    Type type;
    unsigned flags;
    std::uint32_t serial;
    std::string_view path;
    std::string_view interface;
    std::string_view member;
    std::string_view destination;
    std::string_view signature;

    /// The header of a body of so many bytes, padded up to where that begins.
    std::string Bytes(std::size_t bodySize, ByteOrder order = ByteOrder::Little) const {
        WireWriter header(order);
        header.Byte(static_cast<unsigned char>(order));
        header.Byte(type);
        header.Byte(flags);
        header.Byte(1);
        header.Uint32(bodySize);
        header.Uint32(serial);
        const WireWriter::Array fields = header.BeginArray(8);
        const auto field = [&](unsigned code, std::string_view kind, std::string_view value) {
            if (value.empty()) {
                return;
            }
            header.Align(8);
            header.Byte(code);
            header.Signature(kind);
            if (kind == "g") {
                header.Signature(value);
            } else {
                header.String(value);
            }
        };
        field(1, "o", path);
        field(2, "s", interface);
        field(3, "s", member);
        field(6, "s", destination);
        field(8, "g", signature);
        header.EndArray(fields);
        header.Align(8);
        return header.Bytes();
    }
};

/// Delivers signals with any signature and any bytes for a body, as a hostile peer would: over a socket, past
/// sd-bus's own checks of what arrives.
class RawMessages {
public:
    RawMessages() {
        int ends[2];
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
        mPeer.Reset(ends[1]);
        sd_bus* bus = nullptr;
        Require(sd_bus_new(&bus), "sd_bus_new");
        mBus.reset(bus);
        Require(sd_bus_set_fd(bus, ends[0], ends[0]), "sd_bus_set_fd");
        const sd_id128_t id{};
        Require(sd_bus_set_server(bus, 1, id), "sd_bus_set_server");
        Require(sd_bus_set_anonymous(bus, 1), "sd_bus_set_anonymous");
        Require(sd_bus_set_trusted(bus, 1), "sd_bus_set_trusted");
        Require(sd_bus_start(bus), "sd_bus_start");
        using std::string_view_literals::operator""sv;
        Write("\0AUTH ANONYMOUS 74657374\r\nBEGIN\r\n"sv);
        for (int i = 0; i < 100 && sd_bus_is_ready(bus) <= 0; ++i) {
            Require(sd_bus_process(bus, nullptr), "sd_bus_process");
        }
        Require(sd_bus_is_ready(bus) - 1, "authentication");
    }

    /// The message as it arrived; null when sd-bus dropped it as malformed.
    BusMessage Deliver(std::string_view signature, std::string_view body,
                       ByteOrder order = ByteOrder::Little) {
        const WireHeader header{WireHeader::Signal, 0,        ++mSerial, "/org/example",
                                "org.example.If",   "Signal", "",        signature};
        return Transfer(header.Bytes(body.size(), order).append(body));
    }

private:
    void Write(std::string_view bytes) {
        if (write(mPeer.Get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            throw std::runtime_error("write to the bus's socket");
        }
    }

    /// Writes what the socket takes, lets the bus read it, and so on.
    BusMessage Transfer(std::string_view bytes) {
        for (;;) {
            if (!bytes.empty()) {
                const ssize_t sent =
                    send(mPeer.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
                if (sent > 0) {
                    bytes.remove_prefix(static_cast<std::size_t>(sent));
                }
            }
            sd_bus_message* message = nullptr;
            const int r = sd_bus_process(mBus.get(), &message);
            Require(r, "sd_bus_process");
            if (message != nullptr) {
                return BusMessage(message);
            }
            if (r == 0 && bytes.empty()) {
                return nullptr;
            }
        }
    }

    mwl::UniqueFd mPeer;
    Bus mBus;
    std::uint32_t mSerial = 0;
};

}  // namespace tern::test
