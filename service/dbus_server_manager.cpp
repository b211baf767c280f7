#include <tern/service/dbus_server_manager.h>

#include <systemd/sd-event.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "foundation/error_text.h"
#include "foundation/handle.h"
#include "foundation/tell.h"
#include "service/hang_up.h"
#include "service/loop_guard.h"
#include "service/message_batch.h"
#include "service/vtable_fault.h"

namespace mw::tern {

using mwl::ErrorText;
using mwl::DBusService::HangUp;

namespace {

/// How long a bus that has not answered yet may still do so once the process has been asked to stop. A bus
/// that works at all answers in this time, and the process then starts and stops in order.
constexpr std::chrono::seconds AFTER_STOP_SIGNAL{1};

/// How long the end of the loop waits for the bus to take what is queued for it. A bus that reads at all
/// takes megabytes in this time, and the rest of a unit's TimeoutStopSec=5 is for the workers.
constexpr std::chrono::seconds FLUSH_LIMIT{2};

/// Goes before sd-bus's own part in the end of the loop, which flushes without a limit and closes.
constexpr int BEFORE_SD_BUS = SD_EVENT_PRIORITY_NORMAL - 1;

/// Of the loop and its connection.
struct Turn {
    explicit Turn(sd_bus* connection) noexcept : bus(connection), batch(connection) {}
    sd_bus* bus;
    MessageBatch batch;
};

int FlushWithinTheLimit(sd_event_source*, void* userdata) {
    auto* const bus = static_cast<sd_bus*>(userdata);
    // A loop that ends does not wait once more.
    TERN_TELL(TurnEnded, turn_ended, bus, 0);
    std::uint64_t queued = 0;
    if (sd_bus_is_open(bus) <= 0 ||
        (sd_bus_is_ready(bus) > 0 && sd_bus_get_n_queued_write(bus, &queued) >= 0 && queued == 0)) {
        return 0;
    }
    const HangUp limit(bus, HangUp::From::Now, FLUSH_LIMIT);
    int r = limit.IsArmed() ? sd_bus_flush(bus) : -EAGAIN;
    if (r < 0) {
        r = limit.HasHungUp() ? -ETIMEDOUT : r;
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to send what is queued for the bus (%d, %s)", r,
                       ErrorText(-r));
        sd_bus_close(bus);
    }
    return 0;
}

/// Runs before each wait of the loop.
///
/// A connection that is lost, or closed by anybody, has left its loop by then; so none of the filters and
/// matches that see the signal of it can keep the service alive. A filter, from which one of the
/// application's could hide the signal, costs a call some 200 instructions less, which its processor time
/// does not show.
int BeforeEachWait(sd_event_source* source, void* userdata) {
    auto& turn = *static_cast<Turn*>(userdata);
    TERN_TELL(TurnEnded, turn_ended, turn.bus, 0);
    if (sd_bus_get_event(turn.bus) != nullptr) {
        turn.batch.BeforeWait();
        return 0;
    }
    TERN_TELL_NAMED(StateChanged, state_changed, turn.bus, 0, "lost-bus");
    // sd-bus's own exit-on-disconnect would give a positive code, which counts as success.
    return sd_event_exit(sd_event_source_get_event(source), -ECONNRESET);
}

int NeverCalled(sd_event_source*, uint64_t, void*) {
    return 0;
}

}  // namespace

struct DBusServerManager::State {
    /// The objects by path, and every interface that one of them owns: what the lists would be walked for.
    /// The texts are the objects' own.
    std::unordered_map<std::string_view, DBusObjectSkeleton*> objects;
    std::unordered_set<const DBusInterface*> interfaces;
    /// The vtables that sd-bus has accepted.
    std::unordered_set<const sd_bus_vtable*> soundTables;
    std::unique_ptr<Turn> turn;
    /// Has the loop look at the connection before it waits: a timer that never expires.
    mwl::Handle<sd_event_source, sd_event_source_disable_unref> beforeWait;
    /// Bounds the flush when the loop ends.
    mwl::Handle<sd_event_source, sd_event_source_disable_unref> flush;
};

DBusServerManager::DBusServerManager(const std::string& name)
    : mName(name), mState(std::make_unique<State>()) {}

DBusServerManager::~DBusServerManager() {
    if (mState->beforeWait != nullptr) {
        SetLoopBus(nullptr);
    }
    // The bus before the loop, of which the sources hold a reference; they cannot fire between the two. The
    // interfaces, which are deleted later, may ask for it.
    mBus = sd_bus_unref(mBus);
    mState.reset();
}

StatusCode DBusServerManager::Connect() {
    if (mBus != nullptr) {
        return MakeStatusCodeFromReturnCode(-EISCONN);
    }
    int r = sd_bus_default_system(&mBus);
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to connect to system bus (%d, %s)", r, ErrorText(-r));
    } else if (!mName.empty()) {
        HangUp limit(mBus, HangUp::From::StopSignal, AFTER_STOP_SIGNAL);
        r = sd_bus_request_name(mBus, mName.c_str(), 0);
        // Not before nothing hangs up any more: that may happen behind the answer.
        limit.End();
        r = limit.HasHungUp() ? -EINTR : r;
        if (r < 0) {
            TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to acquire name '%s', (%d, %s)", mName.c_str(), r,
                           ErrorText(-r));
        }
    }
    return MakeStatusCodeFromReturnCode(r);
}

