#include "measurement_channel.h"

#include <sys/epoll.h>

#include "names.h"

using mw::tern::StatusCode;

namespace thermostat {

namespace {

constexpr int BLANK_MESSAGES = 4;
constexpr unsigned int PATIENCE_MS = 100;

/// Takes one message, waiting for it at most `patienceMs`; null when there is none.
sd_bus_message* Take(mw::tern::DBusMessagePipe& pipe, unsigned int patienceMs) {
    sd_bus_message* message = nullptr;
    // The waiting read belongs to the base class, which carries any bytes.
    mw::tern::MessagePipe& bytes = pipe;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): a message of this pipe is a pointer
    return bytes.ReadMessage(static_cast<void*>(&message), sizeof message, patienceMs) == StatusCode::Ok
               ? message
               : nullptr;
}

}  // namespace

StatusCode MeasurementChannel::Open(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop,
                                    std::function<void(sd_bus*, double)> onMeasured) {
    mBus = manager.GetBus();
    mOnMeasured = std::move(onMeasured);
    StatusCode status = mBlank.Initialize();
    if (status == StatusCode::Ok) {
        status = mFilled.Initialize();
    }
    for (int i = 0; i < BLANK_MESSAGES && status == StatusCode::Ok; ++i) {
        status = Lend();
    }
    if (status == StatusCode::Ok) {
        status = loop.AddIo(mFilled.GetReadFd(), EPOLLIN,
                            [this](sd_event_source*, int, unsigned int) { return OnFilled(); });
    }
    return status;
}

void MeasurementChannel::Close() {
    // With the lock held the control loop holds no message: all of them are in the pipes.
    const std::lock_guard lock(mSending);
    mClosed = true;
    while (mLent > 0) {
        sd_bus_message* message = Take(mFilled, 1);
        if (message == nullptr) {
            message = Take(mBlank, 1);
        }
        if (message != nullptr) {
            sd_bus_message_unref(message);
            --mLent;
        }
    }
}

bool MeasurementChannel::Send(double celsius) {
    const std::lock_guard lock(mSending);
    if (mClosed) {
        return false;
    }
    sd_bus_message* const message = Take(mBlank, PATIENCE_MS);
    if (message == nullptr) {
        return false;
    }
    // Filled or not, it goes back to its thread.
    const int r = sd_bus_message_append(message, "d", celsius);
    return mFilled.WriteMessage(message) == StatusCode::Ok && r >= 0;
}

StatusCode MeasurementChannel::Lend() {
    sd_bus_message* message = nullptr;
    const int r =
        sd_bus_message_new_signal(mBus, &message, OBJECT_PATH.c_str(), INTERFACE_NAME.c_str(), "Measured");
    if (r < 0) {
        return mw::tern::MakeStatusCodeFromReturnCode(r);
    }
    const StatusCode status = mBlank.WriteMessage(message);
    if (status == StatusCode::Ok) {
        ++mLent;
    } else {
        sd_bus_message_unref(message);
    }
    return status;
}

StatusCode MeasurementChannel::OnFilled() {
    sd_bus_message* message = nullptr;
    const StatusCode status = mFilled.ReadMessage(message);
    if (status != StatusCode::Ok) {
        return status;
    }
    --mLent;
    double celsius = 0.0;
    // Sending seals the message, so that it can be read like a received one.
    int r = sd_bus_send(mBus, message, nullptr);
    if (r >= 0) {
        r = sd_bus_message_read(message, "d", &celsius);
    }
    if (r >= 0) {
        mOnMeasured(mBus, celsius);
    }
    sd_bus_message_unref(message);
    const StatusCode lent = Lend();
    return r < 0 ? mw::tern::MakeStatusCodeFromReturnCode(r) : lent;
}

}  // namespace thermostat
