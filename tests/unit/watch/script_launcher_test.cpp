// script_launcher_test.cpp: the hook's process, with real processes and real commands.
//
// This file replaces a few libc calls for its test program: each can be made to fail, and the pid of the launcher is
// taken from fork. The launcher inherits that. Of open it is the one of /dev/null that fails.

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "unit/own_process.h"
#include "unit/record_collector.h"
#include "unit/rounds.h"
#include "watch/script_launcher.h"

namespace {

// Faults are the errno values that the replaced calls fail with; 0 lets a call through.
struct Faults {
    int pipe2 = 0;
    int fork = 0;
    int prctl = 0;
    int system = 0;
    int openNull = 0;
    int pipeSize = 0;

    // largestPipe is the size above which a pipe can't be enlarged; 0 is no limit.
    intptr_t largestPipe = 0;
};

Faults gs_oFaults;
pid_t gs_nLauncher = -1;

template <class Function>
Function* realCall(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool fails(int fault) {
    if (fault)
        errno = fault;
    return fault != 0;
}

// openFails returns whether this call of open fails, with errno set.
bool openFails(const char* path) {
    return strcmp(path, "/dev/null") == 0 && fails(gs_oFaults.openNull);
}

}  // namespace

extern "C" int pipe2(int* ends, int flags) noexcept {
    return fails(gs_oFaults.pipe2) ? -1 : realCall<int(int*, int)>("pipe2")(ends, flags);
}

extern "C" pid_t fork() noexcept {
    if (fails(gs_oFaults.fork))
        return -1;
    const pid_t pid = realCall<pid_t()>("fork")();
    if (pid > 0)
        gs_nLauncher = pid;
    return pid;
}

extern "C" int prctl(int option, ...) noexcept {
    va_list arguments;
    va_start(arguments, option);
    unsigned long values[4];
    for (unsigned long& value : values)
        value = va_arg(arguments, unsigned long);
    va_end(arguments);
    if (option == PR_SET_NAME && fails(gs_oFaults.prctl))
        return -1;
    return realCall<int(int, ...)>("prctl")(option, values[0], values[1], values[2], values[3]);
}

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openFails(path) ? -1 : realCall<int(const char*, int, ...)>("open")(path, flags, mode);
}

// __open_2 is what a fortified open becomes where the compiler doesn't know the flags.
extern "C" int __open_2(const char* path, int flags) {
    return openFails(path) ? -1 : realCall<int(const char*, int, ...)>("open")(path, flags);
}

extern "C" int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const intptr_t value = va_arg(arguments, intptr_t);
    va_end(arguments);
    if (command == F_GETPIPE_SZ && fails(gs_oFaults.pipeSize))
        return -1;
    const bool tooLarge = command == F_SETPIPE_SZ && gs_oFaults.largestPipe != 0 && value > gs_oFaults.largestPipe;
    return fails(tooLarge ? EPERM : 0) ? -1 : realCall<int(int, int, ...)>("fcntl")(fd, command, value);
}

extern "C" int system(const char* command) {
    return fails(gs_oFaults.system) ? -1 : realCall<int(const char*)>("system")(command);
}

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_copy_constructible_v<ScriptLauncher> && !std::is_copy_assignable_v<ScriptLauncher>);

using Descriptors = std::map<int, std::string>;

// openDescriptors returns what a process has open.
Descriptors openDescriptors(pid_t pid) {
    Descriptors result;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code error;
        const fs::path target = fs::read_symlink(entry.path(), error);
        if (!error)
            result[std::stoi(entry.path().filename())] = target;
    }
    return result;
}

// newDescriptor returns the one that is open now and wasn't before; -1 if it isn't exactly one.
int newDescriptor(const Descriptors& before) {
    int result = -1;
    for (const auto& [fd, target] : openDescriptors(getpid())) {
        const auto old = before.find(fd);
        if (old == before.end() || old->second != target) {
            if (fcntl(fd, F_GETFD) == -1)  // the descriptor of the walk itself
                continue;
            if (result != -1)
                return -1;
            result = fd;
        }
    }
    return result;
}