StatusCode DBusServerManager::AttachLoop(EventLoop& loop) {
    if (loop.GetEvent() == nullptr) {
        return MakeStatusCodeFromReturnCode(-EINVAL);
    }
    auto turn = std::make_unique<Turn>(mBus);
    sd_event_source* source = nullptr;
    int r =
        sd_event_add_time(loop.GetEvent(), &source, CLOCK_MONOTONIC, UINT64_MAX, 0, NeverCalled, turn.get());
    decltype(State::beforeWait) beforeWait(source);
    if (r >= 0) {
        r = sd_event_source_set_prepare(source, BeforeEachWait);
    }
    if (r >= 0) {
        r = turn->batch.Open(loop.GetEvent());
    }
    source = nullptr;
    if (r >= 0) {
        r = sd_event_add_exit(loop.GetEvent(), &source, FlushWithinTheLimit, mBus);
    }
    decltype(State::flush) flush(source);
    if (r >= 0) {
        r = sd_event_source_set_priority(source, BEFORE_SD_BUS);
    }
    if (r >= 0) {
        r = sd_bus_attach_event(mBus, loop.GetEvent(), SD_EVENT_PRIORITY_NORMAL);
    }
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to attach event loop (%d, %s)", r, ErrorText(-r));
    } else {
        mState->turn = std::move(turn);
        mState->beforeWait = std::move(beforeWait);
        mState->flush = std::move(flush);
        SetLoopBus(mBus);
    }
    return MakeStatusCodeFromReturnCode(r);
}

StatusCode DBusServerManager::AddDBusObject(const std::string& path) {
    if (FindObject(path) != nullptr) {
        return MakeStatusCodeFromReturnCode(-EINVAL);
    }
    DBusObjectSkeleton& object = mObjects.emplace_back(path);
    try {
        mState->objects.emplace(object.GetPath(), &object);
    } catch (...) {
        mObjects.pop_back();
        throw;
    }
    return MakeStatusCodeFromReturnCode(0);
}

StatusCode DBusServerManager::AddInterfaceToDBusObject(const std::string& path, DBusInterface* interface) {
    DBusObjectSkeleton* const object = FindObject(path);
    if (object == nullptr) {
        return MakeStatusCodeFromReturnCode(-EINVAL);
    }
    if (interface == nullptr) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Refused to add a null interface to DBus object: %s",
                       path.c_str());
        return MakeStatusCodeFromReturnCode(-EINVAL);
    }
    const auto [added, isNew] = mState->interfaces.insert(interface);
    if (!isNew) {
        TERN_LOG_ERROR(ServiceCommon::mLogger,
                       "Refused to add interface: %s to DBus object: %s, it belongs to an object already",
                       interface->GetName().c_str(), path.c_str());
        return MakeStatusCodeFromReturnCode(-EINVAL);
    }
    try {
        object->AddInterface(interface);
    } catch (...) {
        mState->interfaces.erase(added);
        throw;
    }
    return MakeStatusCodeFromReturnCode(0);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as callers have it
StatusCode DBusServerManager::AddMatch(sd_bus_slot** slot, std::string match,
                                       sd_bus_message_handler_t handler, void* userdata) {
    return MakeStatusCodeFromReturnCode(sd_bus_add_match(mBus, slot, match.c_str(), handler, userdata));
}

StatusCode DBusServerManager::ExportObject(const std::string& path) {
    const DBusObjectSkeleton* const object = FindObject(path);
    if (object == nullptr) {
        return MakeStatusCodeFromReturnCode(-EINVAL);
    }
    int r = 0;
    for (DBusInterface* const interface : object->GetInterfaces()) {
        const sd_bus_vtable* const table = interface->GetVtable();
        // As a rule many objects share one table.
        const VtableFault fault =
            mState->soundTables.count(table) > 0 ? VtableFault() : FindVtableFault(table);
        r = fault.error < 0
                ? fault.error
                : sd_bus_add_object_vtable(mBus, nullptr, path.c_str(), interface->GetName().c_str(), table,
                                           interface->GetUserData());
        if (r < 0) {
            TERN_LOG_ERROR(ServiceCommon::mLogger,
                           "sd_bus_add_object_vtable FAILED for interface: %s in DBus object: %s",
                           interface->GetName().c_str(), path.c_str());
            // Fixed by the interface: wording and newline.
            TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to issue method call: %s\n", ErrorText(-r));
            if (fault.kind != nullptr) {
                TERN_LOG_ERROR(ServiceCommon::mLogger,
                               "Refused entry %zu of the vtable of interface: %s, %s '%s' (%d, %s)",
                               fault.index, interface->GetName().c_str(), fault.kind, fault.member,
                               fault.error, ErrorText(-fault.error));
            }
            break;
        }
        mState->soundTables.insert(table);
    }
    return MakeStatusCodeFromReturnCode(r);
}

DBusObjectSkeleton* DBusServerManager::FindObject(const std::string& path) {
    const auto found = mState->objects.find(path);
    return found == mState->objects.end() ? nullptr : found->second;
}

}  // namespace mw::tern
