#pragma once

#include <string>

namespace soak {

/// The soaked extension's names on the bus, shared by the extension and its clients.
inline const std::string BUS_NAME = "com.example.Soak";
inline const std::string OBJECT_PATH = "/com/example/Soak";
/// On OBJECT_PATH: what the extension has done so far, and the signal Tick.
inline const std::string PROGRESS_INTERFACE = "com.example.SoakProgress1";
/// On one object for each client.
inline const std::string CLIENT_INTERFACE = "com.example.SoakClient1";

inline std::string ClientPath(unsigned int client) {
    return OBJECT_PATH + "/client" + std::to_string(client);
}

/// What every reply to a refused call says.
inline const std::string REFUSAL = "com.example.Soak.Error.Refused";

}  // namespace soak
