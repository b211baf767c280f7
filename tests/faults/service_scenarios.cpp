#include <tern/service/message_pipe.h>

#include <cstring>
#include <string>

#include "extension.h"
#include "scenarios.h"
#include "support/wait_until.h"

namespace tern::test {

namespace {

/// A call that is answered shows that the loop runs: nothing of the start is swept any more.
bool StartServing(Extension& extension) {
    return extension.Start() && extension.Call();
}

/// Made ready, called, ended: only the start fails.
void RunStartUp(Stage& stage) {
    Extension extension(stage);
    bool started = false;
    stage.Sweep([&] { started = extension.Start(); });
    if (started) {
        if (!stage.Expect(extension.Call(), "the call is answered")) {
            extension.TellFailure();
            return;
        }
        stage.Expect(extension.UseProperty(), "the property is set and read");
        stage.Expect(
            extension.GetServer().Pipe().WriteMessage(nullptr) == mw::tern::StatusCode::Ok &&
                WaitUntil([&] { return extension.GetServer().Received() == 1; }, std::chrono::seconds(2)),
            "the message comes through the pipe");
        SendStop();
        stage.Expect(extension.WaitForEnd(), "SIGTERM ends the loop");
        extension.Join();
        stage.Expect(!extension.Monitor().HasFailure(), "the process ends as one without a failure");
    }
}

void RunCall(Stage& stage) {
    Extension extension(stage);
    if (StartServing(extension)) {
        stage.Sweep([&] { stage.Expect(extension.Call(), "the call is answered"); });
        extension.TellFailure();
    }
}

/// From SIGTERM to the end of everything.
void RunStop(Stage& stage) {
    Extension extension(stage);
    if (StartServing(extension)) {
        stage.Sweep([&] {
            SendStop();
            if (stage.Expect(extension.WaitForEnd(), "SIGTERM ends the loop")) {
                extension.Join();
                extension.TellFailure();
            }
        });
    }
}

/// A worker asks for the end.
void RunStopByWorker(Stage& stage) {
    Extension extension(stage);
    if (StartServing(extension)) {
        stage.Sweep([&] {
            extension.Monitor().NotifyDBusThreadToStopOnFailure();
            if (stage.Expect(extension.WaitForEnd(), "the request ends the loop")) {
                extension.Join();
            }
        });
        stage.Expect(extension.Monitor().HasFailure(), "the process ends as failed");
    }
}

void RunPipe(Stage& stage) {
    Extension extension(stage);
    if (StartServing(extension)) {
        ExtensionServer& server = extension.GetServer();
        stage.Sweep([&] {
            const mw::tern::StatusCode written = server.Pipe().WriteMessage(nullptr);
            if (stage.Accept(written, "WriteMessage")) {
                stage.Expect(WaitUntil([&] { return server.Received() == 1; }, std::chrono::seconds(2)),
                             "the message comes through the pipe");
            }
            server.RemoveWatchAtNextMessage();
            if (stage.Accept(server.Pipe().WriteMessage(nullptr), "WriteMessage")) {
                stage.Expect(WaitUntil([&] { return server.Received() == 2; }, std::chrono::seconds(2)),
                             "the last message comes through the pipe");
                if (server.RemovalStatus() >= 0) {
                    stage.Accept(static_cast<unsigned>(server.RemovalStatus()), "RemoveIo");
                }
            }
        });
        extension.TellFailure();
    }
}

/// The bus is gone: a deaf service must not run on.
void RunLostBus(Stage& stage) {
    Extension extension(stage);
    if (StartServing(extension)) {
        stage.Sweep([&] {
            extension.GetServer().LoseBus();
            if (stage.Expect(extension.WaitForEnd(), "the lost bus ends the loop")) {
                extension.Join();
                stage.Expect(extension.Monitor().HasFailure(), "the process ends as failed");
            }
        });
    }
}

/// The pipe alone, with a reader that waits.
void RunMessagePipe(Stage& stage) {
    mw::tern::MessagePipe pipe;
    stage.Sweep([&] {
        if (!stage.Accept(pipe.Initialize(), "Initialize")) {
            return;
        }
        const char sent[] = "a message";
        char received[sizeof sent] = "";
        if (stage.Accept(pipe.WriteMessage(sent, sizeof sent), "WriteMessage") &&
            stage.Accept(pipe.ReadMessage(received, sizeof received, 2000), "ReadMessage")) {
            stage.Expect(memcmp(sent, received, sizeof sent) == 0, "the message arrives as it was sent");
        }
        const mw::tern::StatusCode nothing = pipe.ReadMessage(received, sizeof received, 1);
        if (nothing != mw::tern::StatusCode::Timeout) {
            stage.Accept(nothing, "ReadMessage of an empty pipe");
        }
    });
}

}  // namespace

std::vector<Scenario> ServiceScenarios() {
    return {
        {"service-start-up", RunStartUp}, {"service-call", RunCall},

        {"service-stop", RunStop},        {"service-stop-by-worker", RunStopByWorker},
        {"service-pipe", RunPipe},        {"service-lost-bus", RunLostBus},
        {"message-pipe", RunMessagePipe},
    };
}

}  // namespace tern::test
