#include <tern/service/dbus_object_skeleton.h>

#include <utility>

namespace mw::tern {

DBusObjectSkeleton::DBusObjectSkeleton(std::string path) : mPath(std::move(path)) {}

DBusObjectSkeleton::~DBusObjectSkeleton() {
    for (const DBusInterface* interface : mInterfaces) {
        delete interface;
    }
}

void DBusObjectSkeleton::AddInterface(DBusInterface* interface) {
    mInterfaces.push_back(interface);
}

}  // namespace mw::tern
