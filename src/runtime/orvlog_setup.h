// orvlog_setup.h: the steps that all set-ups of logging share; for the sources of orvlog.h only.
#pragma once

#include <log4cxx/appender.h>
#include <log4cxx/logger.h>

namespace orvlog {

// claimConfiguration keeps log4cxx from looking for configuration files. A reset of the configuration forgets the
// claim.
void claimConfiguration();

// rootAsItIs returns the root logger as the repository has it: log4cxx's own accessor would reconfigure a repository
// that another thread just shut down.
log4cxx::LoggerPtr rootAsItIs();

// makeSyslogAppender returns an appender for syslog, ready for use; with `bSilent` only FATAL records pass it.
log4cxx::AppenderPtr makeSyslogAppender(bool bSilent);

}  // namespace orvlog
