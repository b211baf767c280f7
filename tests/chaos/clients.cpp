// The clients of a soaked extension that harm is done to: they call all the time, and tell what came of it
// when they are asked. tests/chaos/chaos.py is who asks.
//
//   tern-chaos-clients BUS_ADDRESS CLIENTS REPLY_LIMIT_SECONDS
//
// A line "tell" on standard input is answered by a line of JSON; its figures count from the start, those
// called "longest_ms" and "answers", one for each client, from the line before. "end" lets the clients finish
// their calls, tells, and ends.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "soak/supervisor/client.h"
#include "soak/supervisor/complaints.h"
#include "soak/supervisor/epoch.h"

namespace {

using soak::Client;

constexpr int EXIT_USAGE = 2;
constexpr std::chrono::milliseconds PAUSE{10};

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
    return quoted + '"';
}

class Clients {
public:
    Clients(const std::string& address, unsigned int count, std::chrono::seconds limit) {
        for (unsigned int i = 0; i < count; ++i) {
            mClients.push_back(std::make_unique<Client>(
                i, address, Client::Habits{PAUSE, limit, /*isHarmed=*/true}, mEpoch, mComplaints));
        }
        for (const auto& client : mClients) {
            client->Start();
        }
    }

    void Stop() {
        for (const auto& client : mClients) {
            client->Stop();
        }
    }

    std::string Tell() {
        soak::Tally tally;
        std::string longest;
        std::string answers;
        std::string asked;
        std::string answered;
        const auto add = [](std::string& list, auto number) {
            list += (list.empty() ? "" : ",") + std::to_string(number);
        };
        for (const auto& client : mClients) {
            tally += client->GetTally();
            const Client::Spell spell = client->TakeSpell();
            add(longest, spell.longest.count());
            add(answers, spell.answers);
            const Client::Promise promise = client->GetPromise();
            add(asked, promise.asked);
            add(answered, promise.answered);
        }
        std::string complaints;
        for (const std::string& complaint : mComplaints.Get()) {
            complaints += (complaints.empty() ? "" : ",") + Quoted(complaint);
        }
        std::string text;
        const auto figure = [&text](const char* name, std::uint64_t value) {
            text += '"' + std::string(name) + "\":" + std::to_string(value) + ',';
        };
        figure("calls", tally.calls);
        figure("replies", tally.replies);
        figure("interrupted", tally.interrupted);
        figure("lost", tally.lost);
        figure("errors", tally.errors);
        figure("wrong", tally.wrong);
        figure("unable", tally.unable);
        figure("signals", tally.signals);
        figure("missed", tally.missed);
        return "{" + text + "\"longest_ms\":[" + longest + "],\"answers\":[" + answers + "],\"asked\":[" +
               asked + "],\"answered\":[" + answered + "],\"complaints\":[" + complaints + "]}";
    }

private:
    const soak::Epoch mEpoch;
    soak::Complaints mComplaints;
    std::vector<std::unique_ptr<Client>> mClients;
};

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 4) {
        fprintf(stderr, "Usage: tern-chaos-clients BUS_ADDRESS CLIENTS REPLY_LIMIT_SECONDS\n");
        return EXIT_USAGE;
    }
    try {
        Clients clients(argv[1], static_cast<unsigned int>(std::stoul(argv[2])),
                        std::chrono::seconds(std::stoul(argv[3])));
        // Also when nobody asks any more.
        for (std::string line; std::getline(std::cin, line) && line != "end";) {
            std::cout << clients.Tell() << std::endl;
        }
        clients.Stop();
        std::cout << clients.Tell() << std::endl;
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        fprintf(stderr, "tern-chaos-clients: %s\n", failure.what());
        return EXIT_USAGE;
    }
}
