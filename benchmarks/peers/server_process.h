#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <time.h>

#include <set>
#include <string>
#include <vector>

namespace tern::benchmarks {

/// A side of the comparisons: what it is called and its server program.
struct Side {
    std::string name;
    std::string program;

    /// All that were built, our own first, then plain sd-bus.
    static std::vector<Side> All();
};

/// Seconds since whenever.
double Now();

/// Where there are two processors, puts the calling thread and what it starts on the one with this number (0
/// or 1): the servers on the first, client and bus on the second, so that the scheduler treats all sides
/// alike.
void PinToProcessor(int processor);

/// A client of the private bus. Ends the process as failed when anything goes wrong.
class Client {
public:
    Client();
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    sd_bus* Get() const { return mBus; }
    /// Waits until somebody owns the name who did not before this client was there.
    void AwaitName(const std::string& name);
    /// Waits until somebody owns the name, who may have done so for long.
    void AwaitNameOrFindIt(const std::string& name);
    /// Calls Echo and waits for the answer.
    void Call(const std::string& name, const std::string& path, const std::string& interface);
    /// Calls Echo so many times, with at most so many calls unanswered.
    void CallMany(const std::string& name, const std::string& path, const std::string& interface, int calls,
                  int inFlight);

private:
    static int OnOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);

    sd_bus* mBus = nullptr;
    std::set<std::string> mOwned;
};

/// A running server; ended by SIGTERM when it is destroyed.
class ServerProcess {
public:
    /// Starts the side's server, which will own the name `Name()`; the arguments are those of ServerOptions.
    ServerProcess(const Side& side, const std::vector<int>& counts);
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    const std::string& SideName() const { return mSide; }
    const std::string& Name() const { return mName; }
    pid_t Pid() const { return mPid; }
    /// Seconds of processor time used so far by all of its threads.
    double ProcessorTime() const;
    /// Microseconds of processor time for putting everything on the bus (ExportClock); waits for the server
    /// to report.
    double ExportTime();
    /// KiB of one line of /proc/PID/smaps_rollup.
    double Memory(const std::string& field) const;
    /// How often its threads have been put to sleep, each of which a wake-up ended.
    double Sleeps() const;
    /// Number of its threads.
    double Threads() const;

private:
    std::string mSide;
    std::string mName;
    pid_t mPid = -1;
    clockid_t mClock{};
    int mOutput = -1;  ///< what it writes to standard output
};

}  // namespace tern::benchmarks
