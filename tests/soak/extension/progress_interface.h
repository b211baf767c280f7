#pragma once

#include <tern/service/dbus_interface.h>

#include "progress.h"

namespace soak {

/// com.example.SoakProgress1: every counter of the progress as a property, and the signal Tick(t number),
/// whose numbers have no gap. D-Bus thread only.
class ProgressInterface : public mw::tern::DBusInterface {
public:
    /// The progress outlives the interface.
    explicit ProgressInterface(Progress& progress);

    const sd_bus_vtable* GetVtable() const override;
    void* GetUserData() override { return &mProgress; }

private:
    Progress& mProgress;
};

}  // namespace soak
