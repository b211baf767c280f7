#include "measurement_log.h"

#include <tern/synchronizer/subject_interface.h>
#include <tern/utilities/file_system.h>

#include "measurement.h"

using mwl::StatusCode;
using mwl::Utilities::FileSystem;

namespace thermostat {

namespace {

constexpr unsigned int LINES_PER_FILE = 10000;
constexpr const char* FILE_NAME = "/measurements.csv";
constexpr const char* FORMER_FILE_NAME = "/measurements.1.csv";

}  // namespace

MeasurementLog::MeasurementLog(mwl::tern::Synchronizer::SubjectInterface& subject, std::string folder)
    : Observer(subject), mFolder(std::move(folder)) {
    Measurement kind;
    subject.Attach(*this, kind);
}

StatusCode MeasurementLog::Open() {
    if (FileSystem::CheckDirectoryExist(mFolder) != StatusCode::Ok) {
        const StatusCode status = FileSystem::CreateFolder(mFolder);
        if (status != StatusCode::Ok) {
            return status;
        }
    }
    return Begin();
}

StatusCode MeasurementLog::Begin() {
    const std::string path = mFolder + FILE_NAME;
    mFile.close();
    if (FileSystem::CheckFileExist(path) == StatusCode::Ok) {
        const StatusCode status = FileSystem::Rename(path, mFolder + FORMER_FILE_NAME);
        if (status != StatusCode::Ok) {
            return status;
        }
    }
    mFile.open(path);
    mLines = 0;
    return mFile.is_open() ? StatusCode::Ok : StatusCode::OpenFailed;
}

void MeasurementLog::OnNotify(mwl::tern::Synchronizer::NotificationInterface* notification) {
    const auto* const measurement = static_cast<const Measurement*>(notification);
    if (mLines == LINES_PER_FILE) {
        // A failure is logged by FileSystem; the thermostat goes on without its log.
        static_cast<void>(Begin());
    }
    mFile << measurement->GetCelsius() << ',' << (measurement->IsHeating() ? 1 : 0) << '\n' << std::flush;
    ++mLines;
}

}  // namespace thermostat
