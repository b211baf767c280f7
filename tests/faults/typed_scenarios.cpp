#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <string>

#include "client.h"
#include "running.h"
#include "scenarios.h"
#include "typed_service.h"

namespace tern::test {

namespace {

constexpr const char* PATH = TypedServer::PATH;
constexpr const char* INTERFACE = TypedServer::INTERFACE;
constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
constexpr const char* OTHER = "/com/example/Faults/other";

using TypedExtension = Running<TypedServer>;

/// A typed extension that serves, and its caller; what `step` does is swept. Afterwards every implementation
/// is dead, whatever failed.
void Serve(Stage& stage, const std::function<void(TypedServer&, Caller&)>& step) {
    {
        TypedExtension extension(stage);
        if (extension.Start()) {
            Caller caller(stage, extension.Name());
            if (stage.Expect(caller.Echo(PATH, INTERFACE, "Text", "s", "text"), "it serves")) {
                stage.Sweep([&] { step(extension.GetServer(), caller); });
            }
        }
        extension.TellFailure();
    }
    stage.Demand(TypedServer::Alive() == 0, "every implementation is destroyed");
}

void RunStartUp(Stage& stage) {
    {
        TypedExtension extension(stage);
        bool started = false;
        stage.Sweep([&] { started = extension.Start(); });
        if (started) {
            Caller caller(stage, extension.Name());
            stage.Expect(caller.Echo(PATH, INTERFACE, "Text", "s", "text"), "the call is answered");
            SendStop();
            stage.Expect(extension.WaitForEnd(), "SIGTERM ends the loop");
            extension.Join();
            extension.TellFailure();
        }
    }
    stage.Demand(TypedServer::Alive() == 0, "every implementation is destroyed");
}

/// Numbers and text.
void RunCall(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        stage.Expect(caller.Call(PATH, INTERFACE, "Next", "u", 7U).contents == "u=8 ", "Next");
        stage.Expect(
            caller.Echo(PATH, INTERFACE, "Text", "s", "one that does not fit into the string itself"),
            "Text");
        stage.Expect(caller.Echo(PATH, INTERFACE, "Two", "ud", 7U, 0.5), "Two");
        stage.Expect(caller.Echo(PATH, INTERFACE, "Path", "o", "/a/path/that/does/not/fit/into/the/string"),
                     "Path");
    });
}

void RunContainers(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        stage.Expect(caller.Echo(PATH, INTERFACE, "Pairs", "a(ds)", 2, 0.5, "half", 0.25, "quarter"),
                     "Pairs");
        stage.Expect(caller.Echo(PATH, INTERFACE, "Options", "a{sv}", 2, "Seconds", "u", 7U, "Note", "s",
                                 "one that does not fit into the string itself"),
                     "Options");
        stage.Expect(caller.Echo(PATH, INTERFACE, "Bytes", "ay", 5, 1, 2, 3, 4, 5), "Bytes");
        stage.Expect(caller.Echo(PATH, INTERFACE, "Booleans", "ab", 2, 1, 0), "Booleans");
        stage.Expect(caller.Echo(PATH, INTERFACE, "Numbers", "a{us}", 2, 1U, "one", 2U, "two"), "Numbers");
    });
}

void RunVariants(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        stage.Expect(caller.Echo(PATH, INTERFACE, "Anything", "a{sv}", 3, "a", "u", 7U, "b", "as", 2, "one",
                                 "two", "c", "(sv)", "in", "b", 1),
                     "Anything");
        stage.Expect(caller.Echo(PATH, INTERFACE, "Choice", "v", "s", "text"), "Choice");
        stage.Expect(caller.Echo(PATH, INTERFACE, "Mode", "s", "eco"), "Mode");
    });
}

void RunDescriptor(Stage& stage) {
    const int fd = open(stage.Folder().c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY);
    Serve(stage, [&](TypedServer&, Caller& caller) {
        stage.Expect(caller.Echo(PATH, INTERFACE, "File", "h", fd), "File");
    });
    close(fd);
}

