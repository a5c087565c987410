// What a log call costs, beside log4cxx's own macros on the same logger: one whose level is off, and one that makes a
// record, which goes through the console's pattern into /dev/null.

#include <benchmark/benchmark.h>
#include <log4cxx/fileappender.h>
#include <log4cxx/level.h>
#include <log4cxx/patternlayout.h>

#include <string>

#include "least_time.h"
#include "runtime/orvlog.h"

namespace {

// makeLogger gives a logger as a module holds it, with the level INFO and one appender.
log4cxx::LoggerPtr makeLogger() {
    const log4cxx::LoggerPtr logger = orvlog::getLogger(orvlog::append(orvlog::TOP_LOGGER_NAME, "bench"));
    logger->setLevel(log4cxx::Level::getInfo());
    logger->setAdditivity(false);
    const auto layout = std::make_shared<log4cxx::PatternLayout>("%d{HH:mm:ss.SSS} %p: %m%n");
    logger->addAppender(std::make_shared<log4cxx::FileAppender>(layout, "/dev/null"));
    return logger;
}

const log4cxx::LoggerPtr gs_pLogger = makeLogger();

// The arguments of a usual call: a text that is there already and a number.
struct Arguments {
    std::string name = "video-wall";
    int number = 4;
};

// Times `call`. Its arguments are hidden from the optimiser, which else could compose the text beforehand.
template <class Call>
void run(benchmark::State& state, Call call) {
    Arguments arguments;
    for (auto _ : state) {
        benchmark::DoNotOptimize(&arguments);
        benchmark::ClobberMemory();
        call(arguments);
    }
}

void DisabledOurs(benchmark::State& state) {
    run(state, [](const Arguments& with) {
        ORVLOG_DEBUG(gs_pLogger, "feature %s, entry %d", with.name.c_str(), with.number);
    });
}

void DisabledLog4cxx(benchmark::State& state) {
    run(state,
        [](const Arguments& with) { LOG4CXX_DEBUG(gs_pLogger, "feature " << with.name << ", entry " << with.number); });
}

void MadeOurs(benchmark::State& state) {
    run(state,
        [](const Arguments& with) { ORVLOG_INFO(gs_pLogger, "feature %s, entry %d", with.name.c_str(), with.number); });
}

void MadeLog4cxx(benchmark::State& state) {
    run(state,
        [](const Arguments& with) { LOG4CXX_INFO(gs_pLogger, "feature " << with.name << ", entry " << with.number); });
}

BENCHMARK(DisabledOurs)->Apply(tellLeastTime);
BENCHMARK(DisabledLog4cxx)->Apply(tellLeastTime);
BENCHMARK(MadeOurs)->Apply(tellLeastTime);
BENCHMARK(MadeLog4cxx)->Apply(tellLeastTime);

}  // namespace

BENCHMARK_MAIN();
