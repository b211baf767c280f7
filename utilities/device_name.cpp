#include <tern/utilities/device_name.h>

#include <tern-foundation/unit_path.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "foundation/error_text.h"
#include "foundation/handle.h"
#include "platform/static_text.h"

namespace mwl::Utilities {

namespace {

const StaticText LOGGER("mwl::Utilities::DeviceName");
const StaticText HOSTNAME_FILE(Unit::Path::MWL_LIB + Unit::Path::ETC + "/hostname");

constexpr std::size_t HOSTNAME_BUFFER = 64;
/// The half of a MAC address that distinguishes the devices of one maker.
constexpr std::size_t DEVICE_PART_START = 6;
constexpr std::size_t DEVICE_PART_LENGTH = 6;
const char* const SEPARATOR = "-";

using File = Handle<std::FILE, std::fclose>;

/// toupper(3) of the C locale, whatever locale the process has.
char ToUpper(char character) {
    return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A') : character;
}

}  // namespace

StatusCode DeviceName::Create(const std::string& productCode, const std::string& mac, std::string& hostname) {
    TERN_LOG_TRACE(LOGGER, "Create: %s %s", productCode.c_str(), mac.c_str());
    if (productCode.empty() || mac.empty()) {
        TERN_LOG_ERROR(LOGGER, "Hostname cannot be created if product code (%s) or mac (%s) is empty",
                       productCode.c_str(), mac.c_str());
        return StatusCode::Failure;
    }
    // Fixed by the interface: an address that ends before its device part leaves as std::out_of_range.
    std::string name = productCode + SEPARATOR + mac.substr(DEVICE_PART_START, DEVICE_PART_LENGTH);
    std::transform(name.begin(), name.end(), name.begin(), ToUpper);
    hostname = std::move(name);
    return StatusCode::Ok;
}

StatusCode DeviceName::GetHostname(std::string& hostname) {
    TERN_LOG_TRACE(LOGGER, "GetHostname");
    char buffer[HOSTNAME_BUFFER] = "";
    if (gethostname(buffer, sizeof buffer) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "GetHostname: Failed to get hostname, errno = %s", ErrorText(error));
        return StatusCode::Failure;
    }
    // A name that fills the buffer need not be terminated.
    hostname.assign(buffer, strnlen(buffer, sizeof buffer));
    TERN_LOG_INFO(LOGGER, "GetHostname: hostname: %s", hostname.c_str());
    return StatusCode::Ok;
}

StatusCode DeviceName::SetHostname(const std::string& hostname) {
    TERN_LOG_TRACE(LOGGER, "SetHostname: %s", hostname.c_str());
    if (sethostname(hostname.c_str(), hostname.size()) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "SetHostname: Failed to set hostname, errno = %s", ErrorText(error));
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode DeviceName::ReadHostname(std::string& hostname) {
    TERN_LOG_TRACE(LOGGER, "ReadHostname");
    const auto failed = [](int error) {
        TERN_LOG_ERROR(LOGGER, "ReadHostname: Failed to read file '%s': %s", HOSTNAME_FILE.c_str(),
                       ErrorText(error));
        return StatusCode::IoError;
    };
    const File file(std::fopen(HOSTNAME_FILE.c_str(), "re"));
    if (file == nullptr) {
        return failed(errno);
    }
    char* text = nullptr;
    std::size_t capacity = 0;
    const ssize_t length = getline(&text, &capacity, file.get());
    const int error = errno;
    const Handle<char, std::free> line(text);
    if (length < 0 && std::feof(file.get()) == 0) {
        return failed(error);
    }
    // Nothing at the end of the file: it is empty.
    hostname = length < 0 ? std::string() : std::string(text, static_cast<std::size_t>(length));
    if (!hostname.empty() && hostname.back() == '\n') {
        hostname.pop_back();
    }
    TERN_LOG_INFO(LOGGER, "ReadHostname: hostname: %s", hostname.c_str());
    return StatusCode::Ok;
}

StatusCode DeviceName::StoreHostname(const std::string& hostname, bool force) {
    TERN_LOG_TRACE(LOGGER, "StoreHostname: %s, force:%s", hostname.c_str(), force ? "true" : "false");
    if (!force && File(std::fopen(HOSTNAME_FILE.c_str(), "re")) != nullptr) {
        TERN_LOG_INFO(LOGGER, "StoreHostname: Do not overwrite existing %s", HOSTNAME_FILE.c_str());
        return StatusCode::AlreadyExists;
    }
    File file(std::fopen(HOSTNAME_FILE.c_str(), "we"));
    if (file == nullptr) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "StoreHostname: Failed to create file '%s': %s", HOSTNAME_FILE.c_str(),
                       ErrorText(error));
        return StatusCode::IoError;
    }
    const bool written = std::fwrite(hostname.data(), 1, hostname.size(), file.get()) == hostname.size();
    int error = errno;
    if (std::fclose(file.release()) != 0) {
        error = errno;
    } else if (written) {
        return StatusCode::Ok;
    }
    TERN_LOG_ERROR(LOGGER, "StoreHostname: Failed to write file '%s': %s", HOSTNAME_FILE.c_str(),
                   ErrorText(error));
    return StatusCode::IoError;
}

}  // namespace mwl::Utilities
