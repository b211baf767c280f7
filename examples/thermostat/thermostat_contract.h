#pragma once

#include <tern/typed/contract.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace thermostat {

namespace Typed = mwl::Typed;

/// com.example.Thermostat1: what the thermostat shows on the bus, the one description for service, client and
/// documents.
struct Thermostat1 {
    static constexpr const char* NAME = "com.example.Thermostat1";

    static constexpr Typed::Method<void(std::uint32_t)> Boost{
        "Boost", {"seconds"}, Typed::OPEN, "Heats for a while, an hour at most, whatever the target says."};
    static constexpr Typed::Method<std::string(std::string_view)> ExportLog{
        "ExportLog",
        {"password", "archive"},
        Typed::OPEN | Typed::SENSITIVE,
        "Packs the log folder, encrypted, and answers with the archive's path when it is complete, or with "
        "the reason why it is not. One at a time, com.example.Thermostat1.Error.Busy otherwise."};
    static constexpr Typed::Method<void(std::string_view)> Trial{
        "Trial", {"what"}, Typed::OPEN | Typed::HIDDEN, "Only with debug=1: breaks the service."};

    static constexpr Typed::Property<double> Temperature{"Temperature", Typed::EMITS,
                                                         "The last measurement, degrees Celsius."};
    static constexpr Typed::WritableProperty<double> Target{
        "Target", Typed::EMITS | Typed::OPEN, "5 to 30 degrees Celsius; anything else is refused."};
    static constexpr Typed::Property<bool> Heating{"Heating", Typed::EMITS, "Whether the heater is on."};

    static constexpr Typed::Signal<double> Measured{"Measured", {"celsius"}, {}, "Every measurement."};
    static constexpr Typed::Signal<std::string_view, std::string_view> LogExported{
        "LogExported", {"path", "status"}, {}, "An export has ended."};

    static constexpr Typed::Members<Boost, ExportLog, Trial, Temperature, Target, Heating, Measured,
                                    LogExported>
        ALL{};
};

}  // namespace thermostat
