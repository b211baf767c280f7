#pragma once

#include <tern/foundation/api.h>
#include <tern/service/dbus_interface.h>

#include <list>
#include <string>

namespace mw::tern {

/// One object on the bus: its path and its interfaces, which it owns and deletes at its end. D-Bus thread
/// only.
class TERN_API DBusObjectSkeleton {
public:
    /// `path` is an object path, for example "/com/example/Thermostat"; nothing is checked here.
    explicit DBusObjectSkeleton(std::string path);
    virtual ~DBusObjectSkeleton();
    DBusObjectSkeleton(const DBusObjectSkeleton&) = delete;
    DBusObjectSkeleton& operator=(const DBusObjectSkeleton&) = delete;

    /// Appends the interface and takes it over. REQUIRES: it is not null, and no object owns it yet; nothing
    /// is checked here, and an interface added twice is deleted twice.
    /// DBusServerManager::AddInterfaceToDBusObject checks both. A second interface of the same name is
    /// refused by sd-bus when the object is exported.
    void AddInterface(DBusInterface* interface);

    /// As given to the constructor.
    const std::string& GetPath() const { return mPath; }
    /// In the order added.
    const std::list<DBusInterface*>& GetInterfaces() const { return mInterfaces; }

private:
    std::string mPath;
    std::list<DBusInterface*> mInterfaces;
};

}  // namespace mw::tern
