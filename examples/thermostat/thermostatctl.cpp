// thermostatctl: looks at the thermostat and sets it, from a shell. Built only on the library.

#include <tern/dbus_client/command.h>
#include <tern/dbus_client/dbus_client_manager.h>
#include <tern/dbus_client/interface_properties_get_all.h>
#include <tern/dbus_message/sasvas_signature_parser.h>
#include <tern/dbus_message/values_list.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/service_main_loop.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "names.h"

using mw::tern::ConvertStatusCodeToString;
using mw::tern::StatusCode;
using mw::tern::DBusMessage::ValuesList;

namespace {

constexpr int EXIT_USAGE = 2;

constexpr const char* USAGE =
    "Usage: thermostatctl COMMAND\n"
    "Looks at the thermostat on the system bus and sets it.\n"
    "\n"
    "  list              names of the com.example services, running or startable\n"
    "  show              all properties of the thermostat\n"
    "  set DEGREES       set the target temperature, 5 to 30 degrees Celsius\n"
    "  boost SECONDS     heat for a while, whatever the target says\n"
    "  export PASSWORD   have the measurements packed into an encrypted archive, whose path is printed\n"
    "  watch             print changes and measurements until interrupted\n"
    "  --help            this text\n"
    "\n"
    "Exit status: 0 done, 1 the bus or the thermostat refused, 2 wrong use.\n"
    "TERN_LOG_LEVEL=debug shows what the library does.\n";

int Fail(const char* what, StatusCode status) {
    fprintf(stderr, "thermostatctl: %s: %s\n", what, ConvertStatusCodeToString(status).c_str());
    return EXIT_FAILURE;
}

int WrongUse(const std::string& what) {
    fprintf(stderr, "thermostatctl: %s\nTry 'thermostatctl --help'.\n", what.c_str());
    return EXIT_USAGE;
}

/// One call on the thermostat; keeps what the service said when it refused.
class ThermostatCall : public mw::tern::DBusCommand::Command {
public:
    ThermostatCall() = default;
    ThermostatCall(const ThermostatCall&) = delete;
    ThermostatCall& operator=(const ThermostatCall&) = delete;
    ~ThermostatCall() override { sd_bus_error_free(&mError); }

