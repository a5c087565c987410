// orvlog_files_test.cpp: the set-ups of logging with files, and the reset that makes files again.
//
// Each set-up runs in a child process with a working directory of its own. This file replaces libc's syslog for its
// test program: what would go there is kept, and nothing reaches the machine's own log.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cxx/helpers/exception.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/rolling/rollingfileappender.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "foundation/strfmt.h"
#include "runtime/orvlog.h"
#include "unit/activated_appender.h"
#include "unit/logging_child.h"
#include "unit/record_collector.h"

namespace {

using log4cxx::Level;
using log4cxx::Logger;
using log4cxx::LoggerPtr;
using log4cxx::helpers::Exception;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::UnorderedElementsAre;

// inChild runs `body` in a child process in the folder.
template <class Body>
Outcome inChild(const TempFolder& folder, Body body) {
    return ::inChild([&] {
        if (chdir(folder.path().c_str()) != 0)
            _exit(98);
        body();
    });
}

void expectQuiet(const Outcome& outcome) {
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.error, "");
}

void requireDefault() {
    if (!orvlog::configureDefault())
        _exit(97);
}

Lines namesIn(const std::string& path) {
    Lines result;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path))
        result.push_back(entry.path().lexically_relative(path));
    return result;
}

const std::string TIME = "[0-3][0-9]-[01][0-9]-[0-9][0-9][0-9][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9] ";

// line is the regular expression of a line of the main log file.
std::string line(const std::string& rest) {
    return TIME + rest + "\n";
}

const std::string CONFIGURED = line("INFO  orv.utils            - Logs configureDefault[(][)] sucess");

std::string playerLog(const TempFolder& folder) {
    return TempFolder::contentOf(folder / "log/player.log");
}

std::string accountingLog(const TempFolder& folder) {
    return TempFolder::contentOf(folder / "log/accounting.log");
}

// --- configureDefault

TEST(ConfigureDefault, MainFileTakesRecordsFromInfoUpAndSyslogFatalOnes) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        requireDefault();
        logAllLevels(testLogger());
    });
    expectQuiet(outcome);
    EXPECT_THAT(playerLog(folder),
                MatchesRegex(CONFIGURED + line("INFO  orv.test             - info") +
                             line("WARN  orv.test             - warn") + line("ERROR orv.test             - error") +
                             line("FATAL orv.test             - fatal")));
    EXPECT_EQ(outcome.syslog, "<24>FATAL orv.test             - fatal\n");
    EXPECT_EQ(accountingLog(folder), "");
    EXPECT_THAT(namesIn(folder.path()), UnorderedElementsAre("log", "log/player.log", "log/accounting.log"));
}

TEST(ConfigureDefault, AccountingHasAFileOfItsOwn) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        requireDefault();
        logAllLevels(orvlog::getLogger("orv.accounting"));
        ORVLOG_FATAL(orvlog::getLogger("orv.accounting.below"), "below 100%%s");
    });
    expectQuiet(outcome);
    EXPECT_EQ(accountingLog(folder), "info\nwarn\nerror\nfatal\nbelow 100%s\n");
    EXPECT_THAT(playerLog(folder), MatchesRegex(CONFIGURED));
    EXPECT_EQ(outcome.syslog, "");
}

// log4cxx itself says once that nobody takes the records; the records themselves are nowhere.
TEST(ConfigureDefault, ProfilingRecordsGoNowhere) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        requireDefault();
        logAllLevels(orvlog::getLogger("orv.svglib.profiling"));
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(playerLog(folder), MatchesRegex(CONFIGURED));
    EXPECT_EQ(accountingLog(folder), "");
    EXPECT_EQ(outcome.syslog, "");
    EXPECT_THAT(outcome.error, MatchesRegex("log4cxx: No appender could be found [^\n]*\nlog4cxx: [^\n]*\n"));
}

TEST(ConfigureDefault, OtherSvglibLoggersAreInTheMainFile) {
    const TempFolder folder;
    expectQuiet(inChild(folder, [] {
        requireDefault();
        ORVLOG_INFO(orvlog::getLogger("orv.svglib"), "above");
    }));
    EXPECT_THAT(playerLog(folder), MatchesRegex(CONFIGURED + line("INFO  orv.svglib           - above")));
}

