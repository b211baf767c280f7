#include "other_client.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "foundation/handle.h"
#include "names.h"
#include "support/wait_until.h"

namespace hostile {

namespace {

using Bus = mwl::Handle<sd_bus, sd_bus_flush_close_unref>;

/// Longer than any attack holds the service up.
constexpr std::uint64_t PATIENCE_US = 300'000'000;
constexpr std::chrono::milliseconds PAUSE{5};

Bus Open() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) {
        throw std::runtime_error("no bus");
    }
    sd_bus_set_method_call_timeout(bus, PATIENCE_US);
    return Bus(bus);
}

int Ping(sd_bus* bus, unsigned& done) {
    sd_bus_message* answer = nullptr;
    const int r = sd_bus_call_method(bus, BUS_NAME, PATH, INTERFACE, "Ping", nullptr, &answer, nullptr);
    const mwl::Handle<sd_bus_message, sd_bus_message_unref> reply(answer);
    return r < 0 ? r : sd_bus_message_read(answer, "u", &done);
}

}  // namespace

OtherClient::OtherClient() {
    const Bus bus = Open();
    unsigned done = 0;
    if (!tern::test::WaitUntil([&] { return Ping(bus.get(), done) >= 0; })) {
        throw std::runtime_error("the service does not answer");
    }
    mThread = std::thread([this] { Run(); });
}

OtherClient::~OtherClient() {
    mStop = true;
    mThread.join();
}

void OtherClient::Run() {
    const Bus bus = Open();
    while (!mStop) {
        const auto start = std::chrono::steady_clock::now();
        unsigned done = mDone;
        if (Ping(bus.get(), done) < 0) {
            ++mFailures;
        }
        const auto took =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        mLongestMs = std::max(mLongestMs.load(), static_cast<long>(took.count()));
        mDone = done;
        std::this_thread::sleep_for(PAUSE);
    }
}

}  // namespace hostile
