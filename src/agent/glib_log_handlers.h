// glib_log_handlers.h: where GLib's own messages go.
//
// Both handlers drop GLib's debug messages unless the debug flag is set; the flag is one for the process. Not for use
// from several threads while the flag is being set.
#pragma once

#include <cstdio>

// set_glib_default_log_handler_to_syslog makes syslog the target. `debug` is the new debug flag. GLib's errors are sent
// as LOG_CRIT and its criticals as LOG_ERR (kept: the appliance's log filters count on it).
void set_glib_default_log_handler_to_syslog(bool debug);

// set_glib_default_log_handler_to_file makes `stream` the target, in lines that begin with the local time, and puts it
// into line-buffered mode. The caller owns the stream, which must stay open. `debug` is the new debug flag.
void set_glib_default_log_handler_to_file(FILE* stream, bool debug);

// glib_log_handler_set_debug sets the debug flag.
void glib_log_handler_set_debug(bool debug);
