#include "settings.h"

#include <tern/foundation/log.h>
#include <tern/parser/ini_parser.h>

#include <cmath>
#include <cstdlib>
#include <map>

#include "names.h"

using mw::tern::StatusCode;

namespace thermostat {

namespace {

/// The whole text as a number within the limits.
bool ReadNumber(const std::string& text, double low, double high, double& number) {
    char* end = nullptr;
    const double read = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(read >= low && read <= high)) {
        return false;
    }
    number = read;
    return true;
}

bool Take(const std::string& attribute, const std::string& value, Settings& settings) {
    double number = 0.0;
    if (attribute == "target") {
        return ReadNumber(value, MIN_TARGET, MAX_TARGET, settings.target);
    }
    if (attribute == "sampling_ms" && ReadNumber(value, 10, 1000, number) && number == std::floor(number)) {
        settings.samplingMs = static_cast<unsigned int>(number);
        return true;
    }
    if (attribute == "state_folder" && !value.empty()) {
        settings.stateFolder = value;
        return true;
    }
    if (attribute == "log_folder" && !value.empty()) {
        settings.logFolder = value;
        return true;
    }
    if (attribute == "debug" && (value == "0" || value == "1")) {
        settings.debug = value == "1";
        return true;
    }
    return false;
}

}  // namespace

StatusCode LoadSettings(const std::string& path, Settings& settings) {
    std::map<std::string, std::string> values;
    const StatusCode status = mwl::Parser::IniParser::Parse(path, values);
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "%s cannot be read, status=%u", path.c_str(), status);
        return status;
    }
    for (const auto& [attribute, value] : values) {
        if (!Take(attribute, value, settings)) {
            TERN_LOG_ERROR(LOGGER, "%s: '%s=%s' is not a setting", path.c_str(), attribute.c_str(),
                           value.c_str());
            return StatusCode::InvalidArgument;
        }
    }
    return StatusCode::Ok;
}

}  // namespace thermostat
