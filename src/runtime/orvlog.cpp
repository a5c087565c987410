#include "runtime/orvlog.h"

#include <log4cxx/consoleappender.h>
#include <log4cxx/helpers/exception.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/net/syslogappender.h>
#include <log4cxx/patternlayout.h>

#include <cstdarg>
#include <cstdio>

#include "runtime/orvlog_c.h"
#include "runtime/orvlog_setup.h"

namespace {

constexpr const char* CONSOLE_PATTERN = "%d{HH:mm:ss.SSS} %p: %m%n";
constexpr const char* SILENT_CONSOLE_PATTERN = "%p: %m%n";
constexpr const char* SYSLOG_PATTERN = "%-5p %-20c - %m%n";

constexpr size_t PLAIN_MESSAGE_SIZE = 512;  // with the terminator

// makeConsoleAppender returns an appender for standard error or output. Its records have no date, and in a silent run,
// where the only record is that of its failure, no time either.
log4cxx::AppenderPtr makeConsoleAppender(bool toStdErr, bool bSilent) {
    const auto layout = std::make_shared<log4cxx::PatternLayout>(bSilent ? SILENT_CONSOLE_PATTERN : CONSOLE_PATTERN);
    const auto appender = std::make_shared<log4cxx::ConsoleAppender>(
        layout, toStdErr ? log4cxx::ConsoleAppender::getSystemErr() : log4cxx::ConsoleAppender::getSystemOut());
    if (bSilent)
        appender->setThreshold(log4cxx::Level::getFatal());
    return appender;
}

// logGuarded writes a record. An appender that fails must not fail its caller, who cannot do anything about it.
template <class Text>
void logGuarded(const log4cxx::LoggerPtr& logger, const log4cxx::LevelPtr& level, const Text& message,
                const log4cxx::spi::LocationInfo& location) {
    try {
        logger->forcedLog(level, message, location);
    } catch (const log4cxx::helpers::Exception& failure) {
        fprintf(stderr, "ERROR: log failed (%s)\n", failure.what());
    }
}

// shareLogger returns a counted reference to the logger that `logger` points to: C code holds a plain pointer, while
// log4cxx evaluates levels through counted ones.
log4cxx::LoggerPtr shareLogger(void* logger) {
    std::string name;
    static_cast<log4cxx::Logger*>(logger)->getName(name);
    return orvlog::getLogger(name);
}

}  // namespace

namespace orvlog {

const char* const TOP_LOGGER_NAME = "orv";

void claimConfiguration() {
    log4cxx::LogManager::getLoggerRepository()->setConfigured(true);
}

log4cxx::LoggerPtr rootAsItIs() {
    return log4cxx::LogManager::getLoggerRepository()->getRootLogger();
}

log4cxx::AppenderPtr makeSyslogAppender(bool bSilent) {
    const auto appender = std::make_shared<log4cxx::net::SyslogAppender>();
    appender->setLayout(std::make_shared<log4cxx::PatternLayout>(SYSLOG_PATTERN));
    appender->setFacility("DAEMON");
    if (bSilent)
        appender->setThreshold(log4cxx::Level::getFatal());
    log4cxx::helpers::Pool pool;
    appender->activateOptions(pool);
    return appender;
}

std::string append(const std::string& parent, const std::string& name) {
    return parent + "." + name;
}

log4cxx::LoggerPtr getLogger(const std::string& name) {
    claimConfiguration();
    return log4cxx::LogManager::getLoggerRepository()->getLogger(name);
}

bool configureBasic(bool toStdErr, bool bSilent) {
    try {
        log4cxx::LogManager::resetConfiguration();
        claimConfiguration();  // the reset forgot the claim
        const log4cxx::LoggerPtr root = rootAsItIs();
        root->setLevel(log4cxx::Level::getInfo());
        root->addAppender(makeConsoleAppender(toStdErr, bSilent));
        root->addAppender(makeSyslogAppender(bSilent));
        return true;
    } catch (const log4cxx::helpers::Exception& failure) {
        claimConfiguration();
        // kept: "startupConfigure" is the name that readers of standard error know
        fprintf(stderr, "ERROR: orvlog::startupConfigure() failed with exception '%s'\n", failure.what());
        return false;
    }
}

void fini() {
    log4cxx::LogManager::shutdown();
}

void safeForcedLog(const log4cxx::LoggerPtr& logger, const log4cxx::LevelPtr& level, const std::string& message,
                   const log4cxx::spi::LocationInfo& location) {
    logGuarded(logger, level, message, location);
}

void safeForcedLog(const log4cxx::LoggerPtr& logger, const log4cxx::LevelPtr& level, const std::wstring& message,
                   const log4cxx::spi::LocationInfo& location) {
    logGuarded(logger, level, message, location);
}

}  // namespace orvlog

extern "C" void orvlog_logger_log(void* logger, int level, const char* file, const char* function, int line,
                                  const char* format, ...) {
    try {
        const log4cxx::LoggerPtr target = shareLogger(logger);
        const log4cxx::LevelPtr threshold = log4cxx::Level::toLevel(level);
        if (!target->isEnabledFor(threshold))
            return;
        char message[PLAIN_MESSAGE_SIZE];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(message, sizeof message, format, arguments);
        va_end(arguments);
        message[sizeof message - 1] = '\0';
        target->forcedLog(
            threshold, message,
            log4cxx::spi::LocationInfo(file, log4cxx::spi::LocationInfo::calcShortFileName(file), function, line));
    } catch (const log4cxx::helpers::Exception& failure) {
        fprintf(stderr, "ERROR: orvlog_logger_log() failed with exception '%s'\n", failure.what());
    }
}