class ScriptLauncherTest : public testing::Test {
protected:
    // A hang is a failure: SIGALRM ends the program.
    ScriptLauncherTest() : m_pOldPipeHandler(signal(SIGPIPE, SIG_IGN)) { alarm(patience(60)); }
    ~ScriptLauncherTest() override {
        alarm(0);
        signal(SIGPIPE, m_pOldPipeHandler);
        gs_oFaults = {};
    }

    // linesOf returns the lines that commands have written to the file `name`.
    Lines linesOf(const std::string& name = "out") const {
        std::istringstream stream(TempFolder::contentOf(m_oFolder / name));
        Lines lines;
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
        return lines;
    }

    // recordToFile sends the records of this process and of a launcher to the file "records", which is opened again for
    // each, because a launcher keeps no descriptor of the daemon's.
    void recordToFile() const {
        const auto append = [path = m_oFolder / "records"](const Record& record) {
            std::ofstream(path, std::ios::app) << record.logger << " " << record.level << " " << record.text << "\n";
        };
        RecordCollector::useAlone(std::make_shared<TestAppender>(append))->setLevel(log4cxx::Level::getDebug());
    }

    Lines records() const { return linesOf("records"); }

    // append is a command that adds a line to the file "out".
    std::string append(const std::string& text) const { return "echo \"" + text + "\" >> " + (m_oFolder / "out"); }

    // gated is a command that says "begin", waits for a line from the gate, and says "end".
    std::string gated() const {
        EXPECT_EQ(mkfifo((m_oFolder / "gate").c_str(), 0600), 0);
        EXPECT_EQ(mkfifo((m_oFolder / "begun").c_str(), 0600), 0);
        return append("begin") + "; echo > " + (m_oFolder / "begun") + "; read x < " + (m_oFolder / "gate") + "; " +
               append("end");
    }

    void awaitBegin() const { EXPECT_EQ(TempFolder::contentOf(m_oFolder / "begun"), "\n"); }
    void openGate() const { TempFolder::writeTo(m_oFolder / "gate", "\n"); }

    // awaitDeath waits until a child is dead and leaves it to be waited for by the code under test.
    static void awaitDeath(pid_t pid) {
        siginfo_t info;
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    }

    // awaitStop waits until a process has stopped on a signal.
    static void awaitStop(pid_t pid) {
        while (TempFolder::contentOf("/proc/" + std::to_string(pid) + "/status").find("State:\tT") ==
               std::string::npos) {
            std::this_thread::yield();
        }
    }

    static bool hasChildren() { return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }

    TempFolder m_oFolder;

private:
    sighandler_t m_pOldPipeHandler;
};

// --- No hook

TEST_F(ScriptLauncherTest, EmptyCommandLineMakesNeitherPipeNorProcess) {
    RecordCollector collector;
    ScriptLauncher launcher("");
    const Descriptors before = openDescriptors(getpid());
    EXPECT_TRUE(launcher.start());
    EXPECT_FALSE(launcher.hasProcess());
    EXPECT_FALSE(hasChildren());
    EXPECT_EQ(openDescriptors(getpid()), before);
    EXPECT_TRUE(launcher.launch());
    launcher.stop();
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(ScriptLauncherTest, NothingHappensBeforeStart) {
    RecordCollector collector;
    ScriptLauncher launcher(append("run"));
    EXPECT_FALSE(launcher.hasProcess());
    EXPECT_TRUE(launcher.launch());
    launcher.stop();
    EXPECT_FALSE(hasChildren());
    EXPECT_THAT(linesOf(), IsEmpty());
    EXPECT_THAT(collector.lines(), IsEmpty());
}

// --- Runs

TEST_F(ScriptLauncherTest, StartAloneRunsNothing) {
    ScriptLauncher launcher(append("run"));
    EXPECT_TRUE(launcher.start());
    EXPECT_TRUE(launcher.hasProcess());
    EXPECT_TRUE(hasChildren());
    launcher.stop();
    EXPECT_FALSE(launcher.hasProcess());
    EXPECT_FALSE(hasChildren());
    EXPECT_THAT(linesOf(), IsEmpty());
}

TEST_F(ScriptLauncherTest, EachLaunchIsOneRun) {
    for (const size_t count : {1U, 2U, 5U}) {
        const TempFolder folder;
        ScriptLauncher launcher("echo run >> " + (folder / "out"));
        ASSERT_TRUE(launcher.start());
        for (size_t i = 0; i < count; i++) {
            EXPECT_TRUE(launcher.launch());
        }
        launcher.stop();
        std::string expected;
        for (size_t i = 0; i < count; i++) {
            expected += "run\n";
        }
        EXPECT_EQ(TempFolder::contentOf(folder / "out"), expected) << "the stop is queued after the runs";
    }
}

TEST_F(ScriptLauncherTest, ThreeChangesDuringOneLongRunGiveThreeFurtherRunsInTurn) {
    ScriptLauncher launcher(gated());
    ASSERT_TRUE(launcher.start());
    ASSERT_TRUE(launcher.launch());
    awaitBegin();
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(launcher.launch());
    }
    EXPECT_THAT(linesOf(), ElementsAre("begin"));
    for (int i = 0; i < 3; i++) {
        openGate();
        awaitBegin();
    }
    openGate();
    launcher.stop();
    EXPECT_THAT(linesOf(), ElementsAre("begin", "end", "begin", "end", "begin", "end", "begin", "end"));
}

