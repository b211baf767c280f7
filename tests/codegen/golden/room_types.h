#pragma once

// Types of the author's own, which room.xml names.
namespace room_types {

struct Point {
    double x = 0.0;
    double y = 0.0;
};

}  // namespace room_types
