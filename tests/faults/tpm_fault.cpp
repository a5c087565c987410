// tpm_fault.cpp: a connection to the software TPM that fails on demand and keeps a log.
//
// Built as libtss2-tcti-default.so: the TSS library loads that name first, so that with the library's folder in
// LD_LIBRARY_PATH any program that uses the default connection takes this one. It passes on to the swtpm TCTI with
// its own default, 127.0.0.1:2321.
//
//   TPM_FAULT_PLAN=FILE  what to do to which command, one rule a line; the first rule that fits a command is taken
//   TPM_FAULT_LOG=FILE   one line for each command is added to it
//
// A rule is WHICH ACTION [ARGUMENT]. WHICH is [CODE][#FIRST[-[LAST]]]:
//
//   #7         the seventh command of the connection (they count from 1)
//   #7-        the seventh and all that follow
//   0x14d      each command with this code
//   0x14d#2    the second of these
//   0x14d#1-9  the first nine of these
//
// Without forwarding the command:
//   fail RC           answers with an error response of ten bytes that has this response code
//   answer HEX        answers with these bytes; "answer" alone with none
//   lose              the connection breaks: this and every later command fail in the TCTI
//   lose-once         the same for this command only
//   kill-before       the process gets SIGKILL
// After forwarding it:
//   cut N             the first N bytes of the response arrive
//   shorten N         the same, with the size field saying N
//   flip OFFSET HEX   these bits of the response, from OFFSET on, are turned over, as far as it reaches
//   lose-answer       the connection breaks before the response arrives
//   lose-answer-once  the same for this response only
//   kill-after        the process gets SIGKILL when the response is there
// Before forwarding it:
//   run COMMAND       runs a shell command with the ordinary TPM connection; it must succeed
//
// A log line has these fields, with "-" for what there is not: number of the command, its code, the response code that
// the caller gets (that of the TCTI if it fails), microseconds that the TPM took, size of the response that the caller
// gets, action taken, the whole command in hexadecimal digits. It is written in one piece and at once, so a killed
// process leaves whole lines.
//
// A mistake in the plan or a command of `run` that fails ends the process with status 125 and a line on standard error:
// no test may pass because its fault did not happen.

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <tss2/tss2_tcti_swtpm.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr size_t MAX_RESPONSE = 4096;

// Rule is one line of the plan. `code` 0 fits any command.
struct Rule {
    uint32_t code = 0;
    unsigned first = 1;
    unsigned last = UINT_MAX;
    std::string action;
    std::string argument;
};

// Connection is what we keep for one TCTI context.
struct Connection {
    std::vector<Rule> plan;
    int log = -1;
    bool lost = false;
    unsigned number = 0;
    std::map<uint32_t, unsigned> seen;  // how often each command code came

    // The command at work.
    Bytes command;
    const Rule* rule = nullptr;
    Clock::time_point start;
    bool answered = false;  // `response` is complete; set before anybody asks for it if it isn't the TPM's
    Bytes response;
};

// Context lies in the caller's memory, followed by the swtpm connection.
struct Context {
    TSS2_TCTI_CONTEXT_COMMON_V2 common;
    Connection* connection;
    alignas(std::max_align_t) uint8_t inner[1];
};

Connection& connectionOf(TSS2_TCTI_CONTEXT* context) {
    return *reinterpret_cast<Context*>(context)->connection;
}

TSS2_TCTI_CONTEXT* innerOf(TSS2_TCTI_CONTEXT* context) {
    return reinterpret_cast<TSS2_TCTI_CONTEXT*>(reinterpret_cast<Context*>(context)->inner);
}

[[noreturn]] void giveUp(const std::string& what) {
    fprintf(stderr, "tpm_fault: %s\n", what.c_str());
    _exit(125);
}

// --- bytes -----------------------------------------------------------------------------------------------------------