TEST_F(ScriptLauncherTest, ManyLaunchesDuringOneRunNeverBlock) {
    ScriptLauncher launcher("test -e " + (m_oFolder / "opened") + " || { " + gated() + "; }; " + append("run"));
    ASSERT_TRUE(launcher.start());
    ASSERT_TRUE(launcher.launch());
    awaitBegin();
    for (int i = 0; i < 100; i++) {
        ASSERT_TRUE(launcher.launch());
    }
    m_oFolder.write("opened", "");
    openGate();
    launcher.stop();
    Lines expected(103, "run");
    expected[0] = "begin";
    expected[1] = "end";
    EXPECT_EQ(linesOf(), expected);
}

TEST_F(ScriptLauncherTest, StopWaitsForTheRunInProgress) {
    ScriptLauncher launcher(gated());
    ASSERT_TRUE(launcher.start());
    ASSERT_TRUE(launcher.launch());
    awaitBegin();
    std::atomic<bool> stopped = false;
    std::thread stopper([&] {
        launcher.stop();
        stopped = true;
    });
    EXPECT_FALSE(stopped);
    openGate();
    stopper.join();
    EXPECT_THAT(linesOf(), ElementsAre("begin", "end"));
    EXPECT_FALSE(hasChildren());
}

TEST_F(ScriptLauncherTest, SecondStopAndLaunchAfterItDoNothing) {
    RecordCollector collector;
    ScriptLauncher launcher(append("run"));
    ASSERT_TRUE(launcher.start());
    launcher.stop();
    launcher.stop();
    EXPECT_TRUE(launcher.launch());
    EXPECT_THAT(linesOf(), IsEmpty());
    EXPECT_THAT(collector.lines(), IsEmpty());
}

// --- How commands end

// EndRow is a command and the record of its end, if any.
struct EndRow {
    const char* command;
    Lines records;
};

TEST_F(ScriptLauncherTest, FailuresOfTheCommandAreReportedAndTheLauncherGoesOn) {
    const EndRow rows[] = {
        {"exit 0", {}},
        {"exit 3", {"orv.featurewatch ERROR script exited with status 3"}},
        {"exit 255", {"orv.featurewatch ERROR script exited with status 255"}},
        {"/nonexistent/command", {"orv.featurewatch ERROR script exited with status 127"}},
        {"kill -KILL $$", {"orv.featurewatch ERROR script terminated by signal 9"}},
        {"kill -TERM $$", {"orv.featurewatch ERROR script terminated by signal 15"}},
    };
    for (const EndRow& row : rows) {
        SCOPED_TRACE(row.command);
        fs::remove(m_oFolder / "records");
        recordToFile();
        ScriptLauncher launcher(row.command);
        ASSERT_TRUE(launcher.start());
        EXPECT_TRUE(launcher.launch());
        EXPECT_TRUE(launcher.launch());
        launcher.stop();
        Lines expected;
        for (int run = 0; run < 2; run++) {
            expected.push_back(std::string("orv.featurewatch DEBUG running script: ") + row.command);
            expected.insert(expected.end(), row.records.begin(), row.records.end());
        }
        expected.emplace_back("orv.featurewatch DEBUG stopping script launcher");
        EXPECT_EQ(records(), expected);
    }
}