TEST(ConfigureDefault, MainFileIsAtInfoWhateverTheLogger) {
    const TempFolder folder;
    expectQuiet(inChild(folder, [] {
        requireDefault();
        testLogger()->setLevel(Level::getDebug());
        ORVLOG_DEBUG(testLogger(), "debug");
        ORVLOG_INFO(testLogger(), "info");
    }));
    EXPECT_THAT(playerLog(folder), MatchesRegex(CONFIGURED + line("INFO  orv.test             - info")));
}

TEST(ConfigureDefault, FilesAreContinued) {
    const TempFolder folder;
    for (int run = 0; run < 2; run++)
        expectQuiet(inChild(folder, [run] {
            requireDefault();
            ORVLOG_INFO(testLogger(), "run %d", run);
            ORVLOG_INFO(orvlog::getLogger("orv.accounting"), "run %d", run);
        }));
    EXPECT_THAT(playerLog(folder), MatchesRegex(CONFIGURED + line("INFO  orv.test             - run 0") + CONFIGURED +
                                                line("INFO  orv.test             - run 1")));
    EXPECT_EQ(accountingLog(folder), "run 0\nrun 1\n");
}

TEST(ConfigureDefault, ReplacesWhatWasConfigured) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        if (!orvlog::configureBasic(true, false))
            _exit(96);
        testLogger()->setLevel(Level::getDebug());
        requireDefault();
        requireDefault();
        logAllLevels(testLogger());
        ORVLOG_INFO(orvlog::getLogger("orv.accounting"), "once");
    });
    expectQuiet(outcome);
    EXPECT_THAT(playerLog(folder),
                MatchesRegex(CONFIGURED + CONFIGURED + line("INFO  orv.test             - info") +
                             line("WARN  orv.test             - warn") + line("ERROR orv.test             - error") +
                             line("FATAL orv.test             - fatal")));
    EXPECT_EQ(accountingLog(folder), "once\n");
    EXPECT_EQ(outcome.syslog, "<24>FATAL orv.test             - fatal\n");
}

TEST(ConfigureDefault, LongLoggerNamesAreShownInFull) {
    const TempFolder folder;
    expectQuiet(inChild(folder, [] {
        requireDefault();
        ORVLOG_INFO(orvlog::getLogger("orv.a-name-of-more-than-twenty"), "x");
    }));
    EXPECT_THAT(playerLog(folder), MatchesRegex(CONFIGURED + line("INFO  orv.a-name-of-more-than-twenty - x")));
}

// describe prints what there is to know about the rolling files of a logger.
void describe(const LoggerPtr& logger) {
    for (const log4cxx::AppenderPtr& appender : logger->getAllAppenders()) {
        const auto file = std::dynamic_pointer_cast<log4cxx::rolling::RollingFileAppender>(appender);
        if (file)
            printf("%s append %d backups %d bytes %zu\n", file->getFile().c_str(), file->getAppend(),
                   file->getMaxBackupIndex(), file->getMaximumFileSize());
    }
}

TEST(ConfigureDefault, FilesAreKeptOnceMore) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        requireDefault();
        describe(Logger::getRootLogger());
        describe(orvlog::getLogger("orv.accounting"));
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "log/player.log append 1 backups 1 bytes 30720000\n"
                              "log/accounting.log append 1 backups 1 bytes 8192000\n");
}

// fill makes a file of `size` bytes.
void fill(const TempFolder& folder, const std::string& name, off_t size) {
    std::filesystem::create_directories(folder / "log");
    folder.write(name, "first\n");
    ASSERT_EQ(truncate((folder / name).c_str(), size), 0);
}

TEST(ConfigureDefault, GrownFilesRollOver) {
    const TempFolder folder;
    fill(folder, "log/player.log", 30720000);
    fill(folder, "log/accounting.log", 8192000);
    expectQuiet(inChild(folder, [] {
        requireDefault();
        for (int i = 0; i < 3; i++) {
            ORVLOG_INFO(testLogger(), "record %d", i);
            ORVLOG_INFO(orvlog::getLogger("orv.accounting"), "record %d", i);
        }
    }));
    EXPECT_THAT(namesIn(folder / "log"),
                UnorderedElementsAre("player.log", "player.log.1", "accounting.log", "accounting.log.1"));
    EXPECT_THAT(playerLog(folder), testing::EndsWith("record 2\n"));
    EXPECT_THAT(accountingLog(folder), testing::EndsWith("record 2\n"));
    EXPECT_LT(playerLog(folder).size(), 1000U);
    EXPECT_LT(accountingLog(folder).size(), 1000U);
    EXPECT_GE(std::filesystem::file_size(folder / "log/player.log.1"), 30720000U);
    EXPECT_THAT(TempFolder::contentOf(folder / "log/accounting.log.1").substr(0, 6), "first\n");
}

