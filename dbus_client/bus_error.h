#pragma once

#include <systemd/sd-bus.h>

namespace mw::tern {

/// Owner of the error that sd-bus calls fill in, freed at the end of its block.
class BusError {
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&mError); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    sd_bus_error* Get() { return &mError; }

private:
    sd_bus_error mError{};  // SD_BUS_ERROR_NULL, which is C only
};

}  // namespace mw::tern