/// The error that is meant is what is to come; any other is one that is told.
void Fails(Stage& stage, Caller& caller, const char* member, const char* name, const char* text,
           const char* types, const char* argument) {
    const Answer answer = caller.Try(PATH, INTERFACE, member, types, argument);
    if (answer.error == name && answer.text == text) {
        return;
    }
    if (answer.IsError()) {
        static_cast<void>(stage.Accept(1, std::string(member) + ": " + answer.error));
    }
    stage.Expect(false, std::string(member) + " fails as it is to");
}

void RunErrors(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        Fails(stage, caller, "Fail", "com.example.Error.Asked", "text that is long enough for memory", "s",
              "text that is long enough for memory");
        Fails(stage, caller, "Throw", "org.freedesktop.DBus.Error.Failed", "the service failed internally",
              "s", "text that is long enough for memory");
        Fails(stage, caller, "Mode", "org.freedesktop.DBus.Error.InvalidArgs",
              "argument 'mode': 'full' is not one of its values", "s", "full");
        Fails(stage, caller, "LaterFail", "com.example.Error.Asked", "text that is long enough for memory",
              "s", "text that is long enough for memory");
    });
}

void RunProperties(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        stage.Expect(caller.Call(PATH, PROPERTIES, "Get", "ss", INTERFACE, "Level").contents == "v[u: u=1 ] ",
                     "Get");
        const bool isSet = !caller
                                .Call(PATH, PROPERTIES, "Set", "ssv", INTERFACE, "Target", "s",
                                      "one that does not fit into the string itself")
                                .IsError();
        const std::string all = caller.Call(PATH, PROPERTIES, "GetAll", "s", INTERFACE).contents;
        stage.Expect(all.find("s=Level v[u: u=1 ]") != std::string::npos &&
                         all.find("s=Name v[s: s=a name") != std::string::npos &&
                         (!isSet || all.find("s=Target v[s: s=one that") != std::string::npos),
                     "GetAll");
    });
}

/// A signal, and the changes at the end of the turn.
void RunSignals(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        caller.Listen();
        const Answer answer = caller.Call(PATH, INTERFACE, "Measure", "u", 42U);
        if (!answer.IsError()) {
            stage.Expect(caller.Hears("Measured", "u=42 s=measured "), "the signal comes");
        }
        stage.Expect(caller.Hears("PropertiesChanged", "s=Level v[u: u=42 ]"), "the change is announced");
        stage.Expect(caller.Hears("PropertiesChanged", "[s: s=Other ]"), "the other one as well");
    });
}

/// Changes that a period holds back.
void RunPeriod(Stage& stage) {
    Serve(stage, [&](TypedServer& server, Caller& caller) {
        caller.Listen();
        if (!stage.Expect(server.SetPeriod(), "the period is set")) {
            return;
        }
        for (const std::uint32_t level : {42U, 43U, 44U}) {
            static_cast<void>(caller.Call(PATH, INTERFACE, "Measure", "u", level));
        }
        stage.Expect(caller.Hears("PropertiesChanged", "s=Level v[u: u=44 ]"),
                     "the last change is announced");
    });
}

/// Who calls, as sd-bus finds out.
void RunCaller(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        stage.Expect(caller.Call(PATH, INTERFACE, "Ask").contents == "u=" + std::to_string(geteuid()) + " ",
                     "Ask");
    });
}

/// A caller whose credentials are not known yet, and then are.
void RunChecked(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        stage.Expect(caller.Call(PATH, INTERFACE, "Guarded", "u", 7U).contents == "u=8 ", "the first call");
        stage.Expect(caller.Call(PATH, INTERFACE, "Guarded", "u", 8U).contents == "u=9 ", "the second");
    });
}

void RunCheckedError(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        Fails(stage, caller, "GuardedFail", "com.example.Error.Asked", "text that is long enough for memory",
              "s", "text that is long enough for memory");
    });
}

void RunReply(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        stage.Expect(caller.Call(PATH, INTERFACE, "Later", "u", 7U).contents == "u=8 ", "by a worker");
        stage.Expect(caller.Call(PATH, INTERFACE, "LaterHere", "u", 8U).contents == "u=9 ", "at once");
    });
}

