#include <tern/typed/remote.h>

#include <utility>

#include "typed/bus_access.h"

namespace mwl::Typed {

Remote::Remote(const Bus& bus, std::string destination, std::string path)
    : mState(BusAccess::GetState(bus)), mDestination(std::move(destination)), mPath(std::move(path)) {}
Remote::~Remote() = default;

}  // namespace mwl::Typed
