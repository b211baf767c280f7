#pragma once

#include <tern/foundation/status_code.h>
#include <tern/synchronizer/observer.h>

#include <cstdint>
#include <fstream>
#include <string>

namespace thermostat {

/// Appends every measurement as a line "celsius,heating" to a file of the log folder, and begins a new file,
/// keeping one former, when it has grown to 128 KiB. A line is written whole or, on a full disk, not at all
/// as far as a reader can see: a part that was written ends with a newline before the next line.
///
/// Control thread only, after Open.
class MeasurementLog : public mwl::tern::Synchronizer::Observer {
public:
    /// The subject outlives the log.
    MeasurementLog(mwl::tern::Synchronizer::SubjectInterface& subject, std::string folder);

    /// Makes the folder when it is missing (its parent has to be there) and opens the file, going on behind
    /// what an earlier run has written. To be called only by who owns the service's name: another instance
    /// may be writing otherwise.
    ///
    /// - Ok: measurements are taken; on a full disk they are lost until there is room.
    /// - OpenFailed: the file cannot be opened.
    /// - otherwise why the folder cannot be created, or a grown file not be put aside.
    mwl::StatusCode Open();

    /// Writes one line. A line that cannot be written, for example on a full disk, is lost: the first loss is
    /// logged, and the number of losses when writing works again.
    void OnNotify(mwl::tern::Synchronizer::NotificationInterface* notification) override;

private:
    mwl::StatusCode Begin();
    bool Write(double celsius, bool heating);

    std::string mFolder;
    std::ofstream mFile;
    std::uintmax_t mSize = 0;  ///< bytes in the file
    unsigned long mLost = 0;   ///< measurements since the writing failed
};

}  // namespace thermostat
