// glib_log_handlers_test.cpp: GLib's messages in syslog and in a file.
//
// This file replaces libc's syslog for its test program, so that nothing reaches the machine's own log, and GLib's
// clock, which can be made to fail.

#include <dlfcn.h>
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "agent/glib_log_handlers.h"
#include "foundation/strfmt.h"
#include "unit/record_collector.h"

namespace {

// SyslogLine is one call of syslog.
struct SyslogLine {
    int priority;
    std::string text;

    bool operator==(const SyslogLine&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const SyslogLine& line) {
    return stream << "<" << line.priority << ">" << line.text;
}

std::vector<SyslogLine> gs_aSyslog;
bool gs_bNoClock = false;
bool gs_bNoTimeText = false;

}  // namespace

extern "C" void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    gs_aSyslog.push_back({priority, strvfmt(format, arguments)});
    va_end(arguments);
}

extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    gs_aSyslog.push_back({priority, strvfmt(format, arguments)});
    va_end(arguments);
}

extern "C" GDateTime* g_date_time_new_now_local() {
    using Now = GDateTime*();
    return gs_bNoClock ? nullptr : reinterpret_cast<Now*>(dlsym(RTLD_NEXT, "g_date_time_new_now_local"))();
}

extern "C" gchar* g_date_time_format(GDateTime* time, const gchar* format) {
    using Format = gchar*(GDateTime*, const gchar*);
    return gs_bNoTimeText ? nullptr : reinterpret_cast<Format*>(dlsym(RTLD_NEXT, "g_date_time_format"))(time, format);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

class GLibLogHandlersTest : public testing::Test {
protected:
    GLibLogHandlersTest() { gs_aSyslog.clear(); }
    ~GLibLogHandlersTest() override {
        g_log_set_default_handler(g_log_default_handler, nullptr);
        gs_bNoClock = false;
        gs_bNoTimeText = false;
    }

    // installedHandler returns the current default handler, to be called with levels that GLib would abort on.
    static GLogFunc installedHandler() { return g_log_set_default_handler(g_log_default_handler, nullptr); }
};

// --- syslog

// LevelRow is a GLib level, flags included, and the syslog priority.
struct LevelRow {
    int level;
    int priority;
};

const LevelRow LEVELS[] = {
    {G_LOG_LEVEL_ERROR, LOG_CRIT},
    {G_LOG_LEVEL_ERROR | G_LOG_FLAG_FATAL, LOG_CRIT},
    {G_LOG_LEVEL_ERROR | G_LOG_FLAG_RECURSION | G_LOG_FLAG_FATAL, LOG_CRIT},
    {G_LOG_LEVEL_CRITICAL, LOG_ERR},
    {G_LOG_LEVEL_CRITICAL | G_LOG_FLAG_RECURSION, LOG_ERR},
    {G_LOG_LEVEL_WARNING, LOG_WARNING},
    {G_LOG_LEVEL_WARNING | G_LOG_FLAG_FATAL, LOG_WARNING},
    {G_LOG_LEVEL_MESSAGE, LOG_NOTICE},
    {G_LOG_LEVEL_INFO, LOG_INFO},
    {G_LOG_LEVEL_DEBUG, LOG_DEBUG},
    {G_LOG_LEVEL_DEBUG | G_LOG_FLAG_RECURSION, LOG_DEBUG},
    {1 << G_LOG_LEVEL_USER_SHIFT, LOG_INFO},
};

TEST_F(GLibLogHandlersTest, SyslogPrioritiesAreOneStepOffForTheTwoHighestLevels) {
    set_glib_default_log_handler_to_syslog(true);
    const GLogFunc handler = installedHandler();
    for (const LevelRow& row : LEVELS) {
        gs_aSyslog.clear();
        handler("Domain", static_cast<GLogLevelFlags>(row.level), "text", nullptr);
        EXPECT_THAT(gs_aSyslog, ElementsAre(SyslogLine{row.priority, "Domain: text"})) << row.level;
    }
}

TEST_F(GLibLogHandlersTest, SyslogShowsTheDomainIfThereIsOne) {
    set_glib_default_log_handler_to_syslog(false);
    const GLogFunc handler = installedHandler();
    handler(nullptr, G_LOG_LEVEL_WARNING, "text", nullptr);
    handler("", G_LOG_LEVEL_WARNING, "text", nullptr);
    handler("D", G_LOG_LEVEL_WARNING, "text", nullptr);
    EXPECT_THAT(gs_aSyslog, ElementsAre(SyslogLine{LOG_WARNING, "text"}, SyslogLine{LOG_WARNING, "text"},
                                        SyslogLine{LOG_WARNING, "D: text"}));
}

TEST_F(GLibLogHandlersTest, SyslogTakesPercentSignsAsText) {
    set_glib_default_log_handler_to_syslog(false);
    const GLogFunc handler = installedHandler();
    handler("%s%n", G_LOG_LEVEL_WARNING, "100%s %n", nullptr);
    handler(nullptr, G_LOG_LEVEL_WARNING, "100%s %n", nullptr);
    EXPECT_THAT(gs_aSyslog,
                ElementsAre(SyslogLine{LOG_WARNING, "%s%n: 100%s %n"}, SyslogLine{LOG_WARNING, "100%s %n"}));
}

TEST_F(GLibLogHandlersTest, SyslogTakesDebugMessagesOnlyWithTheFlag) {
    const auto logged = [] {
        gs_aSyslog.clear();
        g_log("D", G_LOG_LEVEL_DEBUG, "debug");
        return gs_aSyslog.size() == 1;
    };
    set_glib_default_log_handler_to_syslog(false);
    EXPECT_FALSE(logged());
    glib_log_handler_set_debug(true);
    EXPECT_TRUE(logged());
    glib_log_handler_set_debug(false);
    EXPECT_FALSE(logged());
    set_glib_default_log_handler_to_syslog(true);
    EXPECT_TRUE(logged());
    set_glib_default_log_handler_to_syslog(false);
    EXPECT_FALSE(logged());
    g_log("D", G_LOG_LEVEL_INFO, "info");
    EXPECT_THAT(gs_aSyslog, ElementsAre(SyslogLine{LOG_INFO, "D: info"}));
}

TEST_F(GLibLogHandlersTest, SyslogTakesWhatGLibItselfComplainsAbout) {
    set_glib_default_log_handler_to_syslog(false);
    g_return_if_fail_warning("D", "someFunction", "user != NULL");
    EXPECT_THAT(gs_aSyslog, ElementsAre(SyslogLine{LOG_ERR, "D: someFunction: assertion 'user != NULL' failed"}));
}

// --- A file

class GLibLogFileTest : public GLibLogHandlersTest {
protected:
    GLibLogFileTest() : m_pStream(fopen(path().c_str(), "w")) {}
    ~GLibLogFileTest() override {
        g_log_set_default_handler(g_log_default_handler, nullptr);
        fclose(m_pStream);
    }

    std::string path() const { return m_oFolder / "log"; }
    std::string content() const { return TempFolder::contentOf(path()); }

    TempFolder m_oFolder;
    FILE* m_pStream;
};

const std::string TIME = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";

TEST_F(GLibLogFileTest, LinesHaveTimeDomainAndMessageAndAreThereAtOnce) {
    set_glib_default_log_handler_to_file(m_pStream, false);
    g_log("Domain", G_LOG_LEVEL_WARNING, "first %d", 1);
    EXPECT_THAT(content(), MatchesRegex(TIME + " Domain: first 1\n"));
    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "second");
    g_log("", G_LOG_LEVEL_INFO, "third 100%%s");
    EXPECT_THAT(content(), MatchesRegex(TIME + " Domain: first 1\n" + TIME + " second\n" + TIME + " third 100%s\n"));
    EXPECT_THAT(gs_aSyslog, IsEmpty());
}

