#pragma once

#include <string>

namespace thermostat {

/// The extension's names on the bus, shared by the service and its client.
inline const std::string BUS_NAME = "com.example.Thermostat";
inline const std::string OBJECT_PATH = "/com/example/Thermostat";

/// The extension's logger name.
inline const std::string LOGGER = "Thermostat";

/// Limits of the target temperature in degrees Celsius.
constexpr double MIN_TARGET = 5.0;
constexpr double MAX_TARGET = 30.0;

}  // namespace thermostat
