#pragma once

/// Marks what libtern-dbus-service exports; everything else stays hidden in the library.
#define TERN_API __attribute__((visibility("default")))
