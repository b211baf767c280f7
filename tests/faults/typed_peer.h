#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <thread>

#include "foundation/handle.h"

namespace tern::test {

/// The service that a typed client talks to, by sd-bus alone and on a thread of its own: nothing of it fails.
///
///     Add(uu) -> u                 the sum
///     Echo(...) -> ...             what it gets, whatever it is
///     Fail()                       com.example.Error.Asked, a text that is long
///     Hold()                       never answered
///     Tell(u)                      sends the signal Told(us)
///     Change(u)                    Level is that number, Mode changes; announced with and without the value
///     Make(o), Take(o)             objects below ROOT that come and go
///     Level u, Mode u, Note s      the last one is writable
class TypedPeer {
public:
    static constexpr const char* ROOT = "/com/example/peer";
    static constexpr const char* PATH = "/com/example/peer/Main";
    static constexpr const char* INTERFACE = "com.example.FaultsPeer1";

    /// Owns `name` until its end.
    explicit TypedPeer(std::string name);
    ~TypedPeer();
    TypedPeer(const TypedPeer&) = delete;
    TypedPeer& operator=(const TypedPeer&) = delete;

    const std::string& Name() const { return mName; }
    /// Whether it has its name.
    bool IsReady() const { return mIsThere; }
    /// Gives its name up, or takes it again, soon.
    void SetThere(bool isThere) { mWanted = isThere; }

private:
    using Slot = mwl::Handle<sd_bus_slot, sd_bus_slot_unref>;

    void Serve();
    static const sd_bus_vtable* Table();
    static int OnAdd(sd_bus_message* call, void* self, sd_bus_error* error);
    static int OnEcho(sd_bus_message* call, void* self, sd_bus_error* error);
    static int OnFail(sd_bus_message* call, void* self, sd_bus_error* error);
    static int OnHold(sd_bus_message* call, void* self, sd_bus_error* error);
    static int OnTell(sd_bus_message* call, void* self, sd_bus_error* error);
    static int OnChange(sd_bus_message* call, void* self, sd_bus_error* error);
    static int OnMake(sd_bus_message* call, void* self, sd_bus_error* error);
    static int OnTake(sd_bus_message* call, void* self, sd_bus_error* error);
    static int GetLevel(sd_bus* bus, const char* path, const char* interface, const char* property,
                        sd_bus_message* reply, void* self, sd_bus_error* error);
    static int GetMode(sd_bus* bus, const char* path, const char* interface, const char* property,
                       sd_bus_message* reply, void* self, sd_bus_error* error);
    static int GetNote(sd_bus* bus, const char* path, const char* interface, const char* property,
                       sd_bus_message* reply, void* self, sd_bus_error* error);
    static int SetNote(sd_bus* bus, const char* path, const char* interface, const char* property,
                       sd_bus_message* value, void* self, sd_bus_error* error);

    const std::string mName;
    sd_bus* mBus = nullptr;
    std::atomic<bool> mWanted{true};
    std::atomic<bool> mStopping{false};
    /// Written by its thread once that runs.
    std::atomic<bool> mIsThere{false};
    // Of its thread.
    std::map<std::string, Slot> mItems;
    std::uint32_t mLevel = 1;
    std::uint32_t mMode = 1;
    std::string mNote = "a note that does not fit into the string itself";
    std::thread mThread;
};

}  // namespace tern::test
