#include <tern/service/service.h>

#include <tern/foundation/log.h>

#include "platform/static_text.h"

namespace mwl::DBusService {

namespace {

const StaticText LOGGER("DBusService::Service");

}  // namespace

Service::Service(const std::string& name) : mServerManager(name) {}

Service::~Service() = default;

StatusCode Service::Initialize() {
    StatusCode status = mMainLoop.Init();
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "mMainLoop.Init() FAILED with return %u", status);
        return status;
    }
    status = mServerManager.Connect();
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "mServerManager.Connect() FAILED with return %u", status);
        return status;
    }
    status = mServerManager.AttachLoop(mMainLoop);
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "mServerManager.AttachLoop() FAILED with return %u", status);
    }
    return status;
}

StatusCode Service::Run() {
    return mMainLoop.Run();
}

}  // namespace mwl::DBusService
