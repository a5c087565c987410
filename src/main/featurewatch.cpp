// featurewatch: the entry point. Scans the command line and runs exactly one mode: the features document, the device
// report, the watch daemon, or the stop of a running daemon.

#include <glib.h>

#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "agent/daemon_control.h"
#include "agent/device_report.h"
#include "agent/pipe_signal.h"
#include "main/standard_descriptors.h"
#include "tpm/tpm2_attestor.h"
#include "watch/app_logger.h"
#include "watch/clock.h"
#include "watch/program.h"

namespace {

struct CommandLine {
    bool bSilent = false;
    bool bDeviceInfo = false;
    bool bWatch = false;
    bool bKill = false;
    bool bIncrement = false;
    const char* pszAttestationFile = nullptr;

    // firstUnread is the index of the first argument that the scan left unread, or the number of arguments.
    int firstUnread = 1;
};

// printUsage prints on standard output, after an error too. kept: the line of -s promises more than it does, FATAL
// records stay; scripts compare these lines.
void printUsage() {
    std::cout << "featurewatch: tells what this device is and keeps the list of its features\n"
                 "-s: silent mode, do not log anything\n"
                 "-d: print the device information\n"
                 "-A file: use attestation context in file to certify device info\n"
                 "-R: increment the tally counter in the TPM unconditionally, implies -d\n"
                 "-w: watch mode, dump features to watch file then daemonize and keep the information up to date\n"
                 "-o: path to features info file in watch mode, default: "
              << DEFAULT_WATCH_FILE
              << "\n"
                 "-x cmdline: some command line to run when features change in watch mode\n"
                 "-k: kill a running daemon and exit\n"
                 "--no-daemon: do not daemonize\n"
                 "--no-switch-user: run as the current user, do not switch user\n"
                 "-h: Print this page\n"
              << std::flush;
}

// takeFlag stores an option without a value. Returns false if `option` is not one.
bool takeFlag(const char* option, CommandLine& line) {
    const auto is = [option](const char* name) { return strcmp(option, name) == 0; };
    if (is("-s"))
        line.bSilent = true;
    else if (is("-d"))
        line.bDeviceInfo = true;
    else if (is("-R"))
        line.bIncrement = line.bDeviceInfo = true;
    else if (is("-w"))
        line.bWatch = true;
    else if (is("-k"))
        line.bKill = true;
    else if (is("--no-daemon"))
        g_bDaemonize = false;
    else if (is("--no-switch-user"))
        g_bSwitchUser = false;
    else
        return false;
    return true;
}

// takeValue stores an option with a value, whatever the value looks like. Returns false if `option` is not one.
bool takeValue(const char* option, const char* value, CommandLine& line) {
    const auto is = [option](const char* name) { return strcmp(option, name) == 0; };
    if (is("-A"))
        line.pszAttestationFile = value;
    else if (is("-o"))
        g_strWatchFile = value;
    else if (is("-x"))
        g_strScriptCmdline = value;
    else
        return false;
    return true;
}

// scan reads the options up to the first argument without a leading dash; `-h` ends the process at once. It silently
// skips what it does not know, including an option without its value: scripts written for other versions of this
// program must go on working.
CommandLine scan(int argc, char** argv) {
    CommandLine line;
    int i = 1;
    while (i < argc && argv[i][0] == '-') {
        if (strcmp(argv[i], "-h") == 0) {
            printUsage();
            exit(EXIT_SUCCESS);
        } else if (takeFlag(argv[i], line)) {
            i += 1;
        } else if (i + 1 < argc && takeValue(argv[i], argv[i + 1], line)) {
            i += 2;
        } else {
            i += 1;
        }
    }
    line.firstUnread = i;
    return line;
}

// isValidCombination returns whether at most one mode was chosen and each given value belongs to it.
bool isValidCombination(const CommandLine& line) {
    const int modes = int(line.bDeviceInfo) + int(line.bWatch) + int(line.bKill);
    return modes <= 1 && (line.pszAttestationFile == nullptr || line.bDeviceInfo) &&
           !(line.bWatch && g_strWatchFile.empty());
}

// reportDevice outlives its readers: a broken pipe is ignored, because the session of a report that it ended would stay
// in the TPM, which has room for few.
int reportDevice(const CommandLine& line) {
    const IgnoredPipeSignal ignored;
    TPM2Attestor tpm;
    if (line.bIncrement && !(tpm.open() && tpm.incrementCounter())) {
        ORVLOG_FATAL(gs_pAppLogger, "failed incrementing the tally counter");
        return EXIT_FAILURE;
    }
    if (!printDeviceInfo(line.pszAttestationFile, &tpm)) {
        ORVLOG_FATAL(gs_pAppLogger, "failed collecting device information");
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

int printFeatures(int64_t now) {
    for (int inputId = 0; inputId < FeatureProvider::INPUT_COUNT; ++inputId)
        if (!g_oFeatureProvider.inputPath(inputId).empty())
            g_oFeatureProvider.loadInput(inputId);
    g_oFeatureProvider.writeFeatures(now, std::cout);
    if (!std::cout.flush()) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to write the features document: %s", g_strerror(errno));
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

int runMode(const CommandLine& line) {
    if (line.bKill)
        return killDaemon();
    if (line.bWatch)
        return watchFeatures();
    const int64_t now = currentSeconds();
    g_oFeatureProvider.init(now);
    return line.bDeviceInfo ? reportDevice(line) : printFeatures(now);
}

}  // namespace

int main(int argc, char** argv) {
    openStandardDescriptors();
    setlocale(LC_CTYPE, "C.UTF-8");  // records carry UTF-8 in every environment; numbers stay free of any locale
    const CommandLine line = scan(argc, argv);
    orvlog::configureBasic(true, line.bSilent);
    atexit(orvlog::fini);
    if (line.firstUnread < argc) {
        ORVLOG_FATAL(gs_pAppLogger, "Unsupported / incorrect option: %s", argv[line.firstUnread]);
        printUsage();
        return EXIT_FAILURE;
    }
    if (!isValidCombination(line)) {
        ORVLOG_FATAL(gs_pAppLogger, "invalid option combination");
        return EXIT_FAILURE;
    }
    return runMode(line);
}
