// The same with plain sd-bus, in C++.

#include <systemd/sd-bus.h>

#include <string>

int main() {
    const std::string name = "org.example.Name";
    return sd_bus_interface_name_is_valid(name.c_str()) > 0 ? 0 : 1;
}