TEST_F(ScriptLauncherTest, CommandThatCannotBeRunIsReportedAndTheLauncherGoesOn) {
    recordToFile();
    gs_oFaults.system = EAGAIN;
    ScriptLauncher launcher("true");
    ASSERT_TRUE(launcher.start());
    EXPECT_TRUE(launcher.launch());
    EXPECT_TRUE(launcher.launch());
    launcher.stop();
    const std::string running = "orv.featurewatch DEBUG running script: true";
    const std::string failed = "orv.featurewatch ERROR failed to run script: Resource temporarily unavailable";
    EXPECT_THAT(records(),
                ElementsAre(running, failed, running, failed, "orv.featurewatch DEBUG stopping script launcher"));
}

// --- What a command finds

TEST_F(ScriptLauncherTest, CommandRunsBelowAProcessWithItsOwnName) {
    ScriptLauncher launcher("cat /proc/$PPID/comm >> " + (m_oFolder / "out") + "; " + append("$PPID"));
    ASSERT_TRUE(launcher.start());
    EXPECT_TRUE(launcher.launch());
    launcher.stop();
    EXPECT_THAT(linesOf(), ElementsAre("featurewatch-x", std::to_string(gs_nLauncher)));
    EXPECT_NE(gs_nLauncher, getpid());
    EXPECT_NE(TempFolder::contentOf("/proc/self/comm"), "featurewatch-x\n");
}

TEST_F(ScriptLauncherTest, LauncherIsInAProcessGroupOfItsOwn) {
    ScriptLauncher launcher(gated());
    ASSERT_TRUE(launcher.start());
    ASSERT_TRUE(launcher.launch());
    awaitBegin();
    EXPECT_EQ(getpgid(gs_nLauncher), gs_nLauncher);
    openGate();
    launcher.stop();
}

