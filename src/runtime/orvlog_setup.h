// orvlog_setup.h: the steps that the set-ups of logging share; for the sources of orvlog.h only.
#pragma once

#include <log4cxx/appender.h>

namespace orvlog {

// claimConfiguration keeps log4cxx from looking for configuration files. A reset of the configuration forgets the
// claim.
void claimConfiguration();

// makeSyslogAppender returns an appender for syslog, ready for use; with `bSilent` only FATAL records pass it.
log4cxx::AppenderPtr makeSyslogAppender(bool bSilent);

}  // namespace orvlog
