// The gallery's interface as a service that is written with sdbus-c++, for typed clients: each row with its
// method, its property and its signal, the methods that end otherwise, objects that come and go, and an
// interface that does not keep its contract (typed_client/contracts.h).

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

const std::string NAME = "com.example.TypeGallery";
const std::string ROOT = "/com/example";
const std::string PATH = "/com/example/TypeGallery";
const std::string INTERFACE = "com.example.TypeGallery1";
const std::string ITEM = "com.example.TypeGalleryItem1";
const std::string ODD = "com.example.Odd1";

using Strings = std::vector<std::string>;
using Dictionary = std::map<std::string, sdbus::Variant>;
using Pairs = std::vector<sdbus::Struct<double, std::string>>;
using Structure = sdbus::Struct<std::int32_t, std::string, double>;
using Nested = sdbus::Struct<std::int32_t, sdbus::Struct<std::string, std::vector<double>>>;

class Service {
public:
    Service()
        : mConnection(sdbus::createSystemBusConnection()),
          mManager(sdbus::createObject(*mConnection, ROOT)),
          mObject(sdbus::createObject(*mConnection, PATH)) {
        const sdbus::Variant number(std::uint32_t{0});
        const Dictionary options{{"Seconds", number}};
        Add<std::uint8_t>("Byte");
        Add<std::int16_t>("Int16");
        Add<std::uint16_t>("UInt16");
        Add<std::int32_t>("Int32");
        Add<std::uint32_t>("UInt32");
        Add<std::int64_t>("Int64");
        Add<std::uint64_t>("UInt64");
        Add<double>("Double");
        Add<bool>("Boolean");
        Add<std::string>("String");
        Add<sdbus::ObjectPath>("ObjectPath", sdbus::ObjectPath("/"));
        Add<sdbus::Signature>("Signature");
        AddMethod<sdbus::UnixFd>("Descriptor");
        Add<std::vector<std::uint8_t>>("Bytes");
        Add<std::vector<double>>("Doubles");
        Add<Strings>("Strings");
        Add<std::vector<bool>>("Booleans");
        Add<std::vector<double>>("Triple", {0.0, 0.0, 0.0});
        Add<Pairs>("Pairs");
        Add<std::vector<std::vector<double>>>("Matrix");
        Add<std::map<std::string, std::string>>("Texts");
        Add<std::map<std::uint32_t, std::string>>("Numbers");
        Add<Structure>("Structure");
        Add<Nested>("Nested");
        Add<Dictionary>("Options", options);
        Add<Dictionary>("StrictOptions", options);
        Add<sdbus::Variant>("Anything", sdbus::Variant(std::string("nothing yet")));
        Add<Dictionary>("DictAny");
        Add<sdbus::Variant>("Choice", number);
        Add<std::uint32_t>("Color");
        Add<std::string>("Mode", "off");
        AddOthers();
        AddOdd();
        mObject->finishRegistration();
        mManager->addObjectManager();
        mManager->finishRegistration();
        mConnection->requestName(NAME);
    }

    void Run() { mConnection->enterEventLoop(); }

private:
    template <class T>
    void AddMethod(const std::string& row) {
        mObject->registerSignal("Got" + row).onInterface(INTERFACE).withParameters<T>();
        mObject->registerMethod("Echo" + row)
            .onInterface(INTERFACE)
            .implementedAs([this, row](const T& value) {
                mObject->emitSignal("Got" + row).onInterface(INTERFACE).withArguments(value);
                return value;
            });
    }
    template <class T>
    void Add(const std::string& row, T first = T()) {
        AddMethod<T>(row);
        const auto held = std::make_shared<T>(std::move(first));
        mObject->registerProperty(row)
            .onInterface(INTERFACE)
            .withGetter([held] { return *held; })
            .withSetter([this, row, held](const T& value) {
                *held = value;
                mObject->emitPropertiesChangedSignal(INTERFACE, {row});
            });
    }

    void AddOthers() {
        const auto method = [this](const std::string& name, auto handler) {
            mObject->registerMethod(name).onInterface(INTERFACE).implementedAs(std::move(handler));
        };
        method("Fail",
               [](const std::string& name, const std::string& text) { throw sdbus::Error(name, text); });
        method("Later", [](sdbus::Result<std::string>&& result, std::uint32_t ms, std::string text) {
            std::thread([kept = std::move(result), ms, said = std::move(text)] {
                std::this_thread::sleep_for(std::chrono::milliseconds(ms));
                kept.returnResults(said);
            }).detach();
        });
        // Taken and never answered.
        method("Drop", [this](sdbus::Result<>&& result) { mDropped.push_back(std::move(result)); });
        method("Add", [this](const std::string& path) { AddItem(path); });
        method("Remove", [this](const std::string& path) {
            const auto item = mItems.find(path);
            if (item == mItems.end()) {
                throw sdbus::Error("mwl.StatusCode.NotFound", "NotFound");
            }
            item->second->emitInterfacesRemovedSignal({ITEM});
            mItems.erase(item);
        });
    }

    void AddItem(const std::string& path) {
        if (mItems.count(path) != 0) {
            throw sdbus::Error("mwl.StatusCode.AlreadyExists", "AlreadyExists");
        }
        std::unique_ptr<sdbus::IObject> item = sdbus::createObject(*mConnection, path);
        item->registerProperty("Label").onInterface(ITEM).withGetter([path] { return path; });
        item->finishRegistration();
        item->emitInterfacesAddedSignal({ITEM});
        mItems.emplace(path, std::move(item));
    }

    void AddOdd() {
        mObject->registerSignal("Said").onInterface(ODD).withParameters<std::string>();
        const auto method = [this](const std::string& name, auto handler) {
            mObject->registerMethod(name).onInterface(ODD).implementedAs(std::move(handler));
        };
        method("Number", [] { return std::string("seven"); });
        method("Take", [](std::uint32_t) {});
        method("Say", [this] {
            mObject->emitSignal("Said").onInterface(ODD).withArguments(std::string("something"));
        });
        method("Turn", [this] {
            ++mMood;
            mObject->emitPropertiesChangedSignal(ODD, {"Mood"});
        });
        method("Leave", [] { std::_Exit(0); });
        mObject->registerProperty("Level").onInterface(ODD).withGetter([] { return std::string("high"); });
        mObject->registerProperty("Mood")
            .onInterface(ODD)
            .withGetter([this] { return mMood; })
            .withUpdateBehavior(sdbus::Flags::EMITS_INVALIDATION_SIGNAL);
    }

    std::unique_ptr<sdbus::IConnection> mConnection;
    std::unique_ptr<sdbus::IObject> mManager;
    std::unique_ptr<sdbus::IObject> mObject;
    std::map<std::string, std::unique_ptr<sdbus::IObject>> mItems;
    std::vector<sdbus::Result<>> mDropped;
    std::uint32_t mMood = 1;
};

}  // namespace

int main() {
    Service service;
    service.Run();
    return EXIT_SUCCESS;
}
