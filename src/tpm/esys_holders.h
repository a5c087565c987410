// esys_holders.h: owners of what the TPM software stack (ESYS) hands out: handles, results, and keys and signatures in
// OpenSSL's form.
//
// Nothing here makes a record: releasing happens in destructors, and what fails there is reported on standard error.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "runtime/openssl.h"

struct ESYS_CONTEXT;
using ESYS_TR = uint32_t;

// ESysResource is what the two holders of ESYS handles have in common: the context, not owned, and the handle, which is
// `NO_HANDLE` (the stack's ESYS_TR_NONE) when nothing is held. Moving leaves the source without a handle.
struct ESysResource {
    static constexpr ESYS_TR NO_HANDLE = 0xfff;

    explicit ESysResource(ESYS_CONTEXT* context = nullptr, ESYS_TR held = NO_HANDLE) : ctx(context), handle(held) {}
    ESysResource(ESysResource&& other) noexcept : ctx(other.ctx), handle(std::exchange(other.handle, NO_HANDLE)) {}
    ESysResource& operator=(ESysResource&& other) noexcept;

    // isHeld returns whether there is a handle.
    bool isHeld() const { return handle != NO_HANDLE; }

    // release empties the holder and returns the handle, which is then the caller's.
    ESYS_TR release() { return std::exchange(handle, NO_HANDLE); }

    ESYS_CONTEXT* ctx;
    ESYS_TR handle;
};

// ESysTransient holds a session or a transient object: what occupies memory in the TPM. It flushes what it holds before
// it takes something else over, and at its end.
struct ESysTransient : ESysResource {
    using ESysResource::ESysResource;
    ESysTransient(ESysTransient&&) noexcept = default;
    ESysTransient& operator=(ESysTransient&& other) noexcept;
    ~ESysTransient() { flush(); }

    // flush removes the resource from the TPM and empties the holder, even if the TPM refuses. It returns whether the
    // call succeeded, and true for an empty holder.
    bool flush();
};

// ESysClosable holds the stack's handle of an NV index or a persistent object. The object stays in the TPM.
struct ESysClosable : ESysResource {
    using ESysResource::ESysResource;
    ESysClosable(ESysClosable&&) noexcept = default;
    ESysClosable& operator=(ESysClosable&& other) noexcept;
    ~ESysClosable() { closeHeld(); }

    // close drops the stack's own record of the object and empties the holder; no command goes to the TPM. It returns
    // whether the call succeeded. The holder must not be empty.
    bool close();

    // closeHeld is `close` for a holder that may be empty.
    void closeHeld();
};

// ESysFree releases memory that ESYS allocated.
struct ESysFree {
    void operator()(void* output) const noexcept;
};

// ESysOutUPtr owns a structure that ESYS returned through an output parameter; null when empty.
template <class T>
using ESysOutUPtr = std::unique_ptr<T, ESysFree>;

// EC_KEY_UPtr and ECDSA_SIG_UPtr own the OpenSSL objects of these names; null when empty.
using EC_KEY_Deleter = OpenSSLDeleter;
using ECDSA_SIG_Deleter = OpenSSLDeleter;
using EC_KEY_UPtr = std::unique_ptr<EC_KEY, EC_KEY_Deleter>;
using ECDSA_SIG_UPtr = std::unique_ptr<ECDSA_SIG, ECDSA_SIG_Deleter>;
