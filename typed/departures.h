#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <list>
#include <set>
#include <string>

#include "typed/handles.h"
#include "typed/log_limit.h"

namespace mwl::Typed {

/// Reports which connections leave the bus. It listens only while somebody needs to know, and five seconds
/// longer: each departure of any connection of the system wakes the service meanwhile.
///
/// D-Bus thread only. Failures are logged (logger name "Typed"); departures are then not seen, and nothing
/// else happens.
class Departures {
public:
    /// Called with the unique name of a connection that has left.
    using Listener = std::function<void(const char* name)>;
    /// The unique names that matter now.
    using Names = std::function<std::set<std::string>()>;

    /// Does not listen yet. Both functions may be called until the destructor. Connection and loop outlive
    /// this.
    Departures(sd_bus* bus, sd_event* loop, Listener listener, Names names);
    ~Departures();
    Departures(const Departures&) = delete;
    Departures& operator=(const Departures&) = delete;

    /// Listens from now on. A connection that leaves before the bus has begun to report is found out as well.
    void Need() noexcept;
    /// Nobody needs it any more, for now.
    void Release() noexcept;

private:
    struct Question;

    static int OnLeft(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnListening(sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int OnOwner(sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int OnLinger(sd_event_source* source, uint64_t now, void* userdata);
    void AskForEach();

    sd_bus* const mBus;
    sd_event* const mLoop;
    const Listener mListener;
    const Names mNames;
    BusSlot mMatch;
    EventSource mLinger;
    bool mIsLingering = false;
    std::list<Question> mQuestions;
    LogLimit mLimit;
};

}  // namespace mwl::Typed
