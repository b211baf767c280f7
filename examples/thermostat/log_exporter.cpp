#include "log_exporter.h"

#include <tern/utilities/zipper.h>

#include <utility>

using mw::tern::StatusCode;

namespace thermostat {

LogExporter::LogExporter(JobPool& pool, mwl::Typed::Bus& bus, std::string logFolder,
                         const std::string& stateFolder)
    : mPool(pool), mBus(bus), mLogFolder(std::move(logFolder)), mArchive(stateFolder + "/log.zip") {}

void LogExporter::Export(const std::string& password, Done done) {
    mPool.Queue([this, password, done = std::move(done)]() mutable {
        const StatusCode result = mwl::Utilities::Zipper::Zip(mLogFolder, mArchive, password);
        // Refused once the bus has closed: then nobody waits for it.
        static_cast<void>(mBus.Post([done = std::move(done), result]() mutable { done(result); }));
    });
}

}  // namespace thermostat