TEST(ConfigureDefault, FolderIsMadeWithTheDefaultPermissions) {
    const TempFolder folder;
    expectQuiet(inChild(folder, [] {
        umask(027);
        requireDefault();
    }));
    struct stat status {};
    ASSERT_EQ(stat((folder / "log").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0750U);
}

TEST(ConfigureDefault, RootLoggerIsAtInfo) {
    const TempFolder folder;
    expectQuiet(inChild(folder, [] {
        requireDefault();
        _exit(Logger::getRootLogger()->getLevel()->toInt() == Level::INFO_INT ? 0 : 1);
    }));
}

TEST(ConfigureDefault, FolderThatCannotBeMadeIsNotAFailure) {
    const TempFolder folder;
    folder.write("log", "in the way");
    const Outcome outcome = inChild(folder, [] {
        requireDefault();
        logAllLevels(testLogger());
        logAllLevels(orvlog::getLogger("orv.accounting"));
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.error, Not(HasSubstr("ERROR: ")));
    EXPECT_EQ(outcome.syslog, "<24>FATAL orv.test             - fatal\n");
    EXPECT_EQ(TempFolder::contentOf(folder / "log"), "in the way");
}

// attachUnclosable attaches an appender to the root logger that prints its records and throws when it is closed.
template <class Failure>
void attachUnclosable(const Failure& failure) {
    RecordCollector::useAlone(std::make_shared<TestAppender>(
        [](const Record& record) { printf("kept %s\n", record.text.c_str()); }, [=] { throw failure; }));
}

TEST(ConfigureDefault, FailureIsReportedAndAttachedAppendersStay) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        attachUnclosable(Exception("cannot close"));
        const bool result = orvlog::configureDefault();
        ORVLOG_FATAL(testLogger(), "record");
        printf("%d\n", result);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "ERROR: log::configureDefault() failed with exception 'cannot close'\n");
    EXPECT_EQ(outcome.output, "kept record\n0\n");
    EXPECT_THAT(namesIn(folder.path()), IsEmpty());
}

TEST(ConfigureDefault, OtherExceptionTypesPass) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        attachUnclosable(std::runtime_error("not ours"));
        try {
            orvlog::configureDefault();
        } catch (const std::runtime_error&) {
            _exit(7);
        }
    });
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(outcome.error, "");
}

// --- configureFromXML and configureFromINI

// Format is one of the two, with two configurations that write to a file "mine".
struct Format {
    std::string name;
    bool (*configure)(const std::string& file);
    std::string info;
    std::string error;
};

std::string ini(const char* level) {
    return strfmt("log4j.rootLogger=%s, A\n"
                  "log4j.appender.A=org.apache.log4j.FileAppender\n"
                  "log4j.appender.A.File=mine\n"
                  "log4j.appender.A.layout=org.apache.log4j.PatternLayout\n"
                  "log4j.appender.A.layout.ConversionPattern=%%p %%c %%m%%n\n"
                  "log4j.logger.orv.svglib.profiling=DEBUG, P\n"
                  "log4j.additivity.orv.svglib.profiling=false\n"
                  "log4j.appender.P=org.apache.log4j.FileAppender\n"
                  "log4j.appender.P.File=profile\n"
                  "log4j.appender.P.layout=org.apache.log4j.PatternLayout\n"
                  "log4j.appender.P.layout.ConversionPattern=%%m%%n\n",
                  level);
}

std::string xml(const char* level) {
    return strfmt(R"(<?xml version="1.0" encoding="UTF-8"?>
<log4j:configuration xmlns:log4j="http://jakarta.apache.org/log4j/">
  <appender name="A" class="org.apache.log4j.FileAppender">
    <param name="File" value="mine"/>
    <layout class="org.apache.log4j.PatternLayout"><param name="ConversionPattern" value="%%p %%c %%m%%n"/></layout>
  </appender>
  <appender name="P" class="org.apache.log4j.FileAppender">
    <param name="File" value="profile"/>
    <layout class="org.apache.log4j.PatternLayout"><param name="ConversionPattern" value="%%m%%n"/></layout>
  </appender>
  <logger name="orv.svglib.profiling" additivity="false">
    <level value="debug"/><appender-ref ref="P"/>
  </logger>
  <root><priority value="%s"/><appender-ref ref="A"/></root>
</log4j:configuration>
)",
                  level);
}

