// orvlog_test.cpp: logger names, the basic set-up, the log calls and what they do when an appender fails.
//
// This file replaces libc's syslog for its test program: what would go there is kept, and nothing reaches the machine's
// own log.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cxx/helpers/exception.h>
#include <log4cxx/logmanager.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/orvlog.h"
#include "runtime/orvlog_c.h"
#include "unit/logging_child.h"
#include "unit/own_process.h"
#include "unit/record_collector.h"

// Only with C linkage can this follow the header's declaration.
extern "C" void orvlog_logger_log(void*, int, const char*, const char*, int, const char*, ...);

// recordHere makes a record and returns its line. It is outside of the unnamed namespace, as log4cxx takes
// clang's "(anonymous namespace)" for part of a function's name.
static int recordHere() {
    ORVLOG_WARN(testLogger(), "here");
    return __LINE__ - 1;
}

namespace {

using log4cxx::Level;
using log4cxx::LevelPtr;
using log4cxx::LoggerPtr;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

// --- Names

TEST(LogNames, TopLoggerIsOrv) {
    EXPECT_STREQ(orvlog::TOP_LOGGER_NAME, "orv");
}

TEST(LogNames, AppendJoinsWithADot) {
    EXPECT_EQ(orvlog::append(orvlog::TOP_LOGGER_NAME, "featurewatch"), "orv.featurewatch");
    EXPECT_EQ(orvlog::append("orv", "utils.thread"), "orv.utils.thread");
    EXPECT_EQ(orvlog::append("", ""), ".");
}

TEST(LogNames, GetLoggerReturnsOneLoggerPerName) {
    EXPECT_EQ(orvlog::getLogger("orv.tally")->getName(), "orv.tally");
    EXPECT_EQ(orvlog::getLogger("orv.tally"), orvlog::getLogger("orv.tally"));
    EXPECT_NE(orvlog::getLogger("orv.tally"), orvlog::getLogger("orv.other"));
}

TEST(LogNames, LoggersAreBelowTheTopLogger) {
    RecordCollector collector;
    const LoggerPtr top = orvlog::getLogger(orvlog::TOP_LOGGER_NAME);
    const LoggerPtr below = orvlog::getLogger("orv.below");
    top->setLevel(Level::getError());
    EXPECT_FALSE(below->isWarnEnabled());
    EXPECT_TRUE(below->isErrorEnabled());
    top->setLevel(nullptr);
    EXPECT_TRUE(below->isWarnEnabled());
}

// --- configureBasic

TEST(ConfigureBasic, StandardErrorAndSyslogTakeRecordsFromInfoUp) {
    const Outcome outcome = inChild([] {
        if (!orvlog::configureBasic(true, false))
            _exit(1);
        logAllLevels(testLogger());
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "");
    const std::string time = "[0-9][0-9]:[0-9][0-9]:[0-9][0-9][.][0-9][0-9][0-9] ";
    EXPECT_THAT(outcome.error, MatchesRegex(time + "INFO: info\n" + time + "WARN: warn\n" + time + "ERROR: error\n" +
                                            time + "FATAL: fatal\n"));
    EXPECT_EQ(outcome.syslog,
              strfmt("<%d>INFO  orv.test             - info\n"
                     "<%d>WARN  orv.test             - warn\n"
                     "<%d>ERROR orv.test             - error\n"
                     "<%d>FATAL orv.test             - fatal\n",
                     LOG_DAEMON | LOG_INFO, LOG_DAEMON | LOG_WARNING, LOG_DAEMON | LOG_ERR, LOG_DAEMON | LOG_EMERG));
}

TEST(ConfigureBasic, StandardOutputInPlaceOfStandardError) {
    const Outcome outcome = inChild([] {
        if (!orvlog::configureBasic(false, false))
            _exit(1);
        ORVLOG_INFO(testLogger(), "hello");
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "");
    EXPECT_THAT(outcome.output, MatchesRegex("[0-9:]+[.][0-9]+ INFO: hello\n"));
    EXPECT_EQ(outcome.syslog, strfmt("<%d>INFO  orv.test             - hello\n", LOG_DAEMON | LOG_INFO));
}

TEST(ConfigureBasic, SilentLetsOnlyFatalThroughAndShowsNoTime) {
    for (const bool toStdErr : {true, false}) {
        const Outcome outcome = inChild([=] {
            if (!orvlog::configureBasic(toStdErr, true))
                _exit(1);
            logAllLevels(testLogger());
        });
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(toStdErr ? outcome.error : outcome.output, "FATAL: fatal\n");
        EXPECT_EQ(toStdErr ? outcome.output : outcome.error, "");
        EXPECT_EQ(outcome.syslog, strfmt("<%d>FATAL orv.test             - fatal\n", LOG_DAEMON | LOG_EMERG));
    }
}

TEST(ConfigureBasic, LongLoggerNamesAreShownInFull) {
    const Outcome outcome = inChild([] {
        orvlog::configureBasic(true, true);
        ORVLOG_FATAL(orvlog::getLogger("orv.a-name-of-more-than-twenty"), "x");
    });
    EXPECT_EQ(outcome.syslog, strfmt("<%d>FATAL orv.a-name-of-more-than-twenty - x\n", LOG_DAEMON | LOG_EMERG));
}

TEST(ConfigureBasic, PercentSignsInARecordAreText) {
    const Outcome outcome = inChild([] {
        orvlog::configureBasic(true, true);
        ORVLOG_FATAL(testLogger(), "%s", "100%s %n %d");
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "FATAL: 100%s %n %d\n");
    EXPECT_THAT(outcome.syslog, testing::HasSubstr("- 100%s %n %d\n"));
}

TEST(ConfigureBasic, Utf8PassesUnchangedInTheUtf8CharacterType) {
    const Outcome outcome = inChild([] {
        setlocale(LC_CTYPE, "C.UTF-8");
        orvlog::configureBasic(true, true);
        ORVLOG_FATAL(testLogger(), "gr\xC3\xBCn \xF0\x9F\x98\x80");
    });
    EXPECT_EQ(outcome.error, "FATAL: gr\xC3\xBCn \xF0\x9F\x98\x80\n");
    EXPECT_THAT(outcome.syslog, testing::HasSubstr("- gr\xC3\xBCn \xF0\x9F\x98\x80\n"));
}

TEST(ConfigureBasic, ReplacesWhatWasConfigured) {
    const Outcome outcome = inChild([] {
        int before = 0;
        RecordCollector::useAlone(std::make_shared<TestAppender>([&](const Record&) { before++; }));
        testLogger()->setLevel(Level::getDebug());
        if (!orvlog::configureBasic(true, false) || !orvlog::configureBasic(true, true))
            _exit(1);
        logAllLevels(testLogger());
        _exit(before == 0 ? 0 : 2);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "FATAL: fatal\n");
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.syslog, strfmt("<%d>FATAL orv.test             - fatal\n", LOG_DAEMON | LOG_EMERG));
}

TEST(ConfigureBasic, RootLoggerIsAtInfo) {
    const Outcome outcome = inChild([] {
        orvlog::configureBasic(true, true);
        _exit(log4cxx::Logger::getRootLogger()->getLevel()->toInt() == Level::INFO_INT ? 0 : 1);
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(ConfigureBasic, FailureIsReportedAndAttachedAppendersStay) {
    const Outcome outcome = inChild([] {
        RecordCollector::useAlone(
            std::make_shared<TestAppender>([](const Record& record) { printf("kept %s\n", record.text.c_str()); },
                                           [] { throw log4cxx::helpers::Exception("cannot close"); }));
        const bool result = orvlog::configureBasic(true, false);
        ORVLOG_FATAL(testLogger(), "record");
        printf("%d\n", result);
    });
    EXPECT_EQ(outcome.error, "ERROR: orvlog::startupConfigure() failed with exception 'cannot close'\n");
    EXPECT_EQ(outcome.output, "kept record\n0\n");
}

TEST(ConfigureBasic, OtherExceptionTypesPass) {
    const Outcome outcome = inChild([] {
        RecordCollector::useAlone(
            std::make_shared<TestAppender>([](const Record&) {}, [] { throw std::runtime_error("not ours"); }));
        try {
            orvlog::configureBasic(true, false);
        } catch (const std::runtime_error&) {
            _exit(7);
        }
    });
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(outcome.error, "");
}

TEST(Fini, EndsLogging) {
    const Outcome outcome = inChild([] {
        orvlog::configureBasic(true, true);
        ORVLOG_FATAL(testLogger(), "before");
        orvlog::fini();
        ORVLOG_FATAL(testLogger(), "after");
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.error, testing::StartsWith("FATAL: before\n"));
    EXPECT_THAT(outcome.error, testing::Not(testing::HasSubstr("after")));
    EXPECT_THAT(outcome.syslog, testing::Not(testing::HasSubstr("after")));
}

// --- Nothing but configureBasic configures

// FirstUse is also what a fresh process runs in a folder with configuration files, see below.
TEST(FirstUse, MakesARecordOrNone) {
    // In a process with other tests: theirs.
    log4cxx::LogManager::getLoggerRepository()->getRootLogger()->removeAllAppenders();
    const LoggerPtr logger = orvlog::getLogger("orv.first");
    ORVLOG_FATAL(logger, "first");
    EXPECT_EQ(logger->getName(), "orv.first");
}

TEST(FirstUse, ConfigureBasicComesFirst) {
    EXPECT_TRUE(orvlog::configureBasic(true, true));
}

TEST(FirstUse, FailedConfigureBasicComesFirst) {
    const auto failOnce = [failed = false]() mutable {
        if (!std::exchange(failed, true))
            throw log4cxx::helpers::Exception("cannot close");
    };
    RecordCollector::useAlone(std::make_shared<TestAppender>([](const Record&) {}, failOnce));
    EXPECT_FALSE(orvlog::configureBasic(true, true));
    log4cxx::Logger::getRootLogger()->removeAllAppenders();
}

// FirstUse.OfLog4cxxItself is the counter-proof: this way the files are read.
TEST(FirstUse, OfLog4cxxItself) {
    EXPECT_EQ(log4cxx::Logger::getLogger("other")->getName(), "other");
}

const char* const PROPERTIES = "log4j.rootLogger=DEBUG, A\n"
                               "log4j.appender.A=org.apache.log4j.FileAppender\n"
                               "log4j.appender.A.File=stolen\n"
                               "log4j.appender.A.layout=org.apache.log4j.SimpleLayout\n";

const char* const XML = R"(<?xml version="1.0" encoding="UTF-8"?>
<log4j:configuration xmlns:log4j="http://jakarta.apache.org/log4j/">
  <appender name="A" class="org.apache.log4j.FileAppender">
    <param name="File" value="stolen"/><layout class="org.apache.log4j.SimpleLayout"/>
  </appender>
  <root><priority value="debug"/><appender-ref ref="A"/></root>
</log4j:configuration>
)";

// Trap is a file that log4cxx left alone would configure itself from.
struct Trap {
    const char* name;
    const char* content;
    bool inEnvironment;
};

const Trap TRAPS[] = {
    {"log4cxx.properties", PROPERTIES, false},
    {"log4cxx.xml", XML, false},
    {"other.properties", PROPERTIES, true},
    {"other.xml", XML, true},
};

// runFresh starts this program again in `folder`, to run the test called `filter`.
int runFresh(const TempFolder& folder, const Trap& trap, const char* filter) {
    const pid_t child = startedProcess(fork());
    if (child == 0) {
        redirect(STDOUT_FILENO, folder / "output");
        redirect(STDERR_FILENO, folder / "error");
        if (trap.inEnvironment)
            setenv("LOG4CXX_CONFIGURATION", (folder / trap.name).c_str(), 1);
        if (chdir(folder.path().c_str()) == 0)
            execl("/proc/self/exe", "orvlog_test", filter, nullptr);
        _exit(127);
    }
    return awaitChild(child);
}

// isCaught returns whether a fresh process that runs the test called `test` takes its configuration from the trap.
bool isCaught(const Trap& trap, const std::string& test) {
    SCOPED_TRACE(trap.name + (" " + test));
    const TempFolder folder;
    folder.write(trap.name, trap.content);
    EXPECT_EQ(runFresh(folder, trap, ("--gtest_filter=" + test).c_str()), 0);
    EXPECT_THAT(TempFolder::contentOf(folder / "output"), testing::HasSubstr("[  PASSED  ] 1 test."));
    return std::filesystem::exists(folder / "stolen");
}

TEST(Configuration, NothingOfTheFolderOrTheEnvironmentIsRead) {
    for (const Trap& trap : TRAPS) {
        EXPECT_TRUE(isCaught(trap, "FirstUse.OfLog4cxxItself"));
        EXPECT_FALSE(isCaught(trap, "FirstUse.MakesARecordOrNone"));
        EXPECT_FALSE(isCaught(trap, "FirstUse.ConfigureBasicComesFirst"));
        EXPECT_FALSE(isCaught(trap, "FirstUse.FailedConfigureBasicComesFirst"));
    }
}

// --- safeForcedLog

TEST(SafeForcedLog, WritesWhateverTheLevel) {
    RecordCollector collector("orv.test");
    testLogger()->setLevel(Level::getFatal());
    orvlog::safeForcedLog(testLogger(), Level::getDebug(), std::string("text"), LOG4CXX_LOCATION);
    testLogger()->setLevel(nullptr);
    EXPECT_THAT(collector.lines(), ElementsAre("DEBUG text"));
}

TEST(SafeForcedLog, TakesWideMessages) {
    RecordCollector collector("orv.test");
    orvlog::safeForcedLog(testLogger(), Level::getWarn(), std::wstring(L"gr\u00FCn \u20AC"), LOG4CXX_LOCATION);
    EXPECT_THAT(collector.lines(), ElementsAre("WARN gr\xC3\xBCn \xE2\x82\xAC"));
}

TEST(SafeForcedLog, PassesTheLocationOn) {
    RecordCollector collector("orv.test");
    const log4cxx::spi::LocationInfo location("folder/origin.cpp", "origin.cpp", "void someFunction()", 4711);
    orvlog::safeForcedLog(testLogger(), Level::getInfo(), std::string("narrow"), location);
    orvlog::safeForcedLog(testLogger(), Level::getInfo(), std::wstring(L"wide"), location);
    ASSERT_THAT(collector.records(), SizeIs(2));
    for (const Record& record : collector.records()) {
        EXPECT_EQ(record.file, "folder/origin.cpp");
        EXPECT_THAT(record.function, testing::HasSubstr("someFunction"));
        EXPECT_EQ(record.line, 4711);
    }
}

template <class Exception>
void useThrowingAppender(const Exception& exception) {
    RecordCollector::useAlone(std::make_shared<TestAppender>([=](const Record&) {
        throw exception;
    }))->setLevel(Level::getDebug());
}

// tellOnStandardError returns what `body` writes there.
template <class Body>
std::string tellOnStandardError(Body body) {
    const Outcome outcome = inChild([&] {
        body();
        fputs("went on", stdout);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "went on");
    return outcome.error;
}

TEST(SafeForcedLog, FailingAppenderIsReportedOnStandardError) {
    useThrowingAppender(log4cxx::helpers::Exception("disk 100%s full"));
    const auto narrow = [] {
        orvlog::safeForcedLog(testLogger(), Level::getError(), std::string("x"), LOG4CXX_LOCATION);
    };
    const auto wide = [] {
        orvlog::safeForcedLog(testLogger(), Level::getError(), std::wstring(L"x"), LOG4CXX_LOCATION);
    };
    EXPECT_EQ(tellOnStandardError(narrow), "ERROR: log failed (disk 100%s full)\n");
    EXPECT_EQ(tellOnStandardError(wide), "ERROR: log failed (disk 100%s full)\n");
    EXPECT_EQ(tellOnStandardError([] { ORVLOG_ERROR(testLogger(), "x"); }), "ERROR: log failed (disk 100%s full)\n");
}

TEST(SafeForcedLog, DerivedLogExceptionsAreCaughtToo) {
    useThrowingAppender(log4cxx::helpers::IllegalArgumentException("derived"));
    EXPECT_THAT(tellOnStandardError([] { ORVLOG_ERROR(testLogger(), "x"); }),
                MatchesRegex("ERROR: log failed [(].*derived.*[)]\n"));
}

TEST(SafeForcedLog, OtherExceptionTypesPass) {
    useThrowingAppender(std::runtime_error("not ours"));
    EXPECT_THROW(orvlog::safeForcedLog(testLogger(), Level::getError(), std::string("x"), LOG4CXX_LOCATION),
                 std::runtime_error);
    EXPECT_THROW(orvlog::safeForcedLog(testLogger(), Level::getError(), std::wstring(L"x"), LOG4CXX_LOCATION),
                 std::runtime_error);
    useThrowingAppender(5);
    EXPECT_THROW(orvlog::safeForcedLog(testLogger(), Level::getError(), std::string("x"), LOG4CXX_LOCATION), int);
}

TEST(SafeForcedLog, LoggingWorksAgainAfterAFailure) {
    useThrowingAppender(log4cxx::helpers::Exception("once"));
    EXPECT_EQ(tellOnStandardError([] {
                  ORVLOG_ERROR(testLogger(), "lost");
                  RecordCollector collector;
                  ORVLOG_ERROR(testLogger(), "kept");
                  if (collector.records().size() != 1)
                      _exit(1);
              }),
              "ERROR: log failed (once)\n");
}

TEST(SafeForcedLog, AnyThreadMayLog) {
    RecordCollector collector("orv.test");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([] {
            for (int n = 0; n < 100; n++)
                ORVLOG_INFO(testLogger(), "record");
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(collector.lines(), Lines(400, "INFO record"));
}

// --- Macros

// LevelRow is what a logger at a level lets through.
struct LevelRow {
    LevelPtr level;
    Lines lines;
    int evaluations;
};

TEST(Macros, ComposeTheTextOnlyWhenTheLevelIsOn) {
    const LevelRow rows[] = {
        {Level::getAll(), {"DEBUG 1", "INFO 2", "WARN 3", "ERROR 4", "FATAL 5"}, 5},
        {Level::getDebug(), {"DEBUG 1", "INFO 2", "WARN 3", "ERROR 4", "FATAL 5"}, 5},
        {Level::getInfo(), {"INFO 1", "WARN 2", "ERROR 3", "FATAL 4"}, 4},
        {Level::getWarn(), {"WARN 1", "ERROR 2", "FATAL 3"}, 3},
        {Level::getError(), {"ERROR 1", "FATAL 2"}, 2},
        {Level::getFatal(), {"FATAL 1"}, 1},
        {Level::getOff(), {}, 0},
    };
    for (const LevelRow& row : rows) {
        RecordCollector collector("orv.test");
        const LoggerPtr logger = testLogger();
        logger->setLevel(row.level);
        int evaluations = 0;
        ORVLOG_DEBUG(logger, "%d", ++evaluations);
        ORVLOG_INFO(logger, "%d", ++evaluations);
        ORVLOG_WARN(logger, "%d", ++evaluations);
        ORVLOG_ERROR(logger, "%d", ++evaluations);
        ORVLOG_FATAL(logger, "%d", ++evaluations);
        logger->setLevel(nullptr);
        EXPECT_EQ(collector.lines(), row.lines);
        EXPECT_EQ(evaluations, row.evaluations);
    }
}

TEST(Macros, FormatTheirArguments) {
    RecordCollector collector("orv.test");
    ORVLOG_INFO(testLogger(), "%s is %d%%, 0x%x", std::string(2000, 'a').c_str(), -1, 255U);
    EXPECT_THAT(collector.lines(), ElementsAre("INFO " + std::string(2000, 'a') + " is -1%, 0xff"));
}

TEST(Macros, NameTheirOwnPlace) {
    RecordCollector collector;
    const int line = recordHere();
    ASSERT_THAT(collector.records(), SizeIs(1));
    EXPECT_EQ(collector.records()[0].file, __FILE__);
    EXPECT_EQ(collector.records()[0].line, line);
    EXPECT_THAT(collector.records()[0].function, testing::HasSubstr("recordHere"));
}

TEST(Macros, AreOneStatement) {
    RecordCollector collector("orv.test");
    for (const bool first : {true, false})
        if (first)
            ORVLOG_INFO(testLogger(), "first");
        else
            ORVLOG_INFO(testLogger(), "second");
    EXPECT_THAT(collector.lines(), ElementsAre("INFO first", "INFO second"));
}

// --- orvlog_logger_log

// logPlain makes a record through the plain entry point.
template <class... Arguments>
void logPlain(int level, const char* format, Arguments... arguments) {
    orvlog_logger_log(testLogger().get(), level, "origin.c", "origin", 12, format, arguments...);
}

TEST(PlainLog, TakesTheIntegersOfTheLevels) {
    RecordCollector collector("orv.test");
    testLogger()->setLevel(Level::getAll());
    for (const int level :
         {Level::TRACE_INT, Level::DEBUG_INT, Level::INFO_INT, Level::WARN_INT, Level::ERROR_INT, Level::FATAL_INT})
        logPlain(level, "%s %d", "text", 5);
    testLogger()->setLevel(nullptr);
    EXPECT_THAT(collector.lines(), ElementsAre("TRACE text 5", "DEBUG text 5", "INFO text 5", "WARN text 5",
                                               "ERROR text 5", "FATAL text 5"));
}

TEST(PlainLog, UnknownLevelIsDebug) {
    RecordCollector collector("orv.test");
    logPlain(12345, "text");
    EXPECT_THAT(collector.lines(), ElementsAre("DEBUG text"));
}

TEST(PlainLog, NothingHappensBelowTheLoggersLevel) {
    RecordCollector collector;
    testLogger()->setLevel(Level::getError());
    logPlain(Level::WARN_INT, "text");
    logPlain(Level::DEBUG_INT, "text");
    testLogger()->setLevel(nullptr);
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST(PlainLog, NamesThePlaceItWasGiven) {
    RecordCollector collector;
    logPlain(Level::INFO_INT, "text");
    ASSERT_THAT(collector.records(), SizeIs(1));
    EXPECT_EQ(collector.records()[0].file, "origin.c");
    EXPECT_EQ(collector.records()[0].function, "origin");
    EXPECT_EQ(collector.records()[0].line, 12);
}

TEST(PlainLog, CutsAfter511Bytes) {
    for (const size_t length : {0U, 1U, 510U, 511U, 512U, 513U, 100000U}) {
        RecordCollector collector("orv.test");
        logPlain(Level::INFO_INT, "%s", std::string(length, 'a').c_str());
        EXPECT_THAT(collector.lines(), ElementsAre("INFO " + std::string(std::min<size_t>(length, 511), 'a')));
    }
}

TEST(PlainLog, CutThroughACharacterKeepsTheTextBefore) {
    const Outcome outcome = inChild([] {
        setlocale(LC_CTYPE, "C.UTF-8");
        RecordCollector collector("orv.test");
        logPlain(Level::INFO_INT, "%s\xC3\xBC", std::string(510, 'a').c_str());
        for (const std::string& line : collector.lines())
            puts(line.substr(0, 515).c_str());
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "INFO " + std::string(510, 'a') + "\n");
    EXPECT_EQ(outcome.error, "");
}

TEST(PlainLog, KeepsNoReferenceToTheLogger) {
    RecordCollector collector;
    const LoggerPtr logger = orvlog::getLogger("orv.counted");
    const long before = logger.use_count();
    orvlog_logger_log(logger.get(), Level::INFO_INT, "f", "f", 1, "x");
    EXPECT_THAT(collector.records(), SizeIs(1));
    collector.clear();
    EXPECT_EQ(logger.use_count(), before);
}

TEST(PlainLog, FailingAppenderIsReportedOnStandardError) {
    useThrowingAppender(log4cxx::helpers::Exception("disk 100%s full"));
    EXPECT_EQ(tellOnStandardError([] { logPlain(Level::ERROR_INT, "x"); }),
              "ERROR: orvlog_logger_log() failed with exception 'disk 100%s full'\n");
}

TEST(PlainLog, OtherExceptionTypesPass) {
    useThrowingAppender(std::runtime_error("not ours"));
    EXPECT_THROW(logPlain(Level::ERROR_INT, "x"), std::runtime_error);
}

}  // namespace
