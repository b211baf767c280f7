#pragma once

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <string>

/// The arguments of a server of the comparisons: SERVER BUS-NAME [OBJECTS INTERFACES MATCHES SOURCES]. All
/// servers answer the same method, Echo(s) -> s, on each interface of each object, and end on SIGTERM.
struct ServerOptions {
    ServerOptions(int argc, char* argv[]) {
        if (argc < 2) {
            fprintf(stderr, "Usage: %s BUS-NAME [OBJECTS INTERFACES MATCHES SOURCES]\n", argv[0]);
            std::exit(2);
        }
        name = argv[1];
        int* const counts[] = {&objects, &interfaces, &matches, &sources};
        for (int i = 2; i < argc && i < 6; ++i) {
            *counts[i - 2] = std::atoi(argv[i]);
        }
    }

    static std::string Path(int object) { return "/org/example/Bench/Object" + std::to_string(object); }
    static std::string Interface(int interface) {
        return "org.example.Bench.Interface" + std::to_string(interface);
    }
    /// Of a signal that nobody sends.
    static std::string Match(int match) {
        return "type='signal',path='/org/example/Other',interface='org.example.Other',member='Changed" +
               std::to_string(match) + "'";
    }

    std::string name;
    int objects = 1;     ///< objects exported
    int interfaces = 1;  ///< interfaces of each object
    int matches = 0;     ///< match rules installed
    int sources = 0;     ///< descriptors watched, which never become ready
};

/// Processor time of the thread that puts everything on the bus; prints the microseconds on standard output
/// when it ends.
class ExportClock {
public:
    ExportClock() = default;
    ~ExportClock() {
        const double spent = Now() - mStart;
        printf("%.1f\n", spent * 1e6);
        fflush(stdout);
    }
    ExportClock(const ExportClock&) = delete;
    ExportClock& operator=(const ExportClock&) = delete;

private:
    static double Now() {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    }

    double mStart = Now();
};

inline void Require(bool condition, const char* what) {
    if (!condition) {
        perror(what);
        std::exit(1);
    }
}
