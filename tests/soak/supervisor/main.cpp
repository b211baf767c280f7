// The soak's supervisor with its clients; scripts/soak is the command and says what came of it.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "supervisor.h"

namespace {

constexpr int EXIT_USAGE = 2;

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 5) {
        fprintf(stderr, "Usage: tern-soak EXTENSION OUTPUT_FOLDER SECONDS REPLY_LIMIT_SECONDS\n");
        return EXIT_USAGE;
    }
    soak::Supervisor::Options options;
    options.extension = argv[1];
    options.output = argv[2];
    try {
        options.duration = std::chrono::seconds(std::stoul(argv[3]));
        options.habits.limit = std::chrono::seconds(std::stoul(argv[4]));
        return soak::Supervisor(options).Run() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        fprintf(stderr, "tern-soak: %s\n", failure.what());
        return EXIT_USAGE;
    }
}
