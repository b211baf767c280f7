#include "measurement_channel.h"

#include <sys/epoll.h>
#include <systemd/sd-event.h>
#include <tern/foundation/log.h>

#include <cerrno>
#include <cstring>

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
    // A control loop that waits for a blank message comes back at once.
    mBlank.Close();
    // With the lock held the control loop holds no message: all of them are in the pipes, or were refused.
    const std::lock_guard lock(mSending);
    mClosed = true;
    for (sd_bus_message* const message : mRefused) {
        sd_bus_message_unref(message);
        --mLent;
    }
    mRefused.clear();
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
    mFilled.Close();
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
    if (mFilled.WriteMessage(message) != StatusCode::Ok) {
        mRefused.push_back(message);
        return false;
    }
    return r >= 0;
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
    if (mFilled.ReadMessage(message) != StatusCode::Ok) {
        return StatusCode::Ok;  // logged; nothing was taken
    }
    --mLent;
    const int r = Announce(message);
    sd_bus_message_unref(message);
    if (r < 0 && ++mLost == 1) {
        TERN_LOG_WARNING(LOGGER, "Measurements cannot be sent (%d, %s)", r, strerrordesc_np(-r));
    } else if (r >= 0 && mLost > 0) {
        TERN_LOG_NOTICE(LOGGER, "Measurements are sent again, %lu were lost", mLost);
        mLost = 0;
    }
    // What could not be lent again, for want of memory, is lent with the next one.
    while (mLent < BLANK_MESSAGES && Lend() == StatusCode::Ok) {
    }
    // Any other result would have the loop switch the pipe off for good, in a service that looks healthy.
    // Without a single message on its way nothing would come here again: then it fails, and is restarted.
    return mLent > 0 ? StatusCode::Ok : EndAsFailed();
}

int MeasurementChannel::Announce(sd_bus_message* message) {
    double celsius = 0.0;
    // Sending seals the message, so that it can be read like a received one.
    int r = sd_bus_send(mBus, message, nullptr);
    if (r >= 0) {
        r = sd_bus_message_read(message, "d", &celsius);
    }
    if (r >= 0) {
        mOnMeasured(mBus, celsius);
    }
    return r;
}

StatusCode MeasurementChannel::EndAsFailed() {
    TERN_LOG_CRITICAL(LOGGER, "No message is left to carry measurements");
    sd_event_exit(sd_bus_get_event(mBus), -ENOMEM);
    return StatusCode::OutOfMemory;
}

}  // namespace thermostat