TEST_F(ScriptLauncherTest, CommandSeesTheThreeStandardDescriptorsOnNothing) {
    for (const auto& [fd, target] : openDescriptors(getpid())) {
        if (fd > STDERR_FILENO) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
    ASSERT_EQ(mkfifo((m_oFolder / "begun").c_str(), 0600), 0);
    ScriptLauncher launcher("echo $$ > " + (m_oFolder / "begun") + "; kill -STOP $$");
    ASSERT_TRUE(launcher.start());
    EXPECT_TRUE(launcher.launch());
    const pid_t shell = std::stoi(TempFolder::contentOf(m_oFolder / "begun"));
    awaitStop(shell);
    const Descriptors nothing = {{0, "/dev/null"}, {1, "/dev/null"}, {2, "/dev/null"}};
    EXPECT_EQ(openDescriptors(shell), nothing);
    sendSignal(shell, SIGCONT);
    launcher.stop();
}

TEST_F(ScriptLauncherTest, StandardInputCanBeReadAndTheOutputsWritten) {
    ScriptLauncher launcher("for n in 0 1 2; do sed -n 's/^flags:.*\\(.\\)$/\\1/p' /proc/$PPID/fdinfo/$n >> " +
                            (m_oFolder / "out") + "; done; cat && echo out && echo err >&2 && " + append("ok"));
    ASSERT_TRUE(launcher.start());
    EXPECT_TRUE(launcher.launch());
    launcher.stop();
    EXPECT_THAT(linesOf(), ElementsAre("0", "1", "1", "ok")) << "O_RDONLY, O_WRONLY, O_WRONLY";
}

// --- The pipe

TEST_F(ScriptLauncherTest, DaemonKeepsTheWriteEndOfAPacketPipeAlone) {
    const Descriptors before = openDescriptors(getpid());
    ScriptLauncher launcher("true");
    ASSERT_TRUE(launcher.start());
    const int fd = newDescriptor(before);
    ASSERT_NE(fd, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_DIRECT);
    launcher.stop();
    EXPECT_EQ(openDescriptors(getpid()), before);
}

// sizeOfNewPipe returns how many bytes a pipe can hold that nobody has enlarged.
int sizeOfNewPipe() {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const int size = fcntl(ends[0], F_GETPIPE_SZ);
    close(ends[0]);
    close(ends[1]);
    return size;
}

// largestSize returns how many bytes an ordinary process may let a pipe hold.
int largestSize() {
    return std::stoi(TempFolder::contentOf("/proc/sys/fs/pipe-max-size"));
}

TEST_F(ScriptLauncherTest, PipeIsAsLargeAsTheSystemAllows) {
    const int largest = largestSize();
    const int smallest = sizeOfNewPipe();
    ASSERT_GE(largest, 4 * smallest);
    for (const auto& [limit, expected] : std::map<int, int>{
             {1, smallest}, {2 * smallest - 1, smallest}, {largest - 1, largest / 2}, {largest, largest}}) {
        SCOPED_TRACE(limit);
        const Descriptors before = openDescriptors(getpid());
        gs_oFaults.largestPipe = limit;
        ScriptLauncher launcher("true");
        ASSERT_TRUE(launcher.start());
        const int fd = newDescriptor(before);
        ASSERT_NE(fd, -1);
        EXPECT_EQ(fcntl(fd, F_GETPIPE_SZ), expected);
        launcher.stop();
    }
}

TEST_F(ScriptLauncherTest, PipeWhoseSizeIsUnknownStaysAsItIs) {
    const Descriptors before = openDescriptors(getpid());
    gs_oFaults.pipeSize = EPERM;
    ScriptLauncher launcher(append("run"));
    ASSERT_TRUE(launcher.start());
    gs_oFaults.pipeSize = 0;
    EXPECT_EQ(fcntl(newDescriptor(before), F_GETPIPE_SZ), sizeOfNewPipe());
    EXPECT_TRUE(launcher.launch());
    launcher.stop();
    EXPECT_THAT(linesOf(), ElementsAre("run"));
}

TEST_F(ScriptLauncherTest, LauncherHasTheReadEndAlone) {
    const Descriptors before = openDescriptors(getpid());
    ScriptLauncher launcher(gated());
    ASSERT_TRUE(launcher.start());
    ASSERT_TRUE(launcher.launch());
    awaitBegin();
    const std::string pipe = openDescriptors(getpid())[newDescriptor(before)];
    std::vector<int> ends;
    for (const auto& [fd, target] : openDescriptors(gs_nLauncher)) {
        if (target == pipe) {
            ends.push_back(fd);
        }
    }
    EXPECT_EQ(ends.size(), 1U) << pipe;
    openGate();
    launcher.stop();
}

TEST_F(ScriptLauncherTest, OtherPacketsAreIgnored) {
    const Descriptors before = openDescriptors(getpid());
    ScriptLauncher launcher(append("run"));
    ASSERT_TRUE(launcher.start());
    const int fd = newDescriptor(before);
    ASSERT_NE(fd, -1);
    for (const std::string packet : {"X", "r", "q", "RR", "QQ", "RQ", "QR", "RRRRRRRRRRRRRRRRRR"}) {
        ASSERT_EQ(write(fd, packet.data(), packet.size()), static_cast<ssize_t>(packet.size()));
    }
    const char nul = 0;
    ASSERT_EQ(write(fd, &nul, 1), 1);
    EXPECT_TRUE(launcher.launch());
    launcher.stop();
    EXPECT_THAT(linesOf(), ElementsAre("run"));
}

TEST_F(ScriptLauncherTest, StaleBytesOfALongerPacketAreNotTakenForACommand) {
    const Descriptors before = openDescriptors(getpid());
    ScriptLauncher launcher(append("run"));
    ASSERT_TRUE(launcher.start());
    const int fd = newDescriptor(before);
    ASSERT_NE(fd, -1);
    const std::string full(4096, 'R');
    ASSERT_EQ(write(fd, full.data(), full.size()), static_cast<ssize_t>(full.size()));
    ASSERT_EQ(write(fd, "Q", 1), 1);
    awaitDeath(gs_nLauncher);
    EXPECT_THAT(linesOf(), IsEmpty());
    RecordCollector collector;
    launcher.stop();
    EXPECT_EQ(collector.lines(), Lines{"ERROR failed sending quit to script launcher: Broken pipe"}) << "status 0";
}

TEST_F(ScriptLauncherTest, InterruptedReadEndsTheLauncherWithARecord) {
    recordToFile();
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {};
    struct sigaction old {};
    sigaction(SIGUSR1, &interrupt, &old);
    ScriptLauncher launcher("true");
    ASSERT_TRUE(launcher.start());
    siginfo_t info{};
    while (info.si_pid == 0) {
        sendSignal(gs_nLauncher, SIGUSR1);
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(gs_nLauncher), &info, WEXITED | WNOWAIT | WNOHANG), 0);
    }
    launcher.stop();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_THAT(records(),
                ElementsAre("orv.featurewatch ERROR failed to read from script launcher pipe: Interrupted system call",
                            "orv.featurewatch ERROR failed sending quit to script launcher: Broken pipe",
                            "orv.featurewatch ERROR script launcher exited with status 1"));
}

