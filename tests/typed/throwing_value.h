#pragma once

#include <systemd/sd-bus.h>
#include <tern/typed/codec.h>

#include <stdexcept>

namespace mwl::Typed::Tests {

/// A value whose author's codec throws when it is read: what a codec of a user's own may do.
struct Odd {};

}  // namespace mwl::Typed::Tests

namespace mwl::Typed {

template <>
struct Codec<Tests::Odd> {
    static constexpr Text<1> SIGNATURE = "u";
    static int Write(sd_bus_message*, const Tests::Odd&) { return 0; }
    static int Read(sd_bus_message*, Tests::Odd&, Fault&) { throw std::runtime_error("odd"); }
};

}  // namespace mwl::Typed
