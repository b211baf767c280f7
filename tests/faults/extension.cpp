#include "extension.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/service/dbus_interface.h>

#include <cerrno>
#include <memory>

#include "client.h"

namespace tern::test {

namespace {

using mw::tern::StatusCode;

const std::string PATH = "/com/example/Faults";
const std::string INTERFACE = "com.example.Faults";

class FaultsInterface : public mw::tern::DBusInterface {
public:
    FaultsInterface() : DBusInterface(INTERFACE) {}

    const sd_bus_vtable* GetVtable() const override {
        static const sd_bus_vtable table[] = {
            SdBusVtableStart(0), SdBusMethod("Count", "a{sv}", "u", &OnCount, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusWritableProperty("Target", "u", nullptr, nullptr, 0, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusVtableEnd()};
        return table;
    }
    void* GetUserData() override { return &mTarget; }

private:
    static int OnCount(sd_bus_message* message, void* /*target*/, sd_bus_error* /*error*/) {
        mw::tern::DBusMessage::ASVsignatureParser parser;
        parser.SetMessage(message);
        const int r = parser.ParseMessage();
        if (r < 0) {
            return r;  // sd-bus answers with it
        }
        return sd_bus_reply_method_return(message, "u", static_cast<unsigned>(parser.GetValuesList().Size()));
    }

    unsigned mTarget = 0;
};

}  // namespace

StatusCode ExtensionServer::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    mLoop = &loop;
    mBusFd = sd_bus_get_fd(manager.GetBus());
    StatusCode status = manager.AddDBusObject(PATH);
    auto interface = std::make_unique<FaultsInterface>();
    if (status == StatusCode::Ok) {
        status = manager.AddInterfaceToDBusObject(PATH, interface.get());
    }
    if (status == StatusCode::Ok) {
        static_cast<void>(interface.release());  // the object's now
        status = manager.ExportObject(PATH);
    }
    if (status == StatusCode::Ok) {
        status = manager.AddMatch(
            &mMatch, "type='signal',interface='com.example.Faults',member='Ping'",
            [](sd_bus_message*, void*, sd_bus_error*) { return 0; }, nullptr);
    }
    if (status == StatusCode::Ok) {
        status = mPipe.Initialize();
    }
    if (status == StatusCode::Ok) {
        status = loop.AddIo(mPipe.GetReadFd(), EPOLLIN,
                            [this](sd_event_source*, int, unsigned int) { return OnMessage(); });
    }
    return status;
}

StatusCode ExtensionServer::OnMessage() {
    sd_bus_message* message = nullptr;
    if (mPipe.ReadMessage(message) == StatusCode::Ok) {
        if (mRemoveWatch) {
            mRemovalStatus = static_cast<int>(mLoop->RemoveIo(mPipe.GetReadFd()));
        }
        ++mReceived;
    }
    return StatusCode::Ok;
}

void ExtensionServer::LoseBus() const {
    shutdown(mBusFd, SHUT_RDWR);
}

void ExtensionServer::Stop() {
    sd_bus_slot_unref(mMatch);
    mMatch = nullptr;
    mStopped = true;
}

bool Extension::Call() {
    Client client;
    sd_bus_message* reply = nullptr;
    unsigned count = 0;
    sd_bus_error error{};
    const int r =
        sd_bus_call_method(client.Get(), Name().c_str(), PATH.c_str(), INTERFACE.c_str(), "Count", &error,
                           &reply, "a{sv}", 2, "first", "s", "text", "second", "as", 2, "one", "two");
    const bool answered = r >= 0 && sd_bus_message_read(reply, "u", &count) > 0;
    if (sd_bus_error_is_set(&error) != 0 && r != -ETIMEDOUT) {
        // The handler's own answer.
        static_cast<void>(mStage.Accept(static_cast<unsigned>(-r), "the call"));
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    return answered && count == 3;  // each string of the array is a value
}

bool Extension::UseProperty() {
    Client client;
    unsigned value = 0;
    return sd_bus_set_property(client.Get(), Name().c_str(), PATH.c_str(), INTERFACE.c_str(), "Target",
                               nullptr, "u", 42U) >= 0 &&
           sd_bus_get_property_trivial(client.Get(), Name().c_str(), PATH.c_str(), INTERFACE.c_str(),
                                       "Target", nullptr, 'u', &value) >= 0 &&
           value == 42;
}

}  // namespace tern::test
