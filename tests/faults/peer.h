#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <string>
#include <thread>

namespace tern::test {

/// Another service on the bus, on a thread of its own, for clients to talk to: answers GetAll for "/", has a
/// request socket address and lets itself be asked to reboot.
class Peer {
public:
    /// Owns `name` and the name of the device's own extension until its end.
    explicit Peer(const std::string& name);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// Whether it has its names.
    bool IsReady() const { return mReady; }

private:
    void Serve();

    sd_bus* mBus = nullptr;
    bool mReady = false;
    std::atomic<bool> mStopping{false};
    std::thread mThread;
};

}  // namespace tern::test
