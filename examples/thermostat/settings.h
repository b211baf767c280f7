#pragma once

#include <tern/foundation/status_code.h>

#include <string>

namespace thermostat {

/// The content of the thermostat's INI file. Attributes are optional, unknown ones are refused:
///
///     target=20          degrees Celsius until the first one is set, 5 to 30
///     sampling_ms=100    10 to 1000
///     state_folder=/var/lib/tern-thermostat
///     log_folder=/var/log/tern-thermostat
///     debug=0            1 offers the method Trial, which breaks the service in several ways
struct Settings {
    double target = 20.0;
    unsigned int samplingMs = 100;
    std::string stateFolder = "/var/lib/tern-thermostat";
    std::string logFolder = "/var/log/tern-thermostat";
    bool debug = false;
};

/// Reads the file at `path`.
///
/// - Ok: `settings` holds what the file says.
/// - InvalidArgument: an attribute is not known or has a bad value; logged with its line and what it may be.
/// - otherwise the parser's status, logged.
///
/// After a failure `settings` holds what was read before.
mw::tern::StatusCode LoadSettings(const std::string& path, Settings& settings);

}  // namespace thermostat
