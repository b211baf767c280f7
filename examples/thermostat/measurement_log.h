#pragma once

#include <tern/foundation/status_code.h>
#include <tern/synchronizer/observer.h>

#include <fstream>
#include <string>

namespace thermostat {

/// Writes every measurement as a line "celsius,heating" to a file of the log folder, and begins a new file,
/// keeping one former, when it has grown. Control thread only, after Open.
class MeasurementLog : public mwl::tern::Synchronizer::Observer {
public:
    /// The subject outlives the log.
    MeasurementLog(mwl::tern::Synchronizer::SubjectInterface& subject, std::string folder);

    /// Makes the folder when it is missing (its parent has to be there) and opens the file.
    mwl::StatusCode Open();
    void OnNotify(mwl::tern::Synchronizer::NotificationInterface* notification) override;

private:
    mwl::StatusCode Begin();

    std::string mFolder;
    std::ofstream mFile;
    unsigned int mLines = 0;
};

}  // namespace thermostat
