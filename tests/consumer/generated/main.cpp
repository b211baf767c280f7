#include <tern/typed/bus.h>

#include <cstdio>

#include "room_contract.h"
#include "room_proxy.h"
#include "room_skeleton.h"

namespace {

class Room final : public acme::Room1Skeleton {
private:
    mwl::Typed::Outcome<std::uint64_t> Boost(std::uint32_t seconds) override { return seconds + 1; }
    double GetTemperature() const override { return 20.0; }
};

}  // namespace

int main() {
    Room room;
    const sd_bus_vtable* const vtable = room.GetVtable();
    mwl::Typed::Bus bus;
    const acme::Room1Proxy proxy(bus, "com.example.Room", "/com/example/Room");
    const bool isGood = vtable[1].type == _SD_BUS_VTABLE_METHOD && proxy.GetRemote() != nullptr;
    return isGood && mwl::Typed::WriteIntrospection<acme::Room1>(stdout) == mwl::StatusCode::Ok ? 0 : 1;
}