const Format FORMATS[] = {
    {"configureFromXML", orvlog::configureFromXML, xml("info"), xml("error")},
    {"configureFromINI", orvlog::configureFromINI, ini("INFO"), ini("ERROR")},
};

TEST(ConfigureFromFile, ConfiguresAndSaysSo) {
    for (const Format& format : FORMATS) {
        const TempFolder folder;
        folder.write("configuration", format.info);
        expectQuiet(inChild(folder, [&] {
            if (!format.configure("configuration"))
                _exit(1);
            ORVLOG_INFO(testLogger(), "info");
            ORVLOG_DEBUG(testLogger(), "debug");
        }));
        EXPECT_EQ(TempFolder::contentOf(folder / "mine"),
                  "INFO orv.utils Logs " + format.name + "() sucess\nINFO orv.test info\n");
    }
}

TEST(ConfigureFromFile, NothingIsSaidWhereInfoIsOff) {
    for (const Format& format : FORMATS) {
        const TempFolder folder;
        const std::string file = folder.write("configuration", format.error);
        expectQuiet(inChild(folder, [&] {
            if (!format.configure(file))
                _exit(1);
            ORVLOG_ERROR(testLogger(), "error");
        }));
        EXPECT_EQ(TempFolder::contentOf(folder / "mine"), "ERROR orv.test error\n");
    }
}

TEST(ConfigureFromFile, ProfilingRecordsCanBeHad) {
    for (const Format& format : FORMATS) {
        const TempFolder folder;
        folder.write("configuration", format.info);
        const Outcome outcome = inChild(folder, [&] {
            requireDefault();
            if (!format.configure("configuration"))
                _exit(1);
            ORVLOG_DEBUG(orvlog::getLogger("orv.svglib.profiling"), "profiled");
        });
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(TempFolder::contentOf(folder / "profile"), "profiled\n");
        EXPECT_THAT(TempFolder::contentOf(folder / "mine"), Not(HasSubstr("profiled")));
        EXPECT_THAT(playerLog(folder), Not(HasSubstr("profiled")));
    }
}

// expectFailure expects that a configuration from the file `file` fails, says so and leaves the appenders in place.
void expectFailure(const TempFolder& folder, const Format& format, const std::string& file) {
    SCOPED_TRACE(format.name + " " + file);
    const Outcome outcome = inChild(folder, [&] {
        RecordCollector::useAlone(
            std::make_shared<TestAppender>([](const Record& record) { printf("kept %s\n", record.text.c_str()); }));
        const bool result = format.configure(file);
        ORVLOG_FATAL(testLogger(), "record");
        printf("%d\n", result);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "kept record\n0\n");
    EXPECT_THAT(outcome.error, MatchesRegex("(log4cxx: [^\n]*\n)*ERROR: orvlog::" + format.name +
                                            "[(][)] failed with exception '[^\n]+'\n"));
}

TEST(ConfigureFromFile, MissingFileIsAFailure) {
    const TempFolder folder;
    for (const Format& format : FORMATS)
        for (const char* const file : {"missing", "missing/too", "", "."})
            expectFailure(folder, format, file);
}

TEST(ConfigureFromFile, MalformedXmlIsAFailure) {
    const TempFolder folder;
    const char* const contents[] = {
        "", "text", "<", "<?xml version=\"1.0\"?>", "<log4j:configuration>", "\xFF\xFE\x01"};
    for (const char* const content : contents) {
        SCOPED_TRACE(content);
        folder.write("bad", content);
        expectFailure(folder, FORMATS[0], "bad");
    }
}

const char* const RESETTING_XML = R"(<?xml version="1.0" encoding="UTF-8"?>
<log4j:configuration xmlns:log4j="http://jakarta.apache.org/log4j/" reset="true">
  <root><priority value="info"/></root>
</log4j:configuration>
)";

const char* const RESETTING_INI = "log4j.reset=true\nlog4j.rootLogger=INFO\n";

// resetAndStay resets the configuration by a file with an appender in place that can't be closed.
Outcome resetAndStay(bool (*configure)(const std::string&), const std::string& content) {
    const TempFolder folder;
    folder.write("configuration", content);
    return inChild(folder, [&] {
        attachUnclosable(Exception("cannot close"));
        const bool result = configure("configuration");
        ORVLOG_FATAL(testLogger(), "record");
        printf("%d\n", result);
    });
}

