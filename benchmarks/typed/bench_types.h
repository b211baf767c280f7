#pragma once

#include <tern/typed/fields.h>

#include <cstdint>
#include <string>

/// The common part of the servers and their client.
namespace bench {

constexpr const char* NAME = "com.example.Bench";
constexpr const char* PATH = "/com/example/Bench";
constexpr const char* INTERFACE = "com.example.Bench1";

struct Item {
    double value = 0.0;
    std::string name;
};
struct Options {
    std::uint32_t seconds = 0;
    std::string note;

    static constexpr auto DBusFields() {
        return mwl::Typed::Fields(mwl::Typed::Field("Seconds", &Options::seconds),
                                  mwl::Typed::Field("Note", &Options::note));
    }
};

}  // namespace bench
