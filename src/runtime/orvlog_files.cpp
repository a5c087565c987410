#include <apr_file_info.h>
#include <apr_file_io.h>
#include <log4cxx/file.h>
#include <log4cxx/helpers/exception.h>
#include <log4cxx/helpers/loglog.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/propertyconfigurator.h>
#include <log4cxx/rolling/rollingfileappender.h>
#include <log4cxx/spi/loggerrepository.h>
#include <log4cxx/xml/domconfigurator.h>

#include <cstdio>
#include <exception>
#include <memory>

#include "runtime/orvlog.h"
#include "runtime/orvlog_setup.h"

namespace {

constexpr const char* MAIN_PATTERN = "%d{dd-MM-y HH:mm:ss} %-5p %-20c - %m%n";
constexpr const char* ACCOUNTING_PATTERN = "%m%n";

const log4cxx::LoggerPtr gs_pUtilsLogger = orvlog::getLogger(orvlog::append(orvlog::TOP_LOGGER_NAME, "utils"));

using RollingFileAppenderPtr = std::shared_ptr<log4cxx::rolling::RollingFileAppender>;

RollingFileAppenderPtr makeFileAppender(const char* pattern, const char* file, const char* maxSize) {
    const auto appender = std::make_shared<log4cxx::rolling::RollingFileAppender>();
    appender->setLayout(std::make_shared<log4cxx::PatternLayout>(pattern));
    appender->setFile(file);
    appender->setAppend(true);
    appender->setMaxBackupIndex(1);
    appender->setMaxFileSize(maxSize);
    return appender;
}

// makeLogFolder ignores a failure: what it leads to, a file that can't be opened, is reported by the appender.
void makeLogFolder() {
    log4cxx::helpers::Pool pool;
    apr_dir_make_recursive("log", APR_FPROT_OS_DEFAULT, pool.getAPRPool());
}

// silenceProfiling detaches the profiling logger from the root; it has no appender of its own.
void silenceProfiling() {
    const std::string svglib = orvlog::append(orvlog::TOP_LOGGER_NAME, "svglib");
    orvlog::getLogger(orvlog::append(svglib, "profiling"))->setAdditivity(false);
}

void attachAccountingFile() {
    const RollingFileAppenderPtr appender = makeFileAppender(ACCOUNTING_PATTERN, "log/accounting.log", "8000KB");
    log4cxx::helpers::Pool pool;
    appender->activateOptions(pool);
    const log4cxx::LoggerPtr logger = orvlog::getLogger(orvlog::append(orvlog::TOP_LOGGER_NAME, "accounting"));
    logger->addAppender(appender);
    logger->setAdditivity(false);
}

void attachMainFile(const log4cxx::LoggerPtr& root) {
    const RollingFileAppenderPtr appender = makeFileAppender(MAIN_PATTERN, "log/player.log", "30000KB");
    appender->setOption("Threshold", "info");
    log4cxx::helpers::Pool pool;
    appender->activateOptions(pool);
    root->addAppender(appender);
}

void setUpFiles() {
    log4cxx::LogManager::resetConfiguration();
    orvlog::claimConfiguration();  // the reset forgot the claim
    const log4cxx::LoggerPtr root = orvlog::rootAsItIs();
    root->setLevel(log4cxx::Level::getInfo());
    makeLogFolder();
    silenceProfiling();
    root->addAppender(orvlog::makeSyslogAppender(true));
    attachAccountingFile();
    attachMainFile(root);
}

// requireConfigured throws where log4cxx itself would only print a warning.
void requireConfigured(log4cxx::spi::ConfigurationStatus status) {
    if (status != log4cxx::spi::ConfigurationStatus::Configured)
        throw log4cxx::helpers::RuntimeException("the file is missing or malformed");
}

// configureGuarded runs a set-up, records or reports how it went, and returns whether it succeeded. One that failed may
// have forgotten the claim, which is renewed then.
template <class SetUp>
bool configureGuarded(const char* scope, const char* name, SetUp setUp) {
    try {
        setUp();
        ORVLOG_INFO(gs_pUtilsLogger, "Logs %s() sucess", name);  // kept: log readers search for it
        return true;
    } catch (const log4cxx::helpers::Exception& failure) {
        orvlog::claimConfiguration();
        fprintf(stderr, "ERROR: %s::%s() failed with exception '%s'\n", scope, name, failure.what());
        return false;
    }
}

// reopenAppenders activates each appender of one logger again, which opens its target.
void reopenAppenders(const log4cxx::LoggerPtr& logger, log4cxx::helpers::Pool& pool) {
    for (const log4cxx::AppenderPtr& appender : logger->getAllAppenders())
        appender->activateOptions(pool);
}

// reopenAppendersGuarded is `reopenAppenders` for a logger whose failure must not reach the next one.
void reopenAppendersGuarded(const log4cxx::LoggerPtr& logger, log4cxx::helpers::Pool& pool) {
    try {
        reopenAppenders(logger, pool);
    } catch (const std::exception& failure) {
        log4cxx::helpers::LogLog::error(logger->getName(), failure);
    }
}

}  // namespace

namespace orvlog {

bool configureDefault() {
    return configureGuarded("log", "configureDefault", setUpFiles);  // kept: "log", not "orvlog"
}

bool configureFromXML(const std::string& file) {
    return configureGuarded("orvlog", "configureFromXML",
                            [&] { requireConfigured(log4cxx::xml::DOMConfigurator::configure(file)); });
}

bool configureFromINI(const std::string& file) {
    return configureGuarded("orvlog", "configureFromINI",
                            [&] { requireConfigured(log4cxx::PropertyConfigurator::configure(log4cxx::File(file))); });
}

void reset() {
    try {
        log4cxx::helpers::Pool pool;
        reopenAppenders(rootAsItIs(), pool);
        for (const log4cxx::LoggerPtr& logger : log4cxx::LogManager::getCurrentLoggers())
            reopenAppendersGuarded(logger, pool);
    } catch (const log4cxx::helpers::Exception& failure) {
        fprintf(stderr, "ERROR: orvlog::reset() failed (%s)\n", failure.what());
    }
}

}  // namespace orvlog
