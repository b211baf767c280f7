#include "progress_interface.h"

#include <systemd/sd-bus.h>

#include <cstddef>

#include "names.h"

namespace soak {

namespace {

/// The user data is the counter itself: sd-bus adds the offset.
int OnGetCounter(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
                 sd_bus_error*) {
    return sd_bus_message_append(reply, "t", static_cast<const Progress::Counter*>(userdata)->load());
}

}  // namespace

ProgressInterface::ProgressInterface(Progress& progress)
    : DBusInterface(PROGRESS_INTERFACE), mProgress(progress) {}

const sd_bus_vtable* ProgressInterface::GetVtable() const {
    static const sd_bus_vtable table[] = {
        SdBusVtableStart(0),
        SdBusProperty("Commands", "t", &OnGetCounter, offsetof(Progress, commands), 0),
        SdBusProperty("Archives", "t", &OnGetCounter, offsetof(Progress, archives), 0),
        SdBusProperty("Reloads", "t", &OnGetCounter, offsetof(Progress, reloads), 0),
        SdBusProperty("FolderEvents", "t", &OnGetCounter, offsetof(Progress, folderEvents), 0),
        SdBusProperty("FolderRestarts", "t", &OnGetCounter, offsetof(Progress, folderRestarts), 0),
        SdBusProperty("TimerTicks", "t", &OnGetCounter, offsetof(Progress, timerTicks), 0),
        SdBusProperty("OnceTicks", "t", &OnGetCounter, offsetof(Progress, onceTicks), 0),
        SdBusProperty("ShortTicks", "t", &OnGetCounter, offsetof(Progress, shortTicks), 0),
        SdBusProperty("ClientCalls", "t", &OnGetCounter, offsetof(Progress, clientCalls), 0),
        SdBusProperty("ClientSignals", "t", &OnGetCounter, offsetof(Progress, clientSignals), 0),
        SdBusProperty("ClientChanges", "t", &OnGetCounter, offsetof(Progress, clientChanges), 0),
        SdBusProperty("ClientWatches", "t", &OnGetCounter, offsetof(Progress, clientWatches), 0),
        SdBusProperty("Failures", "t", &OnGetCounter, offsetof(Progress, failures), 0),
        SdBusSignal("Tick", "t", 0),
        SdBusVtableEnd()};
    return table;
}

}  // namespace soak