uint32_t load32(const Bytes& bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t i = offset; i < offset + 4; ++i)
        value = value << 8 | (i < bytes.size() ? bytes[i] : 0U);
    return value;
}

void store32(Bytes& bytes, size_t offset, uint32_t value) {
    for (size_t i = 0; i < 4 && offset + i < bytes.size(); ++i)
        bytes[offset + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

Bytes fromHex(const std::string& text) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::string toHex(const Bytes& bytes) {
    std::string text;
    for (const uint8_t byte : bytes)
        for (const int shift : {4, 0})
            text += "0123456789abcdef"[byte >> shift & 15];
    return text;
}

unsigned long toNumber(const std::string& text) {
    return std::stoul(text, nullptr, 0);
}

// --- plan ------------------------------------------------------------------------------------------------------------

const char* const ACTIONS[] = {"fail", "answer",  "lose", "lose-once",   "kill-before",      "run",
                               "cut",  "shorten", "flip", "lose-answer", "lose-answer-once", "kill-after"};

// parseWhich reads [CODE][#FIRST[-[LAST]]].
void parseWhich(const std::string& text, Rule& rule) {
    const size_t hash = std::min(text.find('#'), text.size());
    if (hash > 0)
        rule.code = static_cast<uint32_t>(toNumber(text.substr(0, hash)));
    if (hash == text.size())
        return;
    const std::string range = text.substr(hash + 1);
    const size_t dash = std::min(range.find('-'), range.size());
    rule.first = static_cast<unsigned>(toNumber(range.substr(0, dash)));
    if (dash == range.size())
        rule.last = rule.first;
    else if (dash + 1 < range.size())
        rule.last = static_cast<unsigned>(toNumber(range.substr(dash + 1)));
}

Rule parseRule(const std::string& line) {
    Rule rule;
    std::istringstream words(line);
    std::string which;
    words >> which >> rule.action;
    std::getline(words >> std::ws, rule.argument);
    try {
        parseWhich(which, rule);
    } catch (const std::exception&) {
        giveUp("not a rule: " + line);
    }
    if (std::find(std::begin(ACTIONS), std::end(ACTIONS), rule.action) == std::end(ACTIONS))
        giveUp("not an action: " + line);
    return rule;
}

std::vector<Rule> readPlan(const char* path) {
    std::vector<Rule> plan;
    std::ifstream file(path);
    if (!file)
        giveUp(std::string("cannot open the plan ") + path);
    for (std::string line; std::getline(file, line);)
        plan.push_back(parseRule(line));
    return plan;
}

const Rule* findRule(const Connection& connection, uint32_t code) {
    for (const Rule& rule : connection.plan) {
        const unsigned count = rule.code != 0 ? connection.seen.at(code) : connection.number;
        if ((rule.code == 0 || rule.code == code) && rule.first <= count && count <= rule.last)
            return &rule;
    }
    return nullptr;
}

// --- log -------------------------------------------------------------------------------------------------------------

// writeLog logs the end of the current command. `tctiCode` is 0 when a response is handed over.
void writeLog(const Connection& connection, Clock::duration tpmTime, TSS2_RC tctiCode, bool ended = true) {
    if (connection.log < 0)
        return;
    std::ostringstream line;
    line << connection.number << std::hex << " 0x" << load32(connection.command, 6);
    if (!ended || (tctiCode == 0 && connection.response.size() < 10))
        line << " -";
    else
        line << " 0x" << (tctiCode != 0 ? tctiCode : load32(connection.response, 6));
    line << std::dec << ' ' << std::chrono::duration_cast<std::chrono::microseconds>(tpmTime).count() << ' ';
    if (!ended || tctiCode != 0)
        line << '-';
    else
        line << connection.response.size();
    line << ' ' << (connection.rule ? connection.rule->action : "-") << ' ' << toHex(connection.command) << '\n';
    const std::string text = line.str();
    if (write(connection.log, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        giveUp("cannot write the log");
}

// --- faults ----------------------------------------------------------------------------------------------------------

[[noreturn]] void die() {
    kill(getpid(), SIGKILL);
    for (;;)
        pause();
}

TSS2_RC lose(Connection& connection, bool forEver, Clock::duration tpmTime = {}) {
    connection.lost = connection.lost || forEver;
    writeLog(connection, tpmTime, TSS2_TCTI_RC_IO_ERROR);
    return TSS2_TCTI_RC_IO_ERROR;
}

// answer sets the response without asking the TPM.
void answer(Connection& connection, Bytes response) {
    connection.response = std::move(response);
    connection.answered = true;
    writeLog(connection, {}, 0);
}

Bytes errorResponse(uint32_t code) {
    Bytes response = {0x80, 0x01, 0, 0, 0, 10, 0, 0, 0, 0};
    store32(response, 6, code);
    return response;
}

void runCommand(const std::string& command) {
    const std::string ordinary = "unset LD_LIBRARY_PATH LD_PRELOAD TPM_FAULT_PLAN TPM_FAULT_LOG\n";
    if (system((ordinary + command).c_str()) != 0)
        giveUp("failed: " + command);
}

// alter does to a response of the TPM what the rule says.
void alter(const Rule& rule, Bytes& response) {
    std::istringstream words(rule.argument);
    std::string position;
    std::string bytes;
    words >> position >> bytes;
    if (rule.action == "cut" || rule.action == "shorten")
        response.resize(std::min<size_t>(response.size(), toNumber(position)));
    if (rule.action == "shorten")
        store32(response, 2, static_cast<uint32_t>(response.size()));
    if (rule.action == "flip") {
        size_t offset = toNumber(position);
        for (const uint8_t byte : fromHex(bytes))
            if (offset < response.size())
                response[offset++] ^= byte;
    }
}

// --- the TCTI --------------------------------------------------------------------------------------------------------

void beginCommand(Connection& connection, size_t size, const uint8_t* command) {
    connection.command.assign(command, command + size);
    connection.answered = false;
    connection.response.clear();
    ++connection.number;
    const uint32_t code = load32(connection.command, 6);
    ++connection.seen[code];
    connection.rule = findRule(connection, code);
}

TSS2_RC forward(TSS2_TCTI_CONTEXT* context) {
    Connection& connection = connectionOf(context);
    connection.start = Clock::now();
    const TSS2_RC code = Tss2_Tcti_Transmit(innerOf(context), connection.command.size(), connection.command.data());
    if (code != TSS2_RC_SUCCESS)
        writeLog(connection, Clock::now() - connection.start, code);
    return code;
}

TSS2_RC transmit(TSS2_TCTI_CONTEXT* context, size_t size, const uint8_t* command) {
    Connection& connection = connectionOf(context);
    beginCommand(connection, size, command);
    const std::string action = connection.rule ? connection.rule->action : "";
    if (connection.lost || action == "lose" || action == "lose-once")
        return lose(connection, action == "lose");
    if (action == "kill-before") {
        writeLog(connection, {}, 0, false);
        die();
    }
    if (action == "fail")
        answer(connection, errorResponse(static_cast<uint32_t>(toNumber(connection.rule->argument))));
    if (action == "answer")
        answer(connection, fromHex(connection.rule->argument));
    if (action == "run")
        runCommand(connection.rule->argument);
    return connection.answered ? TSS2_RC_SUCCESS : forward(context);
}

// fetch gets the response from the TPM.
TSS2_RC fetch(TSS2_TCTI_CONTEXT* context, int32_t timeout) {
    Connection& connection = connectionOf(context);
    size_t size = MAX_RESPONSE;
    connection.response.resize(size);
    const TSS2_RC code = Tss2_Tcti_Receive(innerOf(context), &size, connection.response.data(), timeout);
    if (code == TSS2_TCTI_RC_TRY_AGAIN)
        return code;
    const Clock::duration tpmTime = Clock::now() - connection.start;
    connection.response.resize(code == TSS2_RC_SUCCESS ? size : 0);
    const std::string action = connection.rule ? connection.rule->action : "";
    if (action == "lose-answer" || action == "lose-answer-once")
        return lose(connection, action == "lose-answer", tpmTime);
    if (connection.rule)
        alter(*connection.rule, connection.response);
    writeLog(connection, tpmTime, code);
    if (action == "kill-after")
        die();
    connection.answered = code == TSS2_RC_SUCCESS;
    return code;
}

// receive with a null `response` asks for the size only.
TSS2_RC receive(TSS2_TCTI_CONTEXT* context, size_t* size, uint8_t* response, int32_t timeout) {
    Connection& connection = connectionOf(context);
    if (!connection.answered) {
        const TSS2_RC code = fetch(context, timeout);
        if (code != TSS2_RC_SUCCESS)
            return code;
    }
    const size_t room = std::exchange(*size, connection.response.size());
    if (!response)
        return TSS2_RC_SUCCESS;
    if (room < connection.response.size())
        return TSS2_TCTI_RC_INSUFFICIENT_BUFFER;
    std::copy(connection.response.begin(), connection.response.end(), response);
    return TSS2_RC_SUCCESS;
}

void finalize(TSS2_TCTI_CONTEXT* context) {
    Tss2_Tcti_Finalize(innerOf(context));
    if (connectionOf(context).log >= 0)
        close(connectionOf(context).log);
    delete &connectionOf(context);
}

TSS2_RC cancel(TSS2_TCTI_CONTEXT* context) {
    return Tss2_Tcti_Cancel(innerOf(context));
}

TSS2_RC getPollHandles(TSS2_TCTI_CONTEXT* context, TSS2_TCTI_POLL_HANDLE* handles, size_t* count) {
    return Tss2_Tcti_GetPollHandles(innerOf(context), handles, count);
}

TSS2_RC setLocality(TSS2_TCTI_CONTEXT* context, uint8_t locality) {
    return Tss2_Tcti_SetLocality(innerOf(context), locality);
}

TSS2_RC makeSticky(TSS2_TCTI_CONTEXT* context, TPM2_HANDLE* handle, uint8_t sticky) {
    return Tss2_Tcti_MakeSticky(innerOf(context), handle, sticky);
}

Connection* makeConnection() {
    auto* connection = new Connection;
    if (const char* plan = getenv("TPM_FAULT_PLAN"))
        connection->plan = readPlan(plan);
    if (const char* log = getenv("TPM_FAULT_LOG")) {
        connection->log = open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (connection->log < 0)
            giveUp(std::string("cannot open the log ") + log);
    }
    return connection;
}

// init with a null `context` asks for the size only.
TSS2_RC init(TSS2_TCTI_CONTEXT* context, size_t* size, const char*) {
    if (!context) {
        const TSS2_RC code = Tss2_Tcti_Swtpm_Init(nullptr, size, nullptr);
        *size += sizeof(Context);
        return code;
    }
    size_t innerSize = *size - sizeof(Context);
    const TSS2_RC code = Tss2_Tcti_Swtpm_Init(innerOf(context), &innerSize, nullptr);
    if (code != TSS2_RC_SUCCESS)
        return code;
    auto* outer = reinterpret_cast<Context*>(context);
    outer->common = {{0x6661756c74ULL, 2, transmit, receive, finalize, cancel, getPollHandles, setLocality},
                     makeSticky};
    outer->connection = makeConnection();
    return TSS2_RC_SUCCESS;
}

}  // namespace

extern "C" const TSS2_TCTI_INFO* Tss2_Tcti_Info() {
    static const TSS2_TCTI_INFO info = {2, "tpm_fault", "swtpm with faults on demand", "", init};
    return &info;
}
