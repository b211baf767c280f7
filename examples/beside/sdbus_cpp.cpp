// The heater on sdbus-c++ 1.2.
#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>

#include <cstdint>
#include <string>

// [interface]
class Heater {
public:
    explicit Heater(sdbus::IConnection& connection)
        : mObject(sdbus::createObject(connection, "/com/example/Heater")) {
        mObject->registerMethod("Boost").onInterface(INTERFACE).withInputParamNames("seconds").implementedAs(
            [this](std::uint32_t seconds) { Boost(seconds); });
        mObject->registerProperty("Target")
            .onInterface(INTERFACE)
            .withGetter([this] { return mTarget; })
            .withSetter([this](const double& celsius) { SetTarget(celsius); });
        mObject->registerSignal("Measured").onInterface(INTERFACE).withParameters<double>("celsius");
        mObject->finishRegistration();
    }

private:
    void Boost(std::uint32_t seconds) {
        if (seconds > 3600) {
            throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs", "more than an hour");
        }
        mObject->emitSignal("Measured").onInterface(INTERFACE).withArguments(mTarget);
    }
    void SetTarget(double celsius) {
        if (!(celsius >= 5 && celsius <= 30)) {
            throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs", "the target is 5 to 30 degrees");
        }
        mTarget = celsius;
        mObject->emitPropertiesChangedSignal(INTERFACE, {"Target"});
    }

    inline static const std::string INTERFACE = "com.example.Heater1";
    std::unique_ptr<sdbus::IObject> mObject;
    double mTarget = 20.0;
};
// [end]

int main() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const auto connection = sdbus::createSystemBusConnection();
    const Heater heater(*connection);
    connection->requestName("com.example.Heater");
    connection->enterEventLoopAsync();
    int signal = 0;
    sigwait(&signals, &signal);
    connection->leaveEventLoop();
    return 0;
}
