#pragma once

#include <string>

namespace my_thermostat {

inline const std::string BUS_NAME = "com.example.MyThermostat";
inline const std::string OBJECT_PATH = "/com/example/MyThermostat";

}  // namespace my_thermostat
