// record_collector.h: what code leaves behind, for tests to look at: its log records, and its files in a folder of
// their own.
#pragma once

#include <gtest/gtest.h>
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/spi/loggingevent.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "runtime/orvlog.h"

// Record is one log record, with the place that it names as its origin.
struct Record {
    std::string logger;
    std::string level;
    std::string text;
    std::string file;
    std::string function;
    int line = 0;
};

// TestAppender hands each record to a function, which may throw.
class TestAppender final : public log4cxx::AppenderSkeleton {
public:
    // TestAppenderClass is what log4cxx asks each of its objects for; nothing here is looked up by it.
    struct TestAppenderClass final : log4cxx::helpers::Class {
        log4cxx::LogString getName() const override { return "TestAppender"; }
    };

    using OnRecord = std::function<void(const Record&)>;
    using OnClose = std::function<void()>;

    explicit TestAppender(
        OnRecord onRecord, OnClose onClose = [] {})
        : m_fOnRecord(std::move(onRecord)), m_fOnClose(std::move(onClose)) {}
    ~TestAppender() override = default;

    const log4cxx::helpers::Class& getClass() const override {
        static const TestAppenderClass type;
        return type;
    }

    void close() override { m_fOnClose(); }
    bool requiresLayout() const override { return false; }
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) override {
        const log4cxx::spi::LocationInfo& location = event->getLocationInformation();
        m_fOnRecord({event->getLoggerName(), event->getLevel()->toString(), event->getMessage(), location.getFileName(),
                     location.getMethodName(), location.getLineNumber()});
    }

private:
    OnRecord m_fOnRecord;
    OnClose m_fOnClose;
};

// RecordCollector takes all records of the process, from DEBUG up, from its construction to its end, in place of
// whatever was configured before.
class RecordCollector {
public:
    // RecordCollector expects the records of the logger called `expected`, whose name thus isn't shown in `lines`.
    explicit RecordCollector(const std::string& expected = "orv.featurewatch") : m_strExpected(expected) {
        const log4cxx::LoggerPtr root =
            useAlone(std::make_shared<TestAppender>([this](const Record& record) { m_aRecords.push_back(record); }));
        root->setLevel(log4cxx::Level::getDebug());
    }
    RecordCollector(const RecordCollector&) = delete;
    RecordCollector& operator=(const RecordCollector&) = delete;
    ~RecordCollector() { root()->removeAllAppenders(); }

    // useAlone makes `appender` the only one and returns the root logger.
    static log4cxx::LoggerPtr useAlone(const log4cxx::AppenderPtr& appender) {
        const log4cxx::LoggerPtr logger = root();
        logger->removeAllAppenders();
        logger->addAppender(appender);
        return logger;
    }

    const std::vector<Record>& records() const { return m_aRecords; }

    // lines gives the records as "LEVEL text", with "LOGGER " in front for a logger that wasn't expected.
    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        for (const Record& record : m_aRecords) {
            const std::string origin = record.logger == m_strExpected ? "" : record.logger + " ";
            result.push_back(origin + record.level + " " + record.text);
        }
        return result;
    }

    void clear() { m_aRecords.clear(); }

private:
    // root makes a logger of ours first, as a first logger of log4cxx's own would look for configuration files.
    static log4cxx::LoggerPtr root() {
        orvlog::getLogger(orvlog::TOP_LOGGER_NAME);
        return log4cxx::Logger::getRootLogger();
    }

    std::string m_strExpected;
    std::vector<Record> m_aRecords;
};

// Lines is a list of records as RecordCollector::lines gives it.
using Lines = std::vector<std::string>;

// TempFolder is a new folder that goes away with all it holds.
class TempFolder {
public:
    TempFolder() : m_strPath(std::filesystem::temp_directory_path() / "orv-XXXXXX") {
        if (!mkdtemp(m_strPath.data()))
            throw std::filesystem::filesystem_error("mkdtemp", m_strPath,
                                                    std::error_code(errno, std::generic_category()));
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() { std::filesystem::remove_all(m_strPath); }

    const std::string& path() const { return m_strPath; }

    // operator/ gives the path of `name` in the folder.
    std::string operator/(const std::string& name) const { return m_strPath + "/" + name; }

    // write makes or overwrites, in place, the file `name` and returns its path.
    std::string write(const std::string& name, const std::string& content) const {
        const std::string path = *this / name;
        writeTo(path, content);
        return path;
    }

    static void writeTo(const std::string& path, const std::string& content) {
        std::ofstream stream(path, std::ios::binary | std::ios::trunc);
        stream << content << std::flush;
        ASSERT_TRUE(stream.good()) << path;
    }

    // contentOf gives the bytes of a file; empty if it can't be read.
    static std::string contentOf(const std::string& path) {
        std::ifstream stream(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }

private:
    std::string m_strPath;
};
