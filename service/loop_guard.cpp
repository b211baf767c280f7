#include "service/loop_guard.h"

#include <pthread.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <string_view>
#include <utility>

#include "service/thrown.h"

namespace mw::tern {

namespace {

constinit thread_local sd_bus* tBus = nullptr;
constinit thread_local bool tIsGuarded = false;
constinit thread_local bool tIsEnding = false;
constinit thread_local bool tHasThrown = false;

/// The terminate handler is the process's: set with the first thread, given back with the last.
std::mutex gMutex;
int gThreads = 0;
std::atomic<std::terminate_handler> gFormer{nullptr};

const char* OrEmpty(const char* text) {
    return text == nullptr ? "" : text;
}

void LogOfCall(sd_bus_message* message, const Thrown& thrown) {
    const char* const path = OrEmpty(sd_bus_message_get_path(message));
    const char* const interface = OrEmpty(sd_bus_message_get_interface(message));
    const char* const member = OrEmpty(sd_bus_message_get_member(message));
    if (std::string_view(interface) == "org.freedesktop.DBus.Properties") {
        // sd-bus answers these itself and calls the getters and setters for it.
        const char* owner = nullptr;
        const char* property = nullptr;
        const bool isAll = std::string_view(member) == "GetAll";
        if (sd_bus_message_rewind(message, 1) >= 0 && sd_bus_message_read_basic(message, 's', &owner) > 0 &&
            (isAll || sd_bus_message_read_basic(message, 's', &property) > 0)) {
            if (isAll) {
                TERN_LOG_CRITICAL(ServiceCommon::mLogger,
                                  "Reading the properties of %.255s on %.255s threw %s: %s", owner, path,
                                  thrown.Type(), thrown.Text());
            } else {
                TERN_LOG_CRITICAL(ServiceCommon::mLogger,
                                  "Access (%s) to property %.255s.%.255s on %.255s threw %s: %s", member,
                                  owner, property, path, thrown.Type(), thrown.Text());
            }
            return;
        }
    }
    TERN_LOG_CRITICAL(ServiceCommon::mLogger, "Handling method %s.%s on %.255s threw %s: %s", interface,
                      member, path, thrown.Type(), thrown.Text());
}

/// The message stays the connection's current one, because nothing was tidied up behind the exception.
void LogThrown(const Thrown& thrown) {
    TellThrown(thrown);
    sd_bus_message* const message = tBus == nullptr ? nullptr : sd_bus_get_current_message(tBus);
    uint8_t type = 0;
    if (message == nullptr || sd_bus_message_get_type(message, &type) < 0) {
        TERN_LOG_CRITICAL(ServiceCommon::mLogger, "Code run by the D-Bus thread threw %s: %s", thrown.Type(),
                          thrown.Text());
    } else if (type == SD_BUS_MESSAGE_METHOD_CALL) {
        LogOfCall(message, thrown);
    } else if (type == SD_BUS_MESSAGE_SIGNAL) {
        TERN_LOG_CRITICAL(ServiceCommon::mLogger, "Handling signal %s.%s of %.255s threw %s: %s",
                          OrEmpty(sd_bus_message_get_interface(message)),
                          OrEmpty(sd_bus_message_get_member(message)),
                          OrEmpty(sd_bus_message_get_path(message)), thrown.Type(), thrown.Text());
    } else {
        TERN_LOG_CRITICAL(ServiceCommon::mLogger, "Handling a reply threw %s: %s", thrown.Type(),
                          thrown.Text());
    }
}

[[noreturn]] void OnTerminate() {
    // The application's handler may call the one that it found, which was ours in an earlier service's life.
    if (std::exchange(tIsEnding, true)) {
        std::abort();
    }
    if (std::current_exception() != nullptr) {
        const Thrown thrown;
        if (tIsGuarded) {
            LogThrown(thrown);
            TERN_LOG_CRITICAL(ServiceCommon::mLogger, "Nothing can catch it: the process ends at once");
        } else {
            TellThrown(thrown);  // another thread's, whose log is the former handler's business
        }
    }
    if (const std::terminate_handler former = gFormer) {
        former();
    }
    std::abort();
}

/// In a forked child: of all threads only this one has come along.
void KeepOwnThread() noexcept {
    gThreads = tIsGuarded ? 1 : 0;
    if (gThreads == 0 && std::get_terminate() == OnTerminate) {
        std::set_terminate(gFormer);
    }
    gMutex.unlock();
}

[[maybe_unused]] const int gAtFork =
    pthread_atfork([] { gMutex.lock(); }, [] { gMutex.unlock(); }, &KeepOwnThread);

}  // namespace

int RunLoop(sd_event* event) {
    return Contain(
        -ENOTRECOVERABLE, [&] { return sd_event_loop(event); },
        [](const Thrown& thrown) {
            tHasThrown = true;
            LogThrown(thrown);
            sd_bus_close(tBus);
        });
}

void SetLoopBus(sd_bus* bus) {
    tBus = bus;
}

UncaughtLog::UncaughtLog() {
    tIsGuarded = true;
    tHasThrown = false;
    const std::lock_guard lock(gMutex);
    if (gThreads++ == 0) {
        gFormer = std::set_terminate(OnTerminate);
    }
}

bool UncaughtLog::HasLoopThrown() {
    return tHasThrown;
}

UncaughtLog::~UncaughtLog() {
    tIsGuarded = false;
    const std::lock_guard lock(gMutex);
    // A handler that the application has set meanwhile stays.
    if (--gThreads == 0 && std::get_terminate() == OnTerminate) {
        std::set_terminate(gFormer);
    }
}

}  // namespace mw::tern
