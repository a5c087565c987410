// fault_injector.h: lists the library calls that the code under test makes, and lets chosen ones fail.
//
// esys_faults.cpp and openssl_faults.cpp replace the library's functions in the test program; each definition goes
// through `intercept`, which lists the call, asks the injector whether it is to fail, and else passes it on to the
// library. Calls that a library makes while it works on an intercepted call are its own affair: they are passed on
// unseen.
#pragma once

#include <dlfcn.h>
#include <tss2/tss2_esys.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

class FaultInjector {
public:
    // INJECTED is the code of a fault that names none; no command of the tests ends with it by itself.
    static constexpr uint32_t INJECTED = 0x902;

    // LEFT_HANDLE is a handle of ESYS that refers to nothing: its counter begins far below and never gets there.
    static constexpr ESYS_TR LEFT_HANDLE = 0x4fffffff;

    // reset forgets all faults, actions and listed calls.
    void reset() { *this = FaultInjector(); }

    // fail makes the call number `first` of `function`, counted from now, and the `count` - 1 calls after it return
    // `code`; a function that returns a pointer returns null, and one of OpenSSL 0 for `INJECTED`.
    void fail(const std::string& function, uint32_t code = INJECTED, int first = 1, int count = 1) {
        m_aFaults.push_back({function, first, first + count - 1, code, 0});
    }

    // failCall makes the call number `nth` fail, whatever function it is.
    void failCall(int nth) { fail("", INJECTED, nth); }

    // leaveHandles makes each failing call leave `LEFT_HANDLE` in its output for a handle, as the library may when its
    // memory runs out.
    void leaveHandles() { m_bLeavesHandles = true; }
    bool leavesHandles() const { return m_bLeavesHandles; }

    // failed names the function whose call failed last by injection; empty if none did.
    const std::string& failed() const { return m_strFailed; }

    // before has `action` done before each call of `function`.
    void before(const std::string& function, std::function<void()> action) { m_aBefore[function] = std::move(action); }

    // alter has each output that `function` allocated changed before the caller sees it.
    template <class Output>
    void alter(const std::string& function, std::function<void(Output&)> change) {
        m_aAlter[function] = [change](void* output) { change(*static_cast<Output*>(output)); };
    }

    // calls returns all calls made since `reset` or `clearCalls`, each as the function's name and its arguments,
    // without the context. Esys_Free is left out, as it has no meaning for a TPM.
    const std::vector<std::string>& calls() const { return m_aCalls; }

    // calls returns those of one function.
    std::vector<std::string> calls(const std::string& function) const;

    // commands returns those calls that reach the TPM, by their names.
    std::vector<std::string> commands() const;

    // made returns how often `function` was called.
    size_t made(const std::string& function) const { return calls(function).size(); }

    void clearCalls() { m_aCalls.clear(); }

    // --- for `intercept`

    // enter begins a call that the program itself makes.
    void enter(const std::string& call, const std::string& function);

    // fault returns the code with which the call just begun is to fail.
    std::optional<uint32_t> fault(const std::string& function);

    void alterOutput(const std::string& function, void* output) const;

private:
    struct Fault {
        std::string function;
        int first;
        int last;
        uint32_t code;
        int seen;
    };

    std::vector<Fault> m_aFaults;
    std::map<std::string, std::function<void()>> m_aBefore;
    std::map<std::string, std::function<void(void*)>> m_aAlter;
    std::vector<std::string> m_aCalls;
    std::string m_strFailed;
    bool m_bLeavesHandles = false;
};

extern FaultInjector g_oFaults;

// LibraryCall marks that a library works on a call.
class LibraryCall {
public:
    LibraryCall() { ++ms_nDepth; }
    LibraryCall(const LibraryCall&) = delete;
    LibraryCall& operator=(const LibraryCall&) = delete;
    ~LibraryCall() { --ms_nDepth; }

    static bool isUnderWay() { return ms_nDepth > 0; }

private:
    static inline int ms_nDepth = 0;
};

// Unseen has the calls of a test's own preparations passed on without a look.
using Unseen = LibraryCall;

// hex returns bytes as lower case digits.
std::string hex(const unsigned char* bytes, size_t size);

// CallText makes the text of a call's arguments: numbers as 0x..., ESYS handles as the TPM's own handle or the word
// for a fixed one, the inputs that matter by their content, other pointers as "&" or "null", and "stale" for an output
// that was not null before the call.
class CallText {
public:
    explicit CallText(ESYS_CONTEXT* context) : m_pContext(context) {}

