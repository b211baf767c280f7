#include "typed_peer.h"

#include <signal.h>

#include <utility>

namespace tern::test {

namespace {

constexpr std::uint64_t PROCESSING_PERIOD_US = 2000;
constexpr const char* ITEM = "com.example.FaultsItem1";
// An earlier one may not have been noticed gone yet.
constexpr std::uint64_t FLAGS = SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING;

int GetLabel(sd_bus*, const char* path, const char*, const char*, sd_bus_message* reply, void*,
             sd_bus_error*) {
    return sd_bus_message_append(reply, "s", path);
}

const sd_bus_vtable ITEM_TABLE[] = {SD_BUS_VTABLE_START(0),
                                    SD_BUS_PROPERTY("Label", "s", GetLabel, 0, SD_BUS_VTABLE_PROPERTY_CONST),
                                    SD_BUS_VTABLE_END};

TypedPeer& Self(void* self) {
    return *static_cast<TypedPeer*>(self);
}

}  // namespace

const sd_bus_vtable* TypedPeer::Table() {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Add", "uu", "u", OnAdd, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("EchoText", "s", "s", OnEcho, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("EchoMixed", "a{sv}a(ds)asv", "a{sv}a(ds)asv", OnEcho, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Fail", "", "", OnFail, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Hold", "", "", OnHold, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Tell", "u", "", OnTell, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Change", "u", "", OnChange, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Make", "o", "", OnMake, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Take", "o", "", OnTake, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_PROPERTY("Level", "u", GetLevel, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_PROPERTY("Mode", "u", GetMode, 0, SD_BUS_VTABLE_PROPERTY_EMITS_INVALIDATION),
        SD_BUS_WRITABLE_PROPERTY("Note", "s", GetNote, SetNote, 0,
                                 SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL("Told", "us", 0),
        SD_BUS_VTABLE_END};
    return table;
}

TypedPeer::TypedPeer(std::string name) : mName(std::move(name)) {
    mIsThere = sd_bus_open_system(&mBus) >= 0 && sd_bus_add_object_manager(mBus, nullptr, ROOT) >= 0 &&
               sd_bus_add_object_vtable(mBus, nullptr, PATH, INTERFACE, Table(), this) >= 0 &&
               sd_bus_request_name(mBus, mName.c_str(), FLAGS) >= 0;
    // The extension's signals are not for this thread.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    mThread = std::thread([this] { Serve(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TypedPeer::~TypedPeer() {
    mStopping = true;
    mThread.join();
    mItems.clear();
    sd_bus_flush_close_unref(mBus);
}

void TypedPeer::Serve() {
    while (!mStopping) {
        const int r = sd_bus_process(mBus, nullptr);
        if (r < 0) {
            return;
        }
        if (mWanted != mIsThere) {
            const bool wanted = mWanted;
            const int done = wanted ? sd_bus_request_name(mBus, mName.c_str(), FLAGS)
                                    : sd_bus_release_name(mBus, mName.c_str());
            if (done < 0) {
                return;
            }
            mIsThere = wanted;
        }
        if (r == 0) {
            static_cast<void>(sd_bus_wait(mBus, PROCESSING_PERIOD_US));
        }
    }
}

int TypedPeer::OnAdd(sd_bus_message* call, void*, sd_bus_error*) {
    std::uint32_t a = 0;
    std::uint32_t b = 0;
    const int r = sd_bus_message_read(call, "uu", &a, &b);
    return r < 0 ? r : sd_bus_reply_method_return(call, "u", a + b);
}

int TypedPeer::OnEcho(sd_bus_message* call, void*, sd_bus_error*) {
    sd_bus_message* made = nullptr;
    int r = sd_bus_message_new_method_return(call, &made);
    const mwl::Handle<sd_bus_message, sd_bus_message_unref> reply(made);
    if (r >= 0) {
        r = sd_bus_message_copy(reply.get(), call, 1);
    }
    return r < 0 ? r : sd_bus_message_send(reply.get());
}

int TypedPeer::OnFail(sd_bus_message* call, void*, sd_bus_error*) {
    return sd_bus_reply_method_errorf(call, "com.example.Error.Asked", "text that is long enough for memory");
}

int TypedPeer::OnHold(sd_bus_message*, void*, sd_bus_error*) {
    return 1;
}

int TypedPeer::OnTell(sd_bus_message* call, void* self, sd_bus_error*) {
    std::uint32_t number = 0;
    int r = sd_bus_message_read(call, "u", &number);
    if (r >= 0) {
        r = sd_bus_emit_signal(Self(self).mBus, PATH, INTERFACE, "Told", "us", number,
                               "text that is long enough for memory");
    }
    return r < 0 ? r : sd_bus_reply_method_return(call, "");
}

int TypedPeer::OnChange(sd_bus_message* call, void* self, sd_bus_error*) {
    std::uint32_t number = 0;
    int r = sd_bus_message_read(call, "u", &number);
    Self(self).mLevel = number;
    ++Self(self).mMode;
    if (r >= 0) {
        r = sd_bus_emit_properties_changed(Self(self).mBus, PATH, INTERFACE, "Level", "Mode", nullptr);
    }
    return r < 0 ? r : sd_bus_reply_method_return(call, "");
}

int TypedPeer::OnMake(sd_bus_message* call, void* self, sd_bus_error*) {
    const char* path = nullptr;
    int r = sd_bus_message_read(call, "o", &path);
    if (r >= 0) {
        sd_bus_slot* made = nullptr;
        r = sd_bus_add_object_vtable(Self(self).mBus, &made, path, ITEM, ITEM_TABLE, self);
        Slot slot(made);
        if (r >= 0) {
            Self(self).mItems.insert_or_assign(path, std::move(slot));
            r = sd_bus_emit_interfaces_added(Self(self).mBus, path, ITEM, nullptr);
        }
    }
    return r < 0 ? r : sd_bus_reply_method_return(call, "");
}

int TypedPeer::OnTake(sd_bus_message* call, void* self, sd_bus_error*) {
    const char* path = nullptr;
    int r = sd_bus_message_read(call, "o", &path);
    if (r >= 0) {
        r = sd_bus_emit_interfaces_removed(Self(self).mBus, path, ITEM, nullptr);
        Self(self).mItems.erase(path);
    }
    return r < 0 ? r : sd_bus_reply_method_return(call, "");
}

int TypedPeer::GetLevel(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self,
                        sd_bus_error*) {
    return sd_bus_message_append(reply, "u", Self(self).mLevel);
}

int TypedPeer::GetMode(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self,
                       sd_bus_error*) {
    return sd_bus_message_append(reply, "u", Self(self).mMode);
}

int TypedPeer::GetNote(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self,
                       sd_bus_error*) {
    return sd_bus_message_append(reply, "s", Self(self).mNote.c_str());
}

int TypedPeer::SetNote(sd_bus* bus, const char* path, const char* interface, const char* property,
                       sd_bus_message* value, void* self, sd_bus_error*) {
    const char* note = nullptr;
    const int r = sd_bus_message_read(value, "s", &note);
    if (r < 0) {
        return r;
    }
    Self(self).mNote = note;
    return sd_bus_emit_properties_changed(bus, path, interface, property, nullptr);
}

}  // namespace tern::test