// localTime gives the local time as the lines show it.
std::string localTime() {
    GDateTime* now = g_date_time_new_now_local();
    char* text = g_date_time_format(now, "%F %T");
    const std::string result = strfmt("%s.%03i", text, g_date_time_get_microsecond(now) / 1000);
    g_free(text);
    g_date_time_unref(now);
    return result;
}

TEST_F(GLibLogFileTest, TimeIsTheLocalTime) {
    set_glib_default_log_handler_to_file(m_pStream, false);
    const std::string before = localTime();
    g_log(nullptr, G_LOG_LEVEL_WARNING, "x");
    const std::string behind = localTime();
    const std::string shown = content().substr(0, before.size());
    EXPECT_LE(before, shown);
    EXPECT_LE(shown, behind);
}

TEST_F(GLibLogFileTest, LineBeginsWithABlankWhenNoTimeCanBeMade) {
    set_glib_default_log_handler_to_file(m_pStream, false);
    gs_bNoClock = true;
    g_log("D", G_LOG_LEVEL_WARNING, "text");
    gs_bNoClock = false;
    gs_bNoTimeText = true;
    g_log(nullptr, G_LOG_LEVEL_WARNING, "text");
    EXPECT_EQ(content(), " D: text\n text\n");
}

TEST_F(GLibLogFileTest, StreamIsPutIntoLineBufferedMode) {
    EXPECT_FALSE(__flbf(m_pStream));
    set_glib_default_log_handler_to_file(m_pStream, false);
    EXPECT_TRUE(__flbf(m_pStream));
}

TEST_F(GLibLogFileTest, StreamIsTheHandlersUserData) {
    set_glib_default_log_handler_to_file(m_pStream, false);
    const GLogFunc handler = installedHandler();
    char* text = nullptr;
    size_t size = 0;
    FILE* other = open_memstream(&text, &size);
    handler("D", static_cast<GLogLevelFlags>(G_LOG_LEVEL_ERROR | G_LOG_FLAG_FATAL), "text", other);
    fclose(other);
    EXPECT_THAT(text, MatchesRegex(TIME + " D: text\n"));
    free(text);
    EXPECT_EQ(content(), "");
}

TEST_F(GLibLogFileTest, DebugMessagesNeedTheFlag) {
    set_glib_default_log_handler_to_file(m_pStream, false);
    g_log("D", G_LOG_LEVEL_DEBUG, "debug");
    EXPECT_EQ(content(), "");
    glib_log_handler_set_debug(true);
    g_log("D", G_LOG_LEVEL_DEBUG, "debug");
    EXPECT_THAT(content(), testing::EndsWith(" D: debug\n"));
    const std::string before = content();
    set_glib_default_log_handler_to_file(m_pStream, false);
    g_log("D", G_LOG_LEVEL_DEBUG, "debug");
    EXPECT_EQ(content(), before);
    set_glib_default_log_handler_to_file(m_pStream, true);
    g_log("D", G_LOG_LEVEL_DEBUG, "debug");
    EXPECT_NE(content(), before);
}

TEST_F(GLibLogFileTest, LongMessagesAreWhole) {
    set_glib_default_log_handler_to_file(m_pStream, false);
    const std::string message(100000, 'm');
    g_log("D", G_LOG_LEVEL_WARNING, "%s", message.c_str());
    EXPECT_THAT(content(), testing::EndsWith(" D: " + message + "\n"));
}

}  // namespace
