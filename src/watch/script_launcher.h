// script_launcher.h: the process that runs the hook command.
#pragma once

#include <array>
#include <string>

// ScriptLauncher runs a command line in a small process of its own, forked before the daemon gives up its rights, so
// that the hook keeps the rights of the user who started the daemon. A packet pipe joins the two and nothing else does:
// the daemon writes one byte for each run and doesn't wait for the command, unless the pipe is full of pending runs.
// Runs follow one another; a byte written during a run waits in the pipe and has a run of its own.
//
// Life cycle: no process, `start`, process, `stop`, no process. The launcher also ends when the daemon dies, because it
// then reads an end of file. It is in a process group of its own, out of reach of a Ctrl-C in the foreground. It leaves
// through `exit`: exit handlers registered before the fork run in it too.
//
// A dead launcher means a broken pipe, and SIGPIPE is left as it is: by default it ends the daemon.
class ScriptLauncher {
public:
    // ScriptLauncher takes the command line for `system`; empty means that there is no hook.
    explicit ScriptLauncher(const std::string& cmdline);
    ScriptLauncher(const ScriptLauncher&) = delete;
    ScriptLauncher& operator=(const ScriptLauncher&) = delete;

    // start makes the pipe and the process. Without a command line it does neither and is a success. A failure is
    // logged, returns false and leaves nothing open. The process must still have one thread only.
    bool start();

    // launch asks for one run. Without a process it does nothing and is a success. It returns false on a failure, which
    // it logs.
    bool launch();

    // stop lets the runs that were asked for finish, ends the process and waits for it as long as that takes. Failures
    // are logged.
    void stop();

    // hasProcess returns whether there is a launcher process.
    bool hasProcess() const { return m_nPid != -1; }

private:
    int main();
    void runCommand();
    void becomeLauncher();
    void closePipe();

    std::string m_strCmdline;
    int m_nReadFd = -1;
    int m_nWriteFd = -1;
    int m_nPid = -1;
    std::array<char, 4096> m_aBuffer{};
};