// --- Death of one side

// startAndDie starts a launcher in a process of its own, which is then killed, and returns the launcher's pid.
pid_t startAndDie(const std::string& command, int launches) {
    int report[2];
    EXPECT_EQ(pipe(report), 0);
    const pid_t daemon = startedProcess(fork());
    if (daemon == 0) {
        ScriptLauncher launcher(command);
        launcher.start();
        for (int i = 0; i < launches; i++) {
            launcher.launch();
        }
        if (write(report[1], &gs_nLauncher, sizeof gs_nLauncher) == sizeof gs_nLauncher) {
            raise(SIGKILL);
        }
        _exit(1);
    }
    pid_t launcher = -1;
    EXPECT_EQ(read(report[0], &launcher, sizeof launcher), static_cast<ssize_t>(sizeof launcher));
    close(report[0]);
    close(report[1]);
    EXPECT_TRUE(WIFSIGNALED(awaitChild(daemon)));
    return launcher;
}

TEST_F(ScriptLauncherTest, KilledDaemonEndsTheLauncherWithStatus0AfterThePendingRuns) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
    recordToFile();
    const pid_t launcher = startAndDie(append("run"), 2);
    const int status = awaitChild(launcher);
    prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_THAT(linesOf(), ElementsAre("run", "run"));
    EXPECT_EQ(records().back(), "orv.featurewatch DEBUG stopping script launcher");
}

TEST_F(ScriptLauncherTest, LaunchWithAKilledLauncherFails) {
    RecordCollector collector;
    const Descriptors before = openDescriptors(getpid());
    ScriptLauncher launcher(append("run"));
    ASSERT_TRUE(launcher.start());
    sendSignal(gs_nLauncher, SIGKILL);
    awaitDeath(gs_nLauncher);
    EXPECT_FALSE(launcher.launch());
    EXPECT_EQ(collector.lines(), Lines{"ERROR failed to signal script launcher: Broken pipe"});
    EXPECT_TRUE(launcher.hasProcess());
    collector.clear();
    launcher.stop();
    EXPECT_THAT(collector.lines(), ElementsAre("ERROR failed sending quit to script launcher: Broken pipe",
                                               "ERROR script launcher terminated by signal 9"));
    EXPECT_FALSE(launcher.hasProcess());
    EXPECT_EQ(openDescriptors(getpid()), before);
    EXPECT_FALSE(hasChildren());
}

TEST_F(ScriptLauncherTest, LauncherKilledDuringARunIsReportedByStop) {
    RecordCollector collector;
    ScriptLauncher launcher("kill -KILL $PPID");
    ASSERT_TRUE(launcher.start());
    ASSERT_TRUE(launcher.launch());
    launcher.stop();
    ASSERT_FALSE(collector.lines().empty());
    EXPECT_EQ(collector.lines().back(), "ERROR script launcher terminated by signal 9");
}

TEST_F(ScriptLauncherTest, LauncherThatSomebodyElseWaitedForIsReported) {
    RecordCollector collector;
    const Descriptors before = openDescriptors(getpid());
    ScriptLauncher launcher("true");
    ASSERT_TRUE(launcher.start());
    sendSignal(gs_nLauncher, SIGKILL);
    awaitChild(gs_nLauncher);
    launcher.stop();
    EXPECT_THAT(collector.lines(), ElementsAre("ERROR failed sending quit to script launcher: Broken pipe",
                                               "ERROR failed to wait for script launcher: No child processes"));
    EXPECT_FALSE(launcher.hasProcess());
    EXPECT_EQ(openDescriptors(getpid()), before);
}

