// fails once with: D-Bus has no characters: use std::uint8_t for a number, std::string for text
#include <tern/typed/codec.h>

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

using namespace mwl::Typed;

#ifdef MENDED
using Value = std::map<std::string, std::uint32_t>;
#else
using Value = std::map<std::string, wchar_t>;
#endif

static_assert(SIGNATURE<Value>.SIZE > 0);

int Send(sd_bus_message* message, const Value& value) {
    return Write(message, value);
}

int Receive(sd_bus_message* message, Value& value, Fault& fault) {
    return Read(message, value, fault);
}
