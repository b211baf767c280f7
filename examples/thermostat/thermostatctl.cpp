// thermostatctl: looks at the thermostat and sets it, from a shell. Built only on the library.

#include <termios.h>
#include <tern/dbus_client/dbus_client_manager.h>
#include <tern/dbus_client/interface_properties_get_all.h>
#include <tern/dbus_message/sasvas_signature_parser.h>
#include <tern/dbus_message/values_list.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/service_main_loop.h>
#include <tern/typed/blocking_proxy.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>
#include <string>

#include "names.h"
#include "thermostat_contract.h"

using mw::tern::ConvertStatusCodeToString;
using mw::tern::StatusCode;
using mw::tern::DBusMessage::ValuesList;
using thermostat::Thermostat1;
using namespace std::chrono_literals;
namespace Typed = mwl::Typed;

namespace {

using Room = Typed::BlockingProxy<Thermostat1>;

constexpr int EXIT_USAGE = 2;

constexpr const char* USAGE =
    "Usage: thermostatctl COMMAND\n"
    "Looks at the thermostat on the system bus and sets it.\n"
    "\n"
    "  list              names of the com.example services, running or startable\n"
    "  show              all properties of the thermostat\n"
    "  set DEGREES       set the target temperature, 5 to 30 degrees Celsius\n"
    "  boost SECONDS     heat for a while, whatever the target says\n"
    "  export            have the measurements packed into an encrypted archive, whose path is printed; the\n"
    "                    password is read from standard input, its first line\n"
    "  watch             print changes and measurements until interrupted\n"
    "  --help            this text\n"
    "\n"
    "Exit status: 0 done, 1 the bus or the thermostat refused, or the output cannot be written, 2 wrong "
    "use.\n"
    "TERN_LOG_LEVEL=debug shows what the library does.\n";

int Fail(const char* what, const std::string& why) {
    fprintf(stderr, "thermostatctl: %s: %s\n", what, why.c_str());
    return EXIT_FAILURE;
}

/// What was printed has arrived. If not, nobody has use of the rest, and the program ends.
void Deliver() {
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        _exit(Fail("cannot write the output", std::string(strerrordesc_np(errno))));
    }
}

constexpr const char* NO_BUS = "there is no system bus: is dbus running, is DBUS_SYSTEM_BUS_ADDRESS right?";
constexpr const char* NOT_RUNNING =
    "the thermostat is not running, and the bus does not know how to start it";
constexpr const char* REFUSED_BY_POLICY =
    "the bus's policy refuses it: root and members of the group tern-thermostat may";
constexpr const char* NO_ANSWER = "the thermostat does not answer";

/// A hint to act on, where there is only a status: most failures have one of a few causes.
std::string Reason(StatusCode status) {
    mw::tern::DBusClientManager manager;
    std::set<std::string> names;
    if (manager.Connect() != StatusCode::Ok ||
        manager.LookupServices(thermostat::BUS_NAME, names) != StatusCode::Ok) {
        return NO_BUS;
    }
    if (names.find(thermostat::BUS_NAME) == names.end()) {
        return NOT_RUNNING;
    }
    if (status == StatusCode::AccessDenied || status == StatusCode::NotPermitted) {
        return REFUSED_BY_POLICY;
    }
    return status == StatusCode::Timeout ? NO_ANSWER : ConvertStatusCodeToString(status);
}

/// The same for the outcome of a call: the bus's own errors are described by their cause, the service's are
/// printed as it puts them.
std::string Reason(const Typed::Error& error) {
    if (error.GetName() == SD_BUS_ERROR_NO_REPLY && error.GetStatus() == StatusCode::IoError) {
        return NO_BUS;  // it went meanwhile
    }
    static constexpr const char* CAUSES[][2] = {
        {SD_BUS_ERROR_NO_SERVER, NO_BUS},
        {SD_BUS_ERROR_SERVICE_UNKNOWN, NOT_RUNNING},
        {SD_BUS_ERROR_NAME_HAS_NO_OWNER, NOT_RUNNING},
        {SD_BUS_ERROR_ACCESS_DENIED, REFUSED_BY_POLICY},
        {SD_BUS_ERROR_NO_REPLY, NO_ANSWER},
        {SD_BUS_ERROR_TIMEOUT, NO_ANSWER},
    };
    for (const auto& [name, text] : CAUSES) {
        if (error.GetName() == name) {
            return text;
        }
    }
    return error.GetText().empty() ? error.GetName() : error.GetText();
}