TEST_F(ScriptLauncherTest, StopDoesNotWaitWhenTheQuitCouldNotBeSent) {
    RecordCollector collector;
    const Descriptors before = openDescriptors(getpid());
    ScriptLauncher launcher("true");
    ASSERT_TRUE(launcher.start());
    const int fd = newDescriptor(before);
    ASSERT_NE(fd, -1);
    sendSignal(gs_nLauncher, SIGSTOP);
    const int unwritable = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(unwritable, fd), fd);
    close(unwritable);
    launcher.stop();
    EXPECT_EQ(collector.lines(), Lines{"ERROR failed sending quit to script launcher: Bad file descriptor"});
    EXPECT_FALSE(launcher.hasProcess());
    EXPECT_EQ(openDescriptors(getpid()), before);
    sendSignal(gs_nLauncher, SIGKILL);
    awaitChild(gs_nLauncher);
}

TEST_F(ScriptLauncherTest, ExitHandlersFromBeforeTheForkRunInTheLauncher) {
    static std::string path;
    path = m_oFolder / "out";
    const pid_t daemon = startedProcess(fork());
    if (daemon == 0) {
        atexit([] {
            std::ofstream stream(path, std::ios::app);
            stream << "exit handler\n";
        });
        ScriptLauncher launcher("true");
        launcher.start();
        launcher.stop();
        _exit(0);
    }
    awaitChild(daemon);
    EXPECT_THAT(linesOf(), ElementsAre("exit handler"));
}

// --- Faults of the system

TEST_F(ScriptLauncherTest, FailedPipeIsReported) {
    RecordCollector collector;
    const Descriptors before = openDescriptors(getpid());
    gs_oFaults.pipe2 = EMFILE;
    ScriptLauncher launcher("true");
    EXPECT_FALSE(launcher.start());
    EXPECT_EQ(collector.lines(), Lines{"ERROR failed to create script launcher pipe: Too many open files"});
    EXPECT_FALSE(launcher.hasProcess());
    EXPECT_FALSE(hasChildren());
    EXPECT_EQ(openDescriptors(getpid()), before);
    launcher.stop();
}

TEST_F(ScriptLauncherTest, FailedForkIsReportedAndLeavesNothingOpen) {
    RecordCollector collector;
    const Descriptors before = openDescriptors(getpid());
    gs_oFaults.fork = EAGAIN;
    ScriptLauncher launcher("true");
    EXPECT_FALSE(launcher.start());
    EXPECT_EQ(collector.lines(), Lines{"ERROR failed to fork script launcher: Resource temporarily unavailable"});
    EXPECT_FALSE(launcher.hasProcess());
    EXPECT_EQ(openDescriptors(getpid()), before);
    EXPECT_TRUE(launcher.launch());
    launcher.stop();
    EXPECT_EQ(collector.lines().size(), 1U);
}

TEST_F(ScriptLauncherTest, CommandKeepsTheStandardDescriptorsWhereThereIsNoNullDevice) {
    m_oFolder.write("in", "read\n");
    const int input = open((m_oFolder / "in").c_str(), O_RDONLY | O_CLOEXEC);
    const int saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    ASSERT_EQ(dup2(input, STDIN_FILENO), STDIN_FILENO);
    gs_oFaults.openNull = EMFILE;
    ScriptLauncher launcher("cat >> " + (m_oFolder / "out") + "; readlink /proc/$PPID/fd/1 >> " + (m_oFolder / "out"));
    ASSERT_TRUE(launcher.start());
    EXPECT_TRUE(launcher.launch());
    launcher.stop();
    dup2(saved, STDIN_FILENO);
    close(saved);
    close(input);
    EXPECT_THAT(linesOf(), ElementsAre("read", openDescriptors(getpid())[STDOUT_FILENO]));
}

TEST_F(ScriptLauncherTest, FailedProcessNameIsReportedAndTheLauncherGoesOn) {
    recordToFile();
    gs_oFaults.prctl = EFAULT;
    ScriptLauncher launcher(append("run"));
    ASSERT_TRUE(launcher.start());
    EXPECT_TRUE(launcher.launch());
    launcher.stop();
    EXPECT_EQ(records().front(), "orv.featurewatch ERROR failed to set script launcher process name: Bad address");
    EXPECT_THAT(linesOf(), ElementsAre("run"));
}

}  // namespace
