#pragma once

#include <tern/typed/contract.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace thermostat {

/// com.example.Thermostat1: what the thermostat shows on the bus, the one description for service, client and
/// documents.
struct Thermostat1 {
    template <class F>
    using Method = mwl::Typed::Method<F>;
    template <class T>
    using Property = mwl::Typed::Property<T>;
    template <class T>
    using WritableProperty = mwl::Typed::WritableProperty<T>;
    template <class... A>
    using Signal = mwl::Typed::Signal<A...>;

    static constexpr auto OPEN = mwl::Typed::OPEN;
    static constexpr auto EMITS = mwl::Typed::EMITS;

    static constexpr const char* NAME = "com.example.Thermostat1";

    static constexpr Method<void(std::uint32_t)> Boost{
        "Boost", {"seconds"}, OPEN, "Heats for a while, an hour at most, whatever the target says."};
    static constexpr Method<std::string(std::string_view)> ExportLog{
        "ExportLog",
        {"password", "archive"},
        OPEN | mwl::Typed::SENSITIVE,
        "Packs the log folder, encrypted, and answers with the archive's path when it is complete, or with "
        "the reason why it is not. One at a time, com.example.Thermostat1.Error.Busy otherwise."};
    static constexpr Method<void(std::string_view)> Trial{
        "Trial", {"what"}, OPEN | mwl::Typed::HIDDEN, "Only with debug=1: breaks the service."};

    static constexpr Property<double> Temperature{"Temperature", EMITS,
                                                  "The last measurement, degrees Celsius."};
    static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN,
                                                     "5 to 30 degrees Celsius; anything else is refused."};
    static constexpr Property<bool> Heating{"Heating", EMITS, "Whether the heater is on."};

    static constexpr Signal<double> Measured{"Measured", {"celsius"}, {}, "Every measurement."};
    static constexpr Signal<std::string_view, std::string_view> LogExported{
        "LogExported", {"path", "status"}, {}, "An export has ended."};

    static constexpr mwl::Typed::Members<Boost, ExportLog, Trial, Temperature, Target, Heating, Measured,
                                         LogExported>
        ALL{};
};

}  // namespace thermostat
