// A context that is accepted has both areas of the key or none, and the report echoes its text, up to a NUL byte as all
// texts are printed; for any other nothing is printed. The TPM answers as one did to a good context.
#include <fstream>
#include <iterator>
#include <string>

#include "agent/attestation_context.h"
#include "memory_file.h"
#include "replayed_tpm.h"

namespace {

std::string recordedAnswers() {
    std::ifstream file(RECORDED "/answers", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

JSON::root replayedReport(const char* contextFile) {
    static const std::string answers = recordedAnswers();
    replayAnswers(reinterpret_cast<const uint8_t*>(answers.data()), answers.size());
    return printedReport(contextFile);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool recordingFits = replayedReport(RECORDED "/whole.json") != nullptr;
    static const MemoryFile file;
    require(recordingFits);  // else record_tpm_answers.py has to run again
    file.put(std::string(reinterpret_cast<const char*>(data), size));
    const JSON::root report = replayedReport(file.path.c_str());
    AttestationContext context;
    const bool accepted = context.parseFile(file.path);
    require(report == nullptr || accepted);
    require(!accepted || context.akPub.empty() == context.akPriv.empty());
    const std::string* echo = report == nullptr ? nullptr : jsonText(report->get("cbData"));
    require(report == nullptr || (echo == nullptr ? "" : *echo) == context.cbData.c_str());
    return 0;
}
