#include "tpm/esys_holders.h"

#include <tss2/tss2_esys.h>

#include <cstdio>

namespace {

// reportRelease reports a failed release on standard error, as releases happen in destructors, where no record is made.
bool reportRelease(TSS2_RC rc, const ESYS_CONTEXT* ctx, const char* verb, ESYS_TR handle) {
    if (rc != TSS2_RC_SUCCESS)
        fprintf(stderr, "TPM2 ctx %p failed %s of resource 0x%x: 0x%x\n", static_cast<const void*>(ctx), verb, handle,
                rc);
    return rc == TSS2_RC_SUCCESS;
}

}  // namespace

static_assert(ESysResource::NO_HANDLE == ESYS_TR_NONE);

ESysResource& ESysResource::operator=(ESysResource&& other) noexcept {
    ctx = other.ctx;
    handle = other.release();
    return *this;
}

ESysTransient& ESysTransient::operator=(ESysTransient&& other) noexcept {
    if (this != &other) {
        flush();
        ESysResource::operator=(std::move(other));
    }
    return *this;
}

bool ESysTransient::flush() {
    if (!isHeld())
        return true;
    const ESYS_TR held = release();
    return reportRelease(Esys_FlushContext(ctx, held), ctx, "flush", held);
}

ESysClosable& ESysClosable::operator=(ESysClosable&& other) noexcept {
    if (this != &other) {
        closeHeld();
        ESysResource::operator=(std::move(other));
    }
    return *this;
}

bool ESysClosable::close() {
    const ESYS_TR held = handle;
    const TSS2_RC rc = Esys_TR_Close(ctx, &handle);
    handle = NO_HANDLE;
    return reportRelease(rc, ctx, "close", held);
}

void ESysClosable::closeHeld() {
    if (isHeld())
        close();
}

void ESysFree::operator()(void* output) const noexcept {
    Esys_Free(output);
}
