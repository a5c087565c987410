// Whatever the TPM answers to a report, a certified one, one that answers a challenge, or one after an increment, a
// whole report is printed or nothing. The first byte chooses which of the four.
#include "fuzz.h"
#include "replayed_tpm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    replayAnswers(data + 1, size - 1);
    switch (data[0] % 4) {
    case 0:
        printedReport(nullptr);
        break;
    case 1:
        printedReport(RECORDED "/nonce.json");
        break;
    case 2:
        printedReport(RECORDED "/whole.json");
        break;
    default:
        printedReport(nullptr, true);
    }
    return 0;
}