TEST(ConfigureFromFile, ExceptionInXmlIsReportedAndAttachedAppendersStay) {
    const Outcome outcome = resetAndStay(orvlog::configureFromXML, RESETTING_XML);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "ERROR: orvlog::configureFromXML() failed with exception 'cannot close'\n");
    EXPECT_EQ(outcome.output, "kept record\n0\n");
}

// log4cxx reports this exception itself and counts the file as unreadable.
TEST(ConfigureFromFile, ExceptionInIniIsReportedAndAttachedAppendersStay) {
    const Outcome outcome = resetAndStay(orvlog::configureFromINI, RESETTING_INI);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.error, MatchesRegex("(log4cxx: [^\n]*\n)+ERROR: orvlog::configureFromINI[(][)] failed with "
                                            "exception '[^\n]+'\n"));
    EXPECT_THAT(outcome.error, HasSubstr("cannot close"));
    EXPECT_EQ(outcome.output, "kept record\n0\n");
}

// --- all set-ups

// isCaught returns whether log4cxx, asked for a logger after `setUp`, configures itself from a file in the folder.
template <class SetUp>
bool isCaught(SetUp setUp) {
    const TempFolder folder;
    folder.write("log4cxx.properties", ini("INFO"));
    folder.write("configuration.xml", RESETTING_XML);
    folder.write("configuration.ini", RESETTING_INI);
    const Outcome outcome = inChild(folder, [&] {
        if (!setUp())
            _exit(96);
        Logger::getRootLogger();
    });
    EXPECT_EQ(outcome.status, 0);
    return std::filesystem::exists(folder / "mine");
}

TEST(SetUp, LeavesNothingForLog4cxxToConfigure) {
    const std::pair<const char*, std::function<bool()>> setUps[] = {
        {"configureDefault", orvlog::configureDefault},
        {"configureFromXML", [] { return orvlog::configureFromXML("configuration.xml"); }},
        {"configureFromINI", [] { return orvlog::configureFromINI("configuration.ini"); }},
    };
    EXPECT_TRUE(isCaught([] {
        log4cxx::LogManager::resetConfiguration();
        return true;
    }));
    for (const auto& setUp : setUps) {
        SCOPED_TRACE(setUp.first);
        EXPECT_FALSE(isCaught(setUp.second));
        EXPECT_FALSE(isCaught([&] {
            attachUnclosable(Exception("cannot close"));
            return !setUp.second();
        }));
    }
}

// --- reset

TEST(Reset, FilesThatWereMovedAwayAreMadeAgain) {
    const TempFolder folder;
    expectQuiet(inChild(folder, [] {
        requireDefault();
        const LoggerPtr accounting = orvlog::getLogger("orv.accounting");
        ORVLOG_INFO(testLogger(), "1");
        ORVLOG_INFO(accounting, "1");
        std::filesystem::rename("log/player.log", "player.old");
        std::filesystem::rename("log/accounting.log", "accounting.old");
        ORVLOG_INFO(testLogger(), "2");
        ORVLOG_INFO(accounting, "2");
        orvlog::reset();
        ORVLOG_INFO(testLogger(), "3");
        ORVLOG_INFO(accounting, "3");
    }));
    EXPECT_THAT(
        TempFolder::contentOf(folder / "player.old"),
        MatchesRegex(CONFIGURED + line("INFO  orv.test             - 1") + line("INFO  orv.test             - 2")));
    EXPECT_THAT(playerLog(folder), MatchesRegex(line("INFO  orv.test             - 3")));
    EXPECT_EQ(TempFolder::contentOf(folder / "accounting.old"), "1\n2\n");
    EXPECT_EQ(accountingLog(folder), "3\n");
}

TEST(Reset, FilesInPlaceAreContinuedAndLevelsStay) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        requireDefault();
        for (int i = 0; i < 3; i++) {
            orvlog::reset();
            ORVLOG_DEBUG(testLogger(), "debug");
            ORVLOG_INFO(testLogger(), "info");
            ORVLOG_INFO(orvlog::getLogger("orv.accounting"), "%d", i);
        }
        ORVLOG_FATAL(testLogger(), "fatal");
    });
    expectQuiet(outcome);
    const std::string info = line("INFO  orv.test             - info");
    EXPECT_THAT(playerLog(folder),
                MatchesRegex(CONFIGURED + info + info + info + line("FATAL orv.test             - fatal")));
    EXPECT_EQ(accountingLog(folder), "0\n1\n2\n");
    EXPECT_EQ(outcome.syslog, "<24>FATAL orv.test             - fatal\n");
}