void RunDrop(Stage& stage) {
    Serve(stage, [&](TypedServer&, Caller& caller) {
        Fails(stage, caller, "Drop", "org.freedesktop.DBus.Error.Failed", "the service dropped the call", "",
              nullptr);
    });
}

/// A caller that leaves with its call open.
void RunDeparture(Stage& stage) {
    Serve(stage, [&](TypedServer& server, Caller& caller) {
        {
            Caller leaving(stage, caller.Service());
            leaving.Begin(PATH, INTERFACE, "Keep");
            if (!stage.Expect(server.WaitForOpenCalls(1), "the call is taken over") &&
                leaving.End().IsError()) {
                static_cast<void>(stage.Accept(1, "Keep"));
            }
        }
        stage.Expect(caller.Echo(PATH, INTERFACE, "Text", "s", "text"), "another is served");
    });
}

void RunObjects(Stage& stage) {
    Serve(stage, [&](TypedServer& server, Caller& caller) {
        caller.Listen();
        if (!stage.Expect(server.Post() && server.Add(OTHER), "it is added")) {
            return;
        }
        stage.Expect(caller.Hears("InterfacesAdded", OTHER), "it is announced");
        stage.Expect(caller.Echo(OTHER, INTERFACE, "Text", "s", "text"), "it is called");
        stage.Expect(caller.Call(TypedServer::ROOT, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
                             .contents.find(OTHER) != std::string::npos,
                     "it is listed");
        if (!stage.Expect(server.Remove(OTHER), "it is removed")) {
            return;  // the bus has closed, and keeps the implementation until its own end
        }
        stage.Expect(caller.Hears("InterfacesRemoved", OTHER), "its end is announced");
        stage.Demand(WaitUntil([] { return TypedServer::Alive() <= 1; }, MOMENT),
                     "its implementation is destroyed");
    });
}

/// With a call open.
void RunStop(Stage& stage) {
    {
        TypedExtension extension(stage);
        Caller waiting(stage, extension.Name());
        if (extension.Start() &&
            stage.Expect(waiting.Echo(PATH, INTERFACE, "Text", "s", "text"), "it serves")) {
            waiting.Begin(PATH, INTERFACE, "Keep");
            stage.Expect(extension.GetServer().WaitForOpenCalls(1), "the call is taken over");
            stage.Sweep([&] {
                SendStop();
                if (stage.Expect(extension.WaitForEnd(), "SIGTERM ends the loop")) {
                    extension.Join();
                }
            });
            const Answer answer = waiting.End();
            stage.Expect(answer.text == "the service is stopping", "the open call is answered");
            extension.TellFailure();
        }
    }
    stage.Demand(TypedServer::Alive() == 0, "every implementation is destroyed");
}

void RunIntrospection(Stage& stage) {
    const std::string path = stage / "interface.xml";
    stage.Sweep([&] {
        if (stage.Accept(WriteTypedIntrospection(path), "WriteIntrospection")) {
            struct stat written {};
            stage.Expect(stat(path.c_str(), &written) == 0 && written.st_size > 2000, "all is written");
        }
    });
}

}  // namespace

std::vector<Scenario> TypedScenarios() {
    return {{"typed-start-up", RunStartUp},
            {"typed-call", RunCall},
            {"typed-containers", RunContainers},
            {"typed-variants", RunVariants},
            {"typed-descriptor", RunDescriptor},
            {"typed-errors", RunErrors},
            {"typed-properties", RunProperties},
            {"typed-signals", RunSignals},
            {"typed-period", RunPeriod},
            {"typed-caller", RunCaller},
            {"typed-checked", RunChecked},
            {"typed-checked-error", RunCheckedError},
            {"typed-reply", RunReply},
            {"typed-drop", RunDrop},
            {"typed-departure", RunDeparture},
            {"typed-objects", RunObjects},
            {"typed-stop", RunStop},
            {"typed-introspection", RunIntrospection}};
}

}  // namespace tern::test
