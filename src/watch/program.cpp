#include "watch/program.h"

#include "watch/app_logger.h"

const char* const DEFAULT_WATCH_FILE = "/run/featurewatch/tally-features.json";

std::string g_strWatchFile = DEFAULT_WATCH_FILE;
std::string g_strScriptCmdline;
FeatureProvider g_oFeatureProvider;
log4cxx::LoggerPtr gs_pAppLogger = orvlog::getLogger(orvlog::append(orvlog::TOP_LOGGER_NAME, "featurewatch"));
bool g_bDaemonize = true;
bool g_bSwitchUser = true;
