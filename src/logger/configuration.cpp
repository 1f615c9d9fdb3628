// The daemon's settings: the part of Logger that reads them.

#include <limits>
#include <sstream>

#include <log4cplus/configurator.h>
#include <log4cplus/helpers/property.h>
#include <log4cplus/hierarchy.h>
#include <log4cplus/logger.h>

#include "logger/logger.h"
#include "support/diagnostics.h"
#include "support/numbers.h"
#include "support/paths.h"

namespace qwk {

namespace {

constexpr std::int32_t smallestLogSize = 524288;
constexpr std::int32_t noUpperLimit = std::numeric_limits<std::int32_t>::max();

using Properties = log4cplus::helpers::Properties;

std::string decimal(std::int32_t number) {
    std::ostringstream text;
    text << number;
    return text.str();
}

// The value of `key` when it is a whole number within the range; otherwise the default, which is
// reported when a value was there.
std::int32_t readSetting(const Properties& properties, const char* key, std::int32_t defaultValue,
                         std::int32_t lowest, std::int32_t highest) {
    const std::string text = properties.getProperty(key, decimal(defaultValue));
    const char* end = nullptr;
    const std::int32_t value = parseDecimal(text.c_str(), end);
    if (*end == '\0' && value >= lowest && value <= highest)
        return value;
    report(LOG_WARNING, "%s in \"%s\" invalid. Using %d.", key, configurationPath, defaultValue);
    return defaultValue;
}

} // namespace

void Logger::readConfiguration() {
    // Only properties whose names begin with "log4cplus." pass, without that prefix.
    log4cplus::PropertyConfigurator configurator(configurationPath,
                                                 log4cplus::Logger::getDefaultHierarchy(), 0);
    const Properties& properties = configurator.getProperties();
    logSize_ = readSetting(properties, "logsize", static_cast<std::int32_t>(logSize_),
                           smallestLogSize, noUpperLimit);
    logLevel_ = readSetting(properties, "loglevel", logLevel_, 1, 6);
    logCount_ = readSetting(properties, "logcount", logCount_, 2, noUpperLimit);
}

} // namespace qwk