int Fail(const char* what, StatusCode status) {
    return Fail(what, Reason(status));
}

int WrongUse(const std::string& what) {
    fprintf(stderr, "thermostatctl: %s\nTry 'thermostatctl --help'.\n", what.c_str());
    return EXIT_USAGE;
}

/// The thermostat on the system bus.
const Room& TheRoom() {
    // The bus may have to start the thermostat first.
    static const Room room = Room(thermostat::BUS_NAME, thermostat::OBJECT_PATH).Within(25s);
    return room;
}

/// The exit status of a call; prints the refusal.
int Finish(const char* what, const Typed::Outcome<void>& outcome) {
    return outcome.IsOk() ? EXIT_SUCCESS : Fail(what, Reason(outcome.GetError()));
}

/// Keeps what is typed from being shown, also when the person gives up with Ctrl-C.
class HiddenTyping {
public:
    HiddenTyping() : mTerminal(tcgetattr(STDIN_FILENO, &gShown) == 0) {
        if (mTerminal) {
            termios hidden = gShown;
            hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            fputs("Password: ", stderr);
            signal(SIGINT, ShowAndEnd);
            signal(SIGTERM, ShowAndEnd);
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
        }
    }
    HiddenTyping(const HiddenTyping&) = delete;
    HiddenTyping& operator=(const HiddenTyping&) = delete;
    ~HiddenTyping() {
        if (mTerminal) {
            Show();
            signal(SIGINT, SIG_DFL);
            signal(SIGTERM, SIG_DFL);
        }
    }

private:
    static void Show() {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &gShown);
        static_cast<void>(write(STDERR_FILENO, "\n", 1) < 0);
    }
    static void ShowAndEnd(int number) {
        Show();
        signal(number, SIG_DFL);
        raise(number);
    }

    static inline termios gShown{};  ///< for the signal handler
    bool mTerminal;
};

/// The first line of standard input; false without one.
bool ReadPassword(std::string& password) {
    const HiddenTyping hidden;
    return static_cast<bool>(std::getline(std::cin, password)) && !password.empty();
}

int Export() {
    std::string password;
    if (!ReadPassword(password)) {
        return Fail("cannot export the log", std::string("no password on standard input"));
    }
    // The reply comes when the archive is complete.
    const Typed::Outcome<std::string> path = TheRoom().Within(2min).Call(Thermostat1::ExportLog, password);
    if (!path.IsOk()) {
        return Fail("cannot export the log", Reason(path.GetError()));
    }
    puts(path->c_str());
    return EXIT_SUCCESS;
}

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
    Deliver();
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
        Deliver();
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
        status = bus.AddMatch(nullptr, match + "',interface='" + Thermostat1::NAME + "',member='Measured'",
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
    return Finish("cannot set the target", TheRoom().Set(Thermostat1::Target, celsius));
}

int BoostFor(const char* text) {
    double seconds = 0.0;
    if (!ReadNumber(text, seconds) || seconds < 0 || seconds > 4294967295.0 ||
        seconds != std::floor(seconds)) {
        return WrongUse(std::string("'") + text + "' is not a number of seconds");
    }
    return Finish("cannot boost", TheRoom().Call(Thermostat1::Boost, static_cast<std::uint32_t>(seconds)));
}

int Run(int argc, char* argv[]) {
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
    const bool takesOne = command == "set" || command == "boost";
    if (!takesOne && command != "list" && command != "show" && command != "export" && command != "watch") {
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
        return Export();
    }
    return command == "boost" ? BoostFor(argv[2]) : Watch();
}

}  // namespace

int main(int argc, char* argv[]) {
    const int status = Run(argc, argv);
    Deliver();
    return status;
}
