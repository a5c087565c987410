// orvlog.h: loggers under one top name, the set-up of logging, and the calls that make a record.
//
// A thin layer over log4cxx. A log4cxx exception in writing a record never reaches the caller: it is reported on
// standard error, and the caller goes on. Other exceptions, such as std::bad_alloc, pass through. log4cxx does its own
// locking: any thread may log.
//
// A module holds its logger in a static object and makes records with the macros, which test the level first and
// compose the text only when a record will be made of it:
//
//     static const log4cxx::LoggerPtr gs_pLogger = orvlog::getLogger(orvlog::append(orvlog::TOP_LOGGER_NAME, "tally"));
//     ORVLOG_ERROR(gs_pLogger, "failed to open %s", path.c_str());
#pragma once

#include <log4cxx/logger.h>

#include <string>

#include "foundation/strfmt.h"

// ORVLOG_DEBUG, ORVLOG_INFO, ORVLOG_WARN, ORVLOG_ERROR and ORVLOG_FATAL take a logger, a printf format and its
// arguments. The arguments are evaluated only when the level is on.
#define ORVLOG_DEBUG(logger, ...) ORVLOG_RECORD(logger, isDebugEnabledFor, getDebug, __VA_ARGS__)
#define ORVLOG_INFO(logger, ...) ORVLOG_RECORD(logger, isInfoEnabledFor, getInfo, __VA_ARGS__)
#define ORVLOG_WARN(logger, ...) ORVLOG_RECORD(logger, isWarnEnabledFor, getWarn, __VA_ARGS__)
#define ORVLOG_ERROR(logger, ...) ORVLOG_RECORD(logger, isErrorEnabledFor, getError, __VA_ARGS__)
#define ORVLOG_FATAL(logger, ...) ORVLOG_RECORD(logger, isFatalEnabledFor, getFatal, __VA_ARGS__)

// ORVLOG_RECORD is the one shape of a log call, for the five macros above.
#define ORVLOG_RECORD(logger, isEnabledFor, getLevel, ...)                                                             \
    do {                                                                                                               \
        if (log4cxx::Logger::isEnabledFor(logger))                                                                     \
            orvlog::safeForcedLog((logger), log4cxx::Level::getLevel(), strfmt(__VA_ARGS__), LOG4CXX_LOCATION);        \
    } while (false)

namespace orvlog {

// TOP_LOGGER_NAME is the name that every logger name of the system starts with.
extern const char* const TOP_LOGGER_NAME;

// append returns the name of the logger `name` below the logger `parent`.
std::string append(const std::string& parent, const std::string& name);

// getLogger returns the logger called `name`, which is made at its first use. Loggers are made only here: log4cxx left
// alone would configure itself at the first one, from files in the current folder or named by the environment, and so
// let whoever chooses the folder write files with this process's rights.
log4cxx::LoggerPtr getLogger(const std::string& name);

// configureBasic sets logging up for short-lived runs and for the time before a full configuration, in place of
// whatever was configured before: records from INFO up go to standard error (`toStdErr`) or standard output, and to
// syslog. With `bSilent` only FATAL records pass, on both. A failure is reported on standard error and returns false;
// appenders that were attached by then stay.
bool configureBasic(bool toStdErr, bool bSilent);

// configureDefault sets logging up with files, in place of whatever was configured before: records from INFO up go to
// "log/player.log", FATAL ones to syslog too, those of the logger "orv.accounting" only to "log/accounting.log", and
// those of "orv.svglib.profiling" nowhere. The folder "log" is made in the working directory; each file is kept once
// more when it has grown too large. No record goes to the console. A failure is reported on standard error and returns
// false; appenders that were attached by then stay. Kept: a file that can't be opened is not a failure; log4cxx only
// reports it.
bool configureDefault();

// configureFromXML and configureFromINI set logging up from a file in one of log4cxx's two formats. A failure, a
// missing or malformed file included, is reported on standard error and returns false.
bool configureFromXML(const std::string& file);
bool configureFromINI(const std::string& file);

// reset makes all appenders reopen their targets: log files that were moved away are made again. A failure is reported
// on standard error; a failing appender, unless it is the root's, doesn't keep other loggers' appenders from being
// reset. AsyncResetHandler does this without the caller waiting.
void reset();

// fini ends logging; meant for atexit.
void fini();

// safeForcedLog writes one record whatever the logger's level. The caller has tested the level.
void safeForcedLog(const log4cxx::LoggerPtr& logger, const log4cxx::LevelPtr& level, const std::string& message,
                   const log4cxx::spi::LocationInfo& location);
void safeForcedLog(const log4cxx::LoggerPtr& logger, const log4cxx::LevelPtr& level, const std::wstring& message,
                   const log4cxx::spi::LocationInfo& location);

}  // namespace orvlog
