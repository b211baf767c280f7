#include "measurement_log.h"

#include <tern/foundation/log.h>
#include <tern/synchronizer/subject_interface.h>
#include <tern/utilities/file_system.h>

#include <cstdio>

#include "measurement.h"
#include "names.h"

using mwl::StatusCode;
using mwl::Utilities::FileSystem;

namespace thermostat {

namespace {

constexpr std::uintmax_t MAX_FILE_BYTES = 128UL * 1024;
constexpr const char* FILE_NAME = "/measurements.csv";
constexpr const char* FORMER_FILE_NAME = "/measurements.1.csv";

/// Whether the file ends within a line, for example after a power cut or on a full disk.
bool EndsWithinLine(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return file.seekg(-1, std::ios::end) && file.get() != '\n';
}

}  // namespace

MeasurementLog::MeasurementLog(mwl::tern::Synchronizer::SubjectInterface& subject, std::string folder)
    : Observer(subject), mFolder(std::move(folder)) {
    Measurement kind;
    subject.Attach(*this, kind);
}

StatusCode MeasurementLog::Open() {
    StatusCode status = FileSystem::CheckDirectoryExist(mFolder);
    if (status != StatusCode::Ok) {
        status = FileSystem::CreateFolder(mFolder);
    }
    if (status == StatusCode::Ok) {
        status = Begin();
    }
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "The folder of the measurements, %s, cannot be used: %s", mFolder.c_str(),
                       mw::tern::ConvertStatusCodeToString(status).c_str());
    }
    return status;
}

void MeasurementLog::OnNotify(mwl::tern::Synchronizer::NotificationInterface* notification) {
    const auto* const measurement = static_cast<const Measurement*>(notification);
    // After a failure the file is opened again: the disk may have room now.
    const bool ready = (mFile.is_open() && mSize < MAX_FILE_BYTES) || Begin() == StatusCode::Ok;
    if (!ready || !Write(measurement->GetCelsius(), measurement->IsHeating())) {
        mFile.close();
        if (++mLost == 1) {
            TERN_LOG_WARNING(LOGGER, "Measurements cannot be written to %s; the thermostat goes on without",
                             mFolder.c_str());
        }
    } else if (mLost > 0) {
        TERN_LOG_NOTICE(LOGGER, "Measurements are written again, %lu were lost", mLost);
        mLost = 0;
    }
}

StatusCode MeasurementLog::Begin() {
    const std::string path = mFolder + FILE_NAME;
    mFile.close();
    mFile.clear();
    mFile.open(path, std::ios::binary | std::ios::app | std::ios::ate);
    const auto size = mFile.tellp();
    if (size < 0) {
        return StatusCode::OpenFailed;
    }
    mSize = static_cast<std::uintmax_t>(size);
    if (mSize >= MAX_FILE_BYTES) {
        mFile.close();
        const StatusCode status = FileSystem::Rename(path, mFolder + FORMER_FILE_NAME);
        if (status != StatusCode::Ok) {
            return status;
        }
        mFile.open(path, std::ios::binary | std::ios::app | std::ios::ate);
        mSize = 0;
    } else if (EndsWithinLine(path) && mFile.put('\n').flush()) {
        ++mSize;
    }
    // Where the newline found no room the next line finds none either, and is lost like any other.
    return mFile.is_open() ? StatusCode::Ok : StatusCode::OpenFailed;
}

bool MeasurementLog::Write(double celsius, bool heating) {
    char line[64];
    const int length = snprintf(line, sizeof line, "%.6g,%d\n", celsius, heating ? 1 : 0);
    mFile.write(line, length).flush();
    mSize += static_cast<std::uintmax_t>(length);
    return mFile.good();
}

}  // namespace thermostat
