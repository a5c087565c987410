// jose_fixture.h: keys and signatures made by the openssl command, the DER form of ECDSA signatures, and how failures
// read.
#pragma once

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/wait.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "jose/jwa.h"
#include "runtime/orv_error.h"
#include "unit/record_collector.h"

using Bytes = std::vector<unsigned char>;

inline Bytes asBytes(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

inline std::string asText(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

struct PkeyDeleter {
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
};
using PkeyHolder = std::unique_ptr<EVP_PKEY, PkeyDeleter>;

// newReference returns one more reference to what a key holds, for the caller to pass on.
inline EVP_PKEY* newReference(const jwa::Key& key) {
    if (key.pkey())
        EVP_PKEY_up_ref(key.pkey());
    return key.pkey();
}

// --- Algorithms ---

inline constexpr jwa::Algo HMAC_ALGOS[] = {jwa::HS256, jwa::HS384, jwa::HS512};
inline constexpr jwa::Algo EC_ALGOS[] = {jwa::ES256, jwa::ES384, jwa::ES512};
inline constexpr jwa::Algo RSA_ALGOS[] = {jwa::RS256, jwa::RS384, jwa::RS512};

inline bool isHMAC(jwa::Algo algo) {
    return algo >= jwa::HS256 && algo <= jwa::HS512;
}

inline bool isEC(jwa::Algo algo) {
    return algo >= jwa::ES256 && algo <= jwa::ES512;
}

// digestName returns the digest of an algorithm as the openssl command calls it.
inline std::string digestName(jwa::Algo algo) {
    return std::string("sha") + (jwa::name(algo) + 2);
}

// --- Failures ---

inline const std::string NO_FAILURE = "no failure";

// failureOf calls `call` and returns the code and the text of the ORVError that it throws, as "CODE TEXT".
template <class Call>
std::string failureOf(Call call) {
    try {
        call();
    } catch (const ORVError& error) {
        return std::to_string(static_cast<int>(error.getCode())) + " " + error.what();
    }
    return NO_FAILURE;
}

// failureText returns what `failureOf` returns for a code and a detail.
inline std::string failureText(ORVError::Errors code, const std::string& detail) {
    return std::to_string(static_cast<int>(code)) + " " + ORVError::toString(code, detail);
}

// opensslText returns OpenSSL's wording of an error; of 0 when a call failed without leaving an error.
inline std::string opensslText(unsigned long error) {
    char text[256] = {};
    ERR_error_string_n(error, text, sizeof text);
    return text;
}

// opensslFailure does what fails in OpenSSL and returns the error that ours must throw for it: the call's name and
// OpenSSL's first error.
template <class Call>
std::string opensslFailure(ORVError::Errors code, const std::string& name, Call call) {
    ERR_clear_error();
    call();
    const std::string text = opensslText(ERR_get_error());
    ERR_clear_error();
    return failureText(code, name + ": " + text);
}

// polluteErrorQueue leaves an error of no concern in OpenSSL's queue.
inline void polluteErrorQueue() {
    ERR_raise(ERR_LIB_RAND, 105);
}

// --- The openssl command ---

struct ToolResult {
    int status;
    std::string output;  // of both streams
};

inline ToolResult runTool(const std::string& command) {
    FILE* const pipe = popen(("{ " + command + "; } 2>&1 </dev/null").c_str(), "r");
    if (!pipe)
        throw std::runtime_error("popen");
    std::string output;
    for (int byte = fgetc(pipe); byte != EOF; byte = fgetc(pipe))
        output.push_back(static_cast<char>(byte));
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, std::move(output)};
}

// Jose makes keys and files by the openssl command, in a folder of its own.
class Jose : public testing::Test {
protected:
    void SetUp() override {
        if (runTool("openssl version").status != 0)
            GTEST_SKIP() << "needs the openssl command";
    }

    // openssl runs the command with `arguments`, which must succeed.
    std::string openssl(const std::string& arguments) const {
        const ToolResult result = runTool("cd '" + m_oFolder.path() + "' && openssl " + arguments);
        if (result.status != 0)
            throw std::runtime_error("openssl " + arguments + ": " + result.output);
        return result.output;
    }

    // privatePEM makes a private key of a kind once and returns the path of its file.
    std::string privatePEM(const std::string& kind) const {
        const std::string name = kind + ".pem";
        if (TempFolder::contentOf(m_oFolder / name).empty())
            openssl("genpkey " + genpkeyArguments(kind) + " -out " + name);
        return m_oFolder / name;
    }

    std::string publicPEM(const std::string& kind) const {
        privatePEM(kind);
        openssl("pkey -in " + kind + ".pem -pubout -out " + kind + ".pub");
        return m_oFolder / (kind + ".pub");
    }

    // converted returns the bytes that `openssl COMMAND -in KEY -out FILE` leaves.
    std::string converted(const std::string& command, const std::string& kind) const {
        privatePEM(kind);
        openssl(command + " -in " + kind + ".pem -out converted");
        return content("converted");
    }

    // privateKey and publicKey return a key without any test.
    jwa::Key privateKey(jwa::Algo algo, const std::string& kind) const {
        jwa::Key key;
        key.loadPrivateKey(jwa::None, privatePEM(kind));
        return withAlgo(algo, key);
    }
    jwa::Key publicKey(jwa::Algo algo, const std::string& kind) const {
        jwa::Key key;
        key.loadPublicKey(jwa::None, publicPEM(kind));
        return withAlgo(algo, key);
    }

    static jwa::Key hmacKey(jwa::Algo algo, const std::string& secret) {
        jwa::Key key;
        key.setHMAC(algo, reinterpret_cast<const unsigned char*>(secret.data()), secret.size());
        return jwa::Key(std::as_const(key));  // a copy: keys must not be moved
    }

    static jwa::Key withAlgo(jwa::Algo algo, const jwa::Key& key) {
        jwa::Key result;
        result.set(algo, newReference(key));
        return jwa::Key(std::as_const(result));
    }

    // kindOf returns the kind of key that an algorithm of EC or RSA takes.
    static std::string kindOf(jwa::Algo algo) {
        switch (algo) {
        case jwa::ES256:
            return "P-256";
        case jwa::ES384:
            return "P-384";
        case jwa::ES512:
            return "P-521";
        default:
            return "RSA-2048";
        }
    }

    std::string write(const std::string& name, const std::string& bytes) const { return m_oFolder.write(name, bytes); }
    std::string content(const std::string& name) const { return TempFolder::contentOf(m_oFolder / name); }
    std::string path(const std::string& name) const { return m_oFolder / name; }

private:
    static std::string genpkeyArguments(const std::string& kind) {
        if (kind == "RSA-PSS")
            return "-algorithm RSA-PSS -pkeyopt rsa_keygen_bits:2048";
        if (kind.starts_with("RSA-"))
            return "-algorithm RSA -pkeyopt rsa_keygen_bits:" + kind.substr(4);
        if (kind.starts_with("P-") || kind == "secp256k1")
            return "-algorithm EC -pkeyopt ec_paramgen_curve:" + kind;
        return "-algorithm " + kind;
    }

    TempFolder m_oFolder;
};

// --- ECDSA signatures: r and s side by side, and the DER form of RFC 3279, section 2.2.3 ---

// derInteger returns an unsigned number as DER, with the fewest bytes.
inline Bytes derInteger(Bytes number) {
    while (number.size() > 1 && number[0] == 0)
        number.erase(number.begin());
    if (number[0] >= 0x80)
        number.insert(number.begin(), 0);
    number.insert(number.begin(), {0x02, static_cast<unsigned char>(number.size())});
    return number;
}

inline Bytes derOfRaw(const Bytes& raw) {
    const auto middle = raw.begin() + static_cast<std::ptrdiff_t>(raw.size() / 2);
    Bytes body = derInteger(Bytes(raw.begin(), middle));
    const Bytes second = derInteger(Bytes(middle, raw.end()));
    body.insert(body.end(), second.begin(), second.end());
    const auto size = static_cast<unsigned char>(body.size());
    body.insert(body.begin(), size);
    if (size >= 0x80)
        body.insert(body.begin(), 0x81);
    body.insert(body.begin(), 0x30);
    return body;
}

// rawOfDER takes r and s of a well-formed signature, each padded to `half` bytes.
inline Bytes rawOfDER(const Bytes& der, size_t half) {
    Bytes raw;
    size_t at = der.at(1) == 0x81 ? 3 : 2;
    for (int part = 0; part < 2; part++) {
        size_t size = der.at(at + 1);
        at += 2;
        for (; size > half; size--, at++) {
            if (der.at(at) != 0)
                throw std::runtime_error("number too large");
        }
        raw.insert(raw.end(), half - size, 0);
        for (; size > 0; size--)
            raw.push_back(der.at(at++));
    }
    return raw;
}
