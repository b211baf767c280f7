#pragma once

namespace hostile {

/// The service under attack, its one object, and its interface.
inline constexpr const char* BUS_NAME = "com.example.Attacked";
inline constexpr const char* PATH = "/com/example/Attacked";
inline constexpr const char* INTERFACE = "com.example.Attacked";
/// A service that takes calls and answers none.
inline constexpr const char* MUTE_NAME = "com.example.Mute";

}  // namespace hostile
