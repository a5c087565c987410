// tpm_fixture.h: a fresh software TPM for each test, and the TPM's own tools to prepare it and to look into it.
//
// The tests run in the sandbox: the software TPM takes the port where the TSS library looks when nothing else is there,
// and a TPM of the machine must be out of reach.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_rc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "foundation/strfmt.h"
#include "tpm/tpm2_attestor.h"
#include "unit/own_process.h"
#include "unit/record_collector.h"
#include "unit/tpm/fault_injector.h"

using Bytes = TPM2Attestor::Bytes;

constexpr uint32_t INJECTED = FaultInjector::INJECTED;

inline std::string hex(const Bytes& bytes) {
    return hex(bytes.data(), bytes.size());
}

inline Bytes fromHex(const std::string& digits) {
    Bytes result;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        result.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return result;
}

inline std::string asText(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

inline Bytes asBytes(const std::string& text) {
    return {text.begin(), text.end()};
}

// failedWith returns a record's text for a failed call of the TSS library.
inline std::string failedWith(const std::string& text, uint32_t code = INJECTED) {
    return text + strfmt(": %s (0x%x)", Tss2_RC_Decode(code), code);
}

// ToolResult is what a command printed, on both outputs, and its exit status.
struct ToolResult {
    std::string output;
    int status;
};

inline ToolResult runTool(const std::string& command) {
    ToolResult result{"", -1};
    FILE* const pipe = popen(("{ " + command + "; } 2>&1").c_str(), "r");
    if (!pipe) {
        throw std::system_error(errno, std::generic_category(), "popen");
    }
    for (int byte = fgetc(pipe); byte != EOF; byte = fgetc(pipe)) {
        result.output.push_back(static_cast<char>(byte));
    }
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

// tool runs a command that has to succeed, and returns what it printed.
inline std::string tool(const std::string& command) {
    const ToolResult result = runTool(command);
    EXPECT_EQ(result.status, 0) << command << "\n" << result.output;
    return result.output;
}

// SoftwareTPM is a new TPM from construction to end.
class SoftwareTPM {
public:
    SoftwareTPM() {
        if (!std::filesystem::exists("/run/sandbox/cpuinfo") || std::filesystem::exists("/dev/tpm0") ||
            std::filesystem::exists("/dev/tpmrm0")) {
            throw std::runtime_error("these tests run in the sandbox only");
        }
        setenv("TPM2TOOLS_TCTI", "swtpm:host=127.0.0.1,port=2321", 1);
        start();
    }
    SoftwareTPM(const SoftwareTPM&) = delete;
    SoftwareTPM& operator=(const SoftwareTPM&) = delete;
    ~SoftwareTPM() { stop(); }

    // stop ends it and returns when it is gone, and the port free.
    void stop() {
        const std::string pid = TempFolder::contentOf(pidFile());
        if (pid.empty()) {
            return;
        }
        sendSignal(std::stoi(pid), SIGTERM);
        waitForEnd(std::stoi(pid));
    }

private:
    std::string pidFile() const { return m_oState / "pid"; }

    void start() const {
        const std::string command =
            "swtpm socket --tpm2 --tpmstate dir=" + m_oState.path() +
            " --server type=tcp,port=2321,bindaddr=127.0.0.1 --ctrl type=tcp,port=2322,bindaddr=127.0.0.1"
            " --flags not-need-init,startup-clear --pid file=" +
            pidFile() + " --daemon";
        if (const ToolResult result = runTool(command); result.status != 0) {
            throw std::runtime_error("cannot start swtpm: " + result.output);
        }
    }

    // waitForEnd: the TPM takes its pid file away as the last thing it does.
    void waitForEnd(int pid) const {
        constexpr int LIMIT_MS = 10000;
        for (int waited = 0; sendSignal(pid, 0) == 0 && waited < LIMIT_MS; ++waited) {
            poll(nullptr, 0, 1);
        }
        EXPECT_NE(sendSignal(pid, 0), 0) << "swtpm does not end";
    }

    TempFolder m_oState;
};

// StderrText takes what goes to standard error from its construction on.
class StderrText {
public:
    StderrText() { testing::internal::CaptureStderr(); }
    StderrText(const StderrText&) = delete;
    StderrText& operator=(const StderrText&) = delete;
    ~StderrText() {
        if (m_bTaking) {
            fputs(take().c_str(), stderr);
        }
    }

    std::string take() {
        m_bTaking = false;
        return testing::internal::GetCapturedStderr();
    }

private:
    bool m_bTaking = true;
};

// FaultsOff leaves no fault to those who come after it.
struct FaultsOff {
    FaultsOff() { g_oFaults.reset(); }
    FaultsOff(const FaultsOff&) = delete;
    FaultsOff& operator=(const FaultsOff&) = delete;
    ~FaultsOff() { g_oFaults.reset(); }
};

// FreshTPM is a new TPM and an instance that uses it.
class FreshTPM {
public:
    FreshTPM() : m_pAttestor(std::make_unique<TPM2Attestor>()) {}

    TPM2Attestor& attestor() { return *m_pAttestor; }

    // endAttestor ends the instance; the TPM stays.
    void endAttestor() { m_pAttestor.reset(); }

    // renewAttestor is the next run of the program.
    void renewAttestor() { m_pAttestor = std::make_unique<TPM2Attestor>(); }

    void stop() { m_oTPM.stop(); }

private:
    SoftwareTPM m_oTPM;
    std::unique_ptr<TPM2Attestor> m_pAttestor;
};

// TPMTest is the fixture of all tests that need a TPM.
class TPMTest : public testing::Test {
protected:
    TPMTest() { m_oTPM.emplace(); }

    TPM2Attestor& attestor() { return m_oTPM->attestor(); }
    Lines lines() const { return m_oRecords.lines(); }
    void clear() {
        m_oRecords.clear();
        g_oFaults.clearCalls();
    }

    // renewTPM puts a new TPM, with a new instance, in place of the one in use.
    void renewTPM() {
        g_oFaults.reset();
        m_oTPM.reset();
        m_oTPM.emplace();
        clear();
    }

    // open opens the instance; records and calls start afresh.
    void open() {
        ASSERT_TRUE(attestor().open()) << testing::PrintToString(lines());
        clear();
    }

    // openAgain is the next run of the program, on a TPM that holds no transient copy of the EK.
    void openAgain() {
        m_oTPM->endAttestor();
        tool("tpm2_flushcontext -t");
        m_oTPM->renewAttestor();
        open();
    }

    // makeEK has an earlier run make the EK.
    void makeEK() {
        openAgain();
        m_oTPM->endAttestor();
        tool("tpm2_flushcontext -t");
        m_oTPM->renewAttestor();
        clear();
    }

    std::string path(const std::string& name) const { return m_oFolder / name; }
    std::string write(const std::string& name, const Bytes& content) const {
        return m_oFolder.write(name, asText(content));
    }
    Bytes read(const std::string& name) const { return asBytes(TempFolder::contentOf(m_oFolder / name)); }

    static std::string transientObjects() { return tool("tpm2_getcap handles-transient"); }
    static std::string loadedSessions() { return tool("tpm2_getcap handles-loaded-session"); }
    static std::string persistentObjects() { return tool("tpm2_getcap handles-persistent"); }
    static std::string nvIndices() { return tool("tpm2_getcap handles-nv-index"); }

    // expectNothingLeft: neither key nor session occupies the TPM.
    static void expectNothingLeft() {
        EXPECT_EQ(transientObjects(), "");
        EXPECT_EQ(loadedSessions(), "");
    }

    // hasProblem returns whether there is a record at WARN or ERROR.
    bool hasProblem() const {
        for (const Record& record : m_oRecords.records()) {
            if (record.level == "WARN" || record.level == "ERROR") {
                return true;
            }
        }
        return false;
    }

    // problems returns the records at WARN and ERROR.
    Lines problems() const {
        Lines result;
        for (const std::string& line : lines()) {
            if (!line.starts_with("DEBUG ") && !line.starts_with("INFO ")) {
                result.push_back(line);
            }
        }
        return result;
    }

    // secondClient is another program's use of the TPM.
    struct SecondClient {
        SecondClient() {
            const Unseen unseen;
            if (Esys_Initialize(&context, nullptr, nullptr) != TSS2_RC_SUCCESS) {
                throw std::runtime_error("no TPM for the second client");
            }
        }
        SecondClient(const SecondClient&) = delete;
        SecondClient& operator=(const SecondClient&) = delete;
        ~SecondClient() {
            const Unseen unseen;
            Esys_Finalize(&context);
        }
        ESYS_CONTEXT* context = nullptr;
    };

private:
    TempFolder m_oFolder;

protected:
    RecordCollector m_oRecords{"orv.tally"};
    std::optional<FreshTPM> m_oTPM;

private:
    FaultsOff m_oFaultsOff;
};

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