    /// Runs the call; prints the refusal and gives the exit status.
    int Run(const char* what) {
        const StatusCode status = Execute();
        if (status == StatusCode::Ok) {
            return EXIT_SUCCESS;
        }
        if (mError.message != nullptr) {
            fprintf(stderr, "thermostatctl: %s: %s\n", what, mError.message);
            return EXIT_FAILURE;
        }
        return Fail(what, status);
    }

protected:
    sd_bus_error mError{};
};

class SetTarget : public ThermostatCall {
public:
    explicit SetTarget(double celsius) : mCelsius(celsius) {}
    int CallMethod(sd_bus* bus) override {
        return sd_bus_set_property(bus, thermostat::BUS_NAME.c_str(), thermostat::OBJECT_PATH.c_str(),
                                   thermostat::INTERFACE_NAME.c_str(), "Target", &mError, "d", mCelsius);
    }

private:
    double mCelsius;
};

class Boost : public ThermostatCall {
public:
    explicit Boost(unsigned int seconds) : mSeconds(seconds) {}
    int CallMethod(sd_bus* bus) override {
        return sd_bus_call_method(bus, thermostat::BUS_NAME.c_str(), thermostat::OBJECT_PATH.c_str(),
                                  thermostat::INTERFACE_NAME.c_str(), "Boost", &mError, nullptr, "u",
                                  mSeconds);
    }

private:
    unsigned int mSeconds;
};

class ExportLog : public ThermostatCall {
public:
    explicit ExportLog(std::string password) : mPassword(std::move(password)) {}
    int CallMethod(sd_bus* bus) override {
        sd_bus_message* reply = nullptr;
        const char* path = nullptr;
        int r = sd_bus_call_method(bus, thermostat::BUS_NAME.c_str(), thermostat::OBJECT_PATH.c_str(),
                                   thermostat::INTERFACE_NAME.c_str(), "ExportLog", &mError, &reply, "s",
                                   mPassword.c_str());
        if (r >= 0) {
            r = sd_bus_message_read(reply, "s", &path);
        }
        if (r >= 0) {
            puts(path);
        }
        sd_bus_message_unref(reply);
        return r;
    }

private:
    std::string mPassword;
};

/// Prints what a thermostat's list can hold; keys begin with the separator.
void Print(const ValuesList& values) {
    for (const std::string& key : values.Keys()) {
        double number = 0.0;
        int truth = 0;
        if (values.GetDouble(key, number) == StatusCode::Ok) {
            printf("%-12s %.2f\n", key.c_str() + 1, number);
        } else if (values.GetBool(key, truth) == StatusCode::Ok) {
            printf("%-12s %s\n", key.c_str() + 1, truth != 0 ? "yes" : "no");
        }
    }
    fflush(stdout);
}

int List() {
    mw::tern::DBusClientManager manager;
    StatusCode status = manager.Connect();
    std::set<std::string> names;
    if (status == StatusCode::Ok) {
        status = manager.LookupServices("com.example.", names);
    }
    if (status != StatusCode::Ok) {
        return Fail("cannot list the services of the bus", status);
    }
    for (const std::string& name : names) {
        puts(name.c_str());
    }
    return EXIT_SUCCESS;
}

int Show() {
    mw::tern::DBusCommand::InterfacePropertiesGetAll properties(thermostat::BUS_NAME,
                                                                thermostat::OBJECT_PATH);
    const StatusCode status = properties.Execute();
    if (status != StatusCode::Ok) {
        return Fail("cannot read the thermostat's properties", status);
    }
    Print(properties.GetValuesList());
    return EXIT_SUCCESS;
}

int OnMeasured(sd_bus_message* message, void*, sd_bus_error*) {
    double celsius = 0.0;
    if (sd_bus_message_read(message, "d", &celsius) >= 0) {
        printf("%-12s %.2f\n", "measured", celsius);
        fflush(stdout);
    }
    return 0;
}

int OnPropertiesChanged(sd_bus_message* message, void*, sd_bus_error*) {
    mw::tern::DBusMessage::SASVASsignatureParser parser(message);
    if (parser.ParseMessage() >= 0) {
        Print(parser.GetValuesList());
    }
    return 0;
}

int Watch() {
    // The same loop as in a service: it ends by SIGINT or SIGTERM, or when the bus goes away.
    mw::tern::ServiceMainLoop loop;
    mw::tern::DBusServerManager bus("");
    StatusCode status = mw::tern::ServiceMainLoop::BlockSignalsForRunningThread();
    if (status == StatusCode::Ok) {
        status = loop.Init();
    }
    if (status == StatusCode::Ok) {
        status = bus.Connect();
    }
    if (status == StatusCode::Ok) {
        status = bus.AttachLoop(loop);
    }
    const std::string match =
        "type='signal',sender='" + thermostat::BUS_NAME + "',path='" + thermostat::OBJECT_PATH;
    if (status == StatusCode::Ok) {
        status = bus.AddMatch(nullptr,
                              match + "',interface='" + thermostat::INTERFACE_NAME + "',member='Measured'",
                              OnMeasured, nullptr);
    }
    if (status == StatusCode::Ok) {
        status = bus.AddMatch(
            nullptr, match + "',interface='org.freedesktop.DBus.Properties',member='PropertiesChanged'",
            OnPropertiesChanged, nullptr);
    }
    if (status == StatusCode::Ok) {
        status = loop.Run();
    }
    return status == StatusCode::Ok ? EXIT_SUCCESS : Fail("cannot watch the thermostat", status);
}

/// The whole text as a number; false for anything else.
bool ReadNumber(const char* text, double& number) {
    char* end = nullptr;
    number = strtod(text, &end);
    return end != text && *end == '\0' && std::isfinite(number);
}

int Set(const char* text) {
    double celsius = 0.0;
    if (!ReadNumber(text, celsius)) {
        return WrongUse(std::string("'") + text + "' is not a temperature");
    }
    return SetTarget(celsius).Run("cannot set the target");
}

int BoostFor(const char* text) {
    double seconds = 0.0;
    if (!ReadNumber(text, seconds) || seconds < 0 || seconds > 4294967295.0 ||
        seconds != std::floor(seconds)) {
        return WrongUse(std::string("'") + text + "' is not a number of seconds");
    }
    return Boost(static_cast<unsigned int>(seconds)).Run("cannot boost");
}

}  // namespace

int main(int argc, char* argv[]) {
    // A person reads this output: the library's own messages only on demand. Nothing else runs yet.
    setenv("TERN_LOG_LEVEL", "critical", 0);  // NOLINT(concurrency-mt-unsafe)
    if (argc < 2) {
        return WrongUse("no command");
    }
    const std::string command = argv[1];
    const int arguments = argc - 2;
    if (command == "--help" || command == "-h") {
        fputs(USAGE, stdout);
        return EXIT_SUCCESS;
    }
    const bool takesOne = command == "set" || command == "boost" || command == "export";
    if (!takesOne && command != "list" && command != "show" && command != "watch") {
        return WrongUse("unknown command '" + command + "'");
    }
    if (arguments != (takesOne ? 1 : 0)) {
        return WrongUse("'" + command + "' takes " + (takesOne ? "one argument" : "no argument"));
    }
    if (command == "list") {
        return List();
    }
    if (command == "show") {
        return Show();
    }
    if (command == "set") {
        return Set(argv[2]);
    }
    if (command == "export") {
        return ExportLog(argv[2]).Run("cannot export the log");
    }
    return command == "boost" ? BoostFor(argv[2]) : Watch();
}
