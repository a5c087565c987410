#include "agent/glib_log_handlers.h"

#include <glib.h>
#include <syslog.h>

#include <string>

#include "foundation/strfmt.h"

namespace {

// STREAM_BUFFER_SIZE is room for a long message: a line that fits is written by a single call.
constexpr size_t STREAM_BUFFER_SIZE = 8192;

bool gs_bDebug = false;

// hasDomain returns whether a library named itself; a message of this program has no domain.
bool hasDomain(const gchar* domain) {
    return domain != nullptr && *domain != '\0';
}

// isDropped returns whether `level` is hidden. GLib's own default hides more, its informational messages too.
bool isDropped(GLogLevelFlags level) {
    return (level & G_LOG_LEVEL_MASK) == G_LOG_LEVEL_DEBUG && !gs_bDebug;
}

// syslogPriority returns the priority for `level` without its flags, which GLib adds for fatal and for nested messages.
// kept: GLib's error and critical are LOG_CRIT and LOG_ERR, as the appliance's log filters count on it. The obvious
// LOG_EMERG would reach every terminal.
int syslogPriority(GLogLevelFlags level) {
    switch (level & G_LOG_LEVEL_MASK) {
    case G_LOG_LEVEL_ERROR:
        return LOG_CRIT;
    case G_LOG_LEVEL_CRITICAL:
        return LOG_ERR;
    case G_LOG_LEVEL_WARNING:
        return LOG_WARNING;
    case G_LOG_LEVEL_MESSAGE:
        return LOG_NOTICE;
    case G_LOG_LEVEL_DEBUG:
        return LOG_DEBUG;
    default:
        return LOG_INFO;
    }
}

void logToSyslog(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer) {
    if (isDropped(level))
        return;
    if (hasDomain(domain))  // the text is an argument, never the format: it may hold percent signs
        syslog(syslogPriority(level), "%s: %s", domain, message);
    else
        syslog(syslogPriority(level), "%s", message);
}

// timeStamp returns the local time with milliseconds, or nothing if GLib cannot make one: the message counts more.
std::string timeStamp() {
    GDateTime* now = g_date_time_new_now_local();
    if (now == nullptr)
        return std::string();
    gchar* text = g_date_time_format(now, "%F %T");
    const std::string stamp = text != nullptr ? strfmt("%s.%03i", text, g_date_time_get_microsecond(now) / 1000) : "";
    g_free(text);
    g_date_time_unref(now);
    return stamp;
}

void logToFile(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer stream) {
    if (isDropped(level))
        return;
    const std::string stamp = timeStamp();
    if (hasDomain(domain))
        fprintf(static_cast<FILE*>(stream), "%s %s: %s\n", stamp.c_str(), domain, message);
    else
        fprintf(static_cast<FILE*>(stream), "%s %s\n", stamp.c_str(), message);
}

}  // namespace

void set_glib_default_log_handler_to_syslog(bool debug) {
    glib_log_handler_set_debug(debug);
    g_log_set_default_handler(logToSyslog, nullptr);
}

void set_glib_default_log_handler_to_file(FILE* stream, bool debug) {
    glib_log_handler_set_debug(debug);
    setvbuf(stream, nullptr, _IOLBF, STREAM_BUFFER_SIZE);
    g_log_set_default_handler(logToFile, stream);
}

void glib_log_handler_set_debug(bool debug) {
    gs_bDebug = debug;
}