    std::string operator()(uint64_t number) const;
    std::string operator()(const TSS2_ABI_VERSION* version) const;
    std::string operator()(const TPMT_SYM_DEF* symmetric) const;
    std::string operator()(const TPMT_SIG_SCHEME* scheme) const;
    std::string operator()(const TPM2B_DATA* data) const;
    std::string operator()(const TPML_PCR_SELECTION* selection) const;
    std::string operator()(const TPM2B_PUBLIC* publicArea) const;
    std::string operator()(const TPM2B_NV_PUBLIC* publicArea) const;
    std::string operator()(const TPM2B_SENSITIVE_CREATE* sensitive) const;

    template <class Output>
    std::string operator()(Output* const* output) const {
        if (!output) {
            return "null";
        }
        return *output ? "stale" : "out";
    }
    std::string operator()(const void* pointer) const { return pointer ? "&" : "null"; }

private:
    ESYS_CONTEXT* m_pContext;
};

// text picks how an argument is shown.
template <class Argument>
std::string argumentText(const CallText& text, Argument argument) {
    if constexpr (std::is_arithmetic_v<Argument> || std::is_enum_v<Argument>) {
        return text(static_cast<uint64_t>(argument));
    } else {
        return text(argument);
    }
}

inline ESYS_CONTEXT* contextAmong() {
    return nullptr;
}
template <class First, class... Rest>
ESYS_CONTEXT* contextAmong(First first, Rest... rest) {
    if constexpr (std::is_same_v<First, ESYS_CONTEXT*>) {
        return first;
    } else {
        return contextAmong(rest...);
    }
}

template <class... Arguments>
std::string callText(const std::string& function, Arguments... arguments) {
    const CallText text(contextAmong(arguments...));
    std::string result = function;
    [[maybe_unused]] const auto add = [&](auto argument) {
        if constexpr (!std::is_same_v<decltype(argument), ESYS_CONTEXT*>) {
            result += ' ' + argumentText(text, argument);
        }
    };
    (add(arguments), ...);
    return result;
}

// allocated calls `use` with what a call gave through `argument`, if that is an output that ESYS allocates.
template <class Argument, class Use>
void allocated(Argument argument, Use use) {
    if constexpr (std::is_pointer_v<Argument>) {
        using Target = std::remove_pointer_t<Argument>;
        if constexpr (std::is_pointer_v<Target> && !std::is_same_v<Target, ESYS_CONTEXT*> &&
                      !std::is_same_v<Target, unsigned char*>) {
            if (argument) {
                use(*argument);
            }
        }
    }
}

// leaveHandle leaves a handle to nothing where a call would return one.
template <class Argument>
void leaveHandle([[maybe_unused]] Argument argument) {
    if constexpr (std::is_same_v<Argument, ESYS_TR*>) {
        *argument = FaultInjector::LEFT_HANDLE;
    }
}

// leaveLitter returns outputs although the call failed, as the library may: the caller has to free those that were
// allocated, and must not use a handle.
template <class... Arguments>
void leaveLitter(Arguments... arguments) {
    [[maybe_unused]] const auto give = [](auto& output) {
        using Structure = std::remove_pointer_t<std::remove_reference_t<decltype(output)>>;
        output = static_cast<Structure*>(calloc(1, sizeof(Structure)));
    };
    (allocated(arguments, give), ...);
    if (g_oFaults.leavesHandles()) {
        (leaveHandle(arguments), ...);
    }
}

// realFunction returns the library's own function.
template <class Function>
Function* realFunction(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// failure turns the code of a fault into what a function returns.
template <class Result>
Result failure(uint32_t code) {
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else if constexpr (std::is_same_v<Result, int>) {
        return code == FaultInjector::INJECTED ? 0 : static_cast<int>(code);
    } else {
        return static_cast<Result>(code);
    }
}

// interceptAs does the call of `function`, which is listed as `call`.
template <class Result, class... Arguments>
Result interceptAs(const std::string& call, const char* name, Result (*)(Arguments...),
                   std::type_identity_t<Arguments>... arguments) {
    auto* const real = realFunction<Result(Arguments...)>(name);
    if (LibraryCall::isUnderWay()) {
        return real(arguments...);
    }
    g_oFaults.enter(call, name);
    const LibraryCall underWay;
    if constexpr (std::is_void_v<Result>) {
        real(arguments...);
    } else {
        if (const std::optional<uint32_t> code = g_oFaults.fault(name)) {
            leaveLitter(arguments...);
            return failure<Result>(*code);
        }
        const Result result = real(arguments...);
        (allocated(arguments, [&](auto* output) { g_oFaults.alterOutput(name, output); }), ...);
        return result;
    }
}

// intercept is `interceptAs` under the text that `callText` makes. `function` serves its type alone.
template <class Result, class... Arguments>
Result intercept(const char* name, Result (*function)(Arguments...), std::type_identity_t<Arguments>... arguments) {
    const std::string call = LibraryCall::isUnderWay() ? std::string() : callText(name, arguments...);
    return interceptAs(call, name, function, arguments...);
}
