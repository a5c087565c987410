// app_logger.h: the logger of the agent's own records.
#pragma once

#include "runtime/orvlog.h"

// gs_pAppLogger is the logger of the front end, the loop and the launcher, made by static initialisation in program.cpp
// and usable from `main` on until exit.
extern log4cxx::LoggerPtr gs_pAppLogger;