TEST(Reset, RemovedFolderIsMadeAgain) {
    const TempFolder folder;
    expectQuiet(inChild(folder, [] {
        requireDefault();
        std::filesystem::remove_all("log");
        orvlog::reset();
        ORVLOG_INFO(testLogger(), "again");
    }));
    EXPECT_THAT(playerLog(folder), MatchesRegex(line("INFO  orv.test             - again")));
}

TEST(Reset, BasicSetupGoesOn) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        orvlog::configureBasic(true, true);
        orvlog::reset();
        ORVLOG_FATAL(testLogger(), "fatal");
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "FATAL: fatal\n");
    EXPECT_EQ(outcome.syslog, "<24>FATAL orv.test             - fatal\n");
    EXPECT_THAT(namesIn(folder.path()), IsEmpty());
}

// attach attaches an appender to a logger that calls `onActivated`.
void attach(const LoggerPtr& logger, std::function<void()> onActivated) {
    logger->addAppender(std::make_shared<ActivatedAppender>(std::move(onActivated)));
}

void attach(const std::string& name, std::function<void()> onActivated) {
    attach(orvlog::getLogger(name), std::move(onActivated));
}

TEST(Reset, ActivatesEachAppenderOfEachLogger) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        orvlog::getLogger("orv");
        std::map<std::string, int> activated;
        for (const char* const name : {"root 1", "root 2"})
            attach(Logger::getRootLogger(), [&, name] { activated[name]++; });
        for (const char* const name : {"orv", "orv.one", "orv.one.below", "other"}) {
            attach(name, [&, name] { activated[name]++; });
            orvlog::getLogger(name)->setAdditivity(false);
        }
        orvlog::reset();
        orvlog::reset();
        for (const auto& [name, count] : activated)
            printf("%s %d\n", name.c_str(), count);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.output, "orv 2\norv.one 2\norv.one.below 2\nother 2\nroot 1 2\nroot 2 2\n");
}

// resetWith resets with an appender of the logger "orv.b" that throws; its neighbours print that they were activated.
template <class Failure>
Outcome resetWith(const Failure& failure) {
    const TempFolder folder;
    return inChild(folder, [&] {
        for (const char* const name : {"orv", "orv.a", "orv.c", "orv.d"})
            attach(name, [] { printf("activated\n"); });
        attach("orv.b", [&] { throw failure; });
        orvlog::reset();
        printf("went on\n");
    });
}

const char* const ALL_ACTIVATED = "activated\nactivated\nactivated\nactivated\nwent on\n";

TEST(Reset, FailureOfOneLoggerIsReportedAndTheOthersAreReset) {
    const Outcome other = resetWith(std::runtime_error("disk 100%s gone"));
    EXPECT_EQ(other.status, 0);
    EXPECT_EQ(other.output, ALL_ACTIVATED);
    EXPECT_THAT(other.error, MatchesRegex("(log4cxx: [^\n]*\n|[^\n]*disk 100%s gone[^\n]*\n)+"));
    EXPECT_THAT(other.error, HasSubstr("orv.b"));
    EXPECT_THAT(other.error, HasSubstr("disk 100%s gone"));
    EXPECT_THAT(other.error, Not(HasSubstr("ERROR: ")));
    const Outcome own = resetWith(Exception("own kind"));
    EXPECT_EQ(own.status, 0);
    EXPECT_EQ(own.output, ALL_ACTIVATED);
    EXPECT_THAT(own.error, HasSubstr("orv.b"));
    EXPECT_THAT(own.error, HasSubstr("own kind"));
    EXPECT_THAT(own.error, Not(HasSubstr("ERROR: ")));
}

TEST(Reset, FailureOfTheRootLoggerIsTheFailureOfAll) {
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        orvlog::getLogger("orv");
        attach(Logger::getRootLogger(), [] { throw Exception("disk 100%s gone"); });
        attach("orv.a", [] { printf("activated\n"); });
        orvlog::reset();
        printf("went on\n");
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "went on\n");
    EXPECT_EQ(outcome.error, "ERROR: orvlog::reset() failed (disk 100%s gone)\n");
}

TEST(Reset, OtherExceptionTypesPass) {
    EXPECT_EQ(resetWith(5).status, 99);
    const TempFolder folder;
    const Outcome outcome = inChild(folder, [] {
        orvlog::getLogger("orv");
        attach(Logger::getRootLogger(), [] { throw std::runtime_error("not ours"); });
        try {
            orvlog::reset();
        } catch (const std::runtime_error&) {
            _exit(7);
        }
    });
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(outcome.error, "");
}

}  // namespace
