"""Keys and grants, good and bad, that every judge of grants must judge alike: `grant show` as the device.

`cases()` yields them. Keys and signatures are made by openssl or by hand, with nothing taken from the tools.
"""

import base64
import hashlib
import itertools
import json
import math
import os
import subprocess
import tempfile
from typing import NamedTuple

DEFAULT_SERIAL = "0000abcd"
FEATURE = "video-wall"
KEY_LIMIT = 1 << 16

# RFC 3526, section 3: a prime of 2048 bits.
MODP_2048 = int(
    "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD129024E088A67CC74020BBEA63B139B22514A08798E3404DD"
    "EF9519B3CD3A431B302B0A6DF25F14374FE1356D6D51C245E485B576625E7EC6F44C42E9A637ED6B0BFF5CB6F406B7ED"
    "EE386BFB5A899FA5AE9F24117C4B1FE649286651ECE45B3DC2007CB8A163BF0598DA48361C55D39A69163FA8FD24CF5F"
    "83655D23DCA3AD961C62F356208552BB9ED529077096966D670C354E4ABC9804F1746C08CA18217C32905E462E36CE3B"
    "E39E772C180E86039B2783A2EC07A28FB5C55DF06F4C52C9DE2BCBF6955817183995497CEA956AE515D2261898FA0510"
    "15728E5A8AACAA68FFFFFFFFFFFFFFFF",
    16,
)
P256_ORDER = 0xFFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551
P256_SPKI_HEAD = bytes.fromhex("301306072A8648CE3D020106082A8648CE3D030107")
RSA_IDENTIFIER = bytes.fromhex("300D06092A864886F70D0101010500")
SHA256_INFO = bytes.fromhex("3031300D060960864801650304020105000420")  # RFC 8017, 9.2


class Case(NamedTuple):
    """A Case is a key file, a grant for the default serial number, and whether a judge must find it good."""

    name: str
    public: bytes
    grant: str
    good: bool


def cases():
    yield from kinds_of_keys()
    yield from keys_made_by_hand()
    yield from forms_of_a_key()
    yield from headers()
    yield from signatures()


# --- the parts of a grant ---------------------------------------------------------------------------------------------


def base64url(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def signed_text(header, note=""):
    payload = {"serial": DEFAULT_SERIAL, "features": [{"name": FEATURE}], "note": note}
    return ".".join(base64url(json.dumps(part).encode()) for part in (header, payload))


def openssl(*arguments, data=b""):
    return subprocess.run(["openssl", *arguments], input=data, check=True, capture_output=True).stdout


class Key:
    """A Key is one that openssl makes. It signs as JWS has it, whatever the curve."""

    def __init__(self, kind, *options, algorithm, digest="-sha256"):
        pairs = [word for option in options for word in ("-pkeyopt", option)]
        self.private = openssl("genpkey", "-algorithm", kind, *pairs)
        self.public = openssl("pkey", "-pubout", data=self.private)
        self.algorithm, self.digest = algorithm, digest

    def signature(self, text):
        with tempfile.NamedTemporaryFile() as file:
            file.write(self.private)
            file.flush()
            signature = openssl("dgst", self.digest, "-sign", file.name, data=text.encode())
        half = {"ES256": 32, "ES384": 48, "ES512": 66}.get(self.algorithm)
        return raw(signature, half) if half else signature

    def grant(self, header=None):
        text = signed_text({"alg": self.algorithm} if header is None else header)
        return f"{text}.{base64url(self.signature(text))}"


def raw(der, half):
    """r and s side by side, from their DER form."""
    at, numbers = 3 if der[1] & 0x80 else 2, []
    for _ in range(2):
        end = at + 2 + der[at + 1]
        numbers.append(int.from_bytes(der[at + 2 : end], "big"))
        at = end
    return b"".join(number.to_bytes(half, "big") for number in numbers)


def elliptic(curve, algorithm="ES256", digest="-sha256", encoding="named_curve"):
    options = f"ec_paramgen_curve:{curve}", f"ec_param_enc:{encoding}"
    return Key("EC", *options, algorithm=algorithm, digest=digest)


def rsa(bits=2048, *options, kind="RSA"):
    return Key(kind, f"rsa_keygen_bits:{bits}", *options, algorithm="RS256")


# --- kinds of keys ----------------------------------------------------------------------------------------------------


def kinds_of_keys():
    yield from (
        Case(f"a key of the kind {name}", key.public, key.grant(), good)
        for name, key, good in (
            ("P-256", elliptic("P-256"), True),
            ("P-384", elliptic("P-384", "ES384", "-sha384"), True),
            ("RSA with 2048 bits", rsa(), True),
            ("RSA with e = 3", rsa(2048, "rsa_keygen_pubexp:3"), True),
            ("secp256k1", elliptic("secp256k1"), False),
            ("brainpoolP256r1", elliptic("brainpoolP256r1"), False),
            ("brainpoolP256t1", elliptic("brainpoolP256t1"), False),
            ("brainpoolP384r1", elliptic("brainpoolP384r1", "ES384", "-sha384"), False),
            ("P-521", elliptic("P-521", "ES512", "-sha512"), False),
            ("P-256 with explicit parameters", elliptic("P-256", encoding="explicit"), False),
            ("P-384 with explicit parameters", elliptic("P-384", "ES384", "-sha384", "explicit"), False),
            ("secp256k1 with explicit parameters", elliptic("secp256k1", encoding="explicit"), False),
            ("RSA with 1024 bits", rsa(1024), False),
            ("RSA with 2040 bits", rsa(2040), False),
            ("RSA with 2056 bits", rsa(2056), False),
            ("RSA with 3072 bits", rsa(3072), False),
            ("RSA for PSS alone, plain signature", pss_key(), False),
        )
    )
    ed25519 = openssl("pkey", "-pubout", data=openssl("genpkey", "-algorithm", "ED25519"))
    yield Case("a key of the kind Ed25519", ed25519, elliptic("P-256").grant(), False)


class PssKey(Key):
    """A PssKey signs with PKCS #1 v1.5 what its own identifier forbids."""

    def signature(self, text):
        plain = openssl("pkey", "-text", "-noout", data=self.private).decode()
        numbers = dict(parsed_numbers(plain))
        return rsa_signature(text, numbers["modulus"], numbers["privateExponent"])


def pss_key():
    return PssKey("RSA-PSS", "rsa_keygen_bits:2048", algorithm="RS256")


def parsed_numbers(text):
    """The numbers that openssl prints in hexadecimal lines, by their names."""
    name, digits = None, ""
    for line in text.splitlines() + ["end:"]:
        if line.startswith(" "):
            digits += line.strip().replace(":", "")
        else:
            if name and digits:
                yield name, int(digits, 16)
            name, digits = line.split(":")[0], ""


# --- RSA keys that openssl does not make ------------------------------------------------------------------------------


def rsa_signature(text, modulus, exponent):
    """EMSA-PKCS1-v1_5 (RFC 8017, 9.2) of the text, raised to the exponent."""
    return pow(encoded_message(text), exponent, modulus).to_bytes(256, "big")


def encoded_message(text):
    content = SHA256_INFO + hashlib.sha256(text.encode()).digest()
    return int.from_bytes(b"\0\1" + b"\xff" * (253 - len(content)) + b"\0" + content, "big")


def der(tag, *parts):
    body = b"".join(parts)
    size = len(body)
    length = bytes([size]) if size < 128 else bytes([0x82]) + size.to_bytes(2, "big")
    return bytes([tag]) + length + body


def integer(value):
    return der(0x02, value.to_bytes(value.bit_length() // 8 + 1, "big"))


def pem(label, data):
    return f"-----BEGIN {label}-----\n".encode() + base64.encodebytes(data) + f"-----END {label}-----\n".encode()


def rsa_public(modulus, exponent):
    return der(0x30, RSA_IDENTIFIER, der(0x03, b"\0", der(0x30, integer(modulus), integer(exponent))))


def prime(bits):
    return int(openssl("prime", "-generate", "-bits", str(bits)))


def primes():
    """Two primes whose product has 2048 bits, both 3 modulo 4 and none 1 modulo 65537."""
    while True:
        p, q = prime(1024), prime(1024)
        if p % 4 == q % 4 == 3 and (p * q).bit_length() == 2048 and p != q:
            return p, q


def keys_made_by_hand():
    p, q = primes()
    small = 3 * prime(2046)  # the two highest bits of such a prime are set, so this has 2048
    text = signed_text({"alg": "RS256"})

    def case(name, modulus, exponent, private, good=False):
        signature = rsa_signature(text, modulus, private)
        public = pem("PUBLIC KEY", rsa_public(modulus, exponent))
        return Case(f"RSA with {name}", public, f"{text}.{base64url(signature)}", good)

    order = (p - 1) * (q - 1)
    yield case("two primes", p * q, 65537, pow(65537, -1, order), True)
    yield case("e = 1, forged", p * q, 1, 1)
    large = next(number for number in itertools.count(2**2040 + 1, 2) if math.gcd(number, order) == 1)
    yield case("e of 2041 bits", p * q, large, pow(large, -1, order), True)
    yield case("a prime modulus", MODP_2048, 65537, pow(65537, -1, MODP_2048 - 1))
    yield case("a square modulus", p * p, 65537, pow(65537, -1, p * (p - 1)))
    yield case("a small factor", small, 65537, pow(65537, -1, 2 * (small // 3 - 1)))
    yield square_root_case(p, q)


def square_root_case(p, q):
    """e = 2: the signature is a square root of the message, which only some messages have."""
    for note in range(1000):
        text = signed_text({"alg": "RS256"}, str(note))
        message = encoded_message(text)
        roots = [pow(message, (factor + 1) // 4, factor) for factor in (p, q)]
        if all(root * root % factor == message % factor for root, factor in zip(roots, (p, q))):
            root = roots[0] + p * ((roots[1] - roots[0]) * pow(p, -1, q) % q)
            signature = (root % (p * q)).to_bytes(256, "big")
            public = pem("PUBLIC KEY", rsa_public(p * q, 2))
            return Case("RSA with e = 2", public, f"{text}.{base64url(signature)}", False)
    raise AssertionError("no message with a square root")


# --- key files --------------------------------------------------------------------------------------------------------


def forms_of_a_key():
    key, other, rsa_key = elliptic("P-256"), elliptic("P-256"), rsa()
    older = openssl("rsa", "-RSAPublicKey_out", data=rsa_key.private)
    yield Case("an RSA key file in the older form", older, rsa_key.grant(), True)
    yield Case("an older RSA key in front of another", older + key.public, rsa_key.grant(), True)
    yield Case("an RSA key without the empty parameters", without_parameters(rsa_key), rsa_key.grant(), True)
    compressed = openssl("pkey", "-pubout", "-ec_conv_form", "compressed", data=key.private)
    data = openssl("pkey", "-pubin", "-outform", "DER", data=key.public)
    begin, *lines, end = key.public.splitlines(keepends=True)
    off_curve = b"\4" + data[-64:-1] + bytes([data[-1] ^ 1])
    grant = key.grant()
    for name, public, good in (
        ("other lines around it", b"# ours\n\n" + key.public + b"bye\n", True),
        ("CR LF line ends", key.public.replace(b"\n", b"\r\n"), True),
        ("blanks at the line ends", key.public.replace(b"\n", b" \n"), True),
        ("all letters on one line", begin + b"".join(lines).replace(b"\n", b"") + b"\n" + end, True),
        ("an empty line in it", begin + b"\n" + b"".join(lines) + end, True),
        ("PEM headers", begin + b"X: y\n\n" + b"".join(lines) + end, True),
        ("a byte order mark", b"\xef\xbb\xbf" + key.public, True),
        ("no line feed at the end", key.public[:-1], True),
        ("bytes after the key's own", pem("PUBLIC KEY", data + b"\0\0"), True),
        ("a compressed point", compressed, True),
        ("another key after it", key.public + other.public, True),
        ("the private key in front", key.private + key.public, True),
        ("another key in front", other.public + key.public, False),
        ("an older RSA key in front", older + key.public, False),
        ("the private key instead", key.private, False),
        ("blanks in front", b"  " + key.public, False),
        ("a letter in front", b"x" + key.public, False),
        ("another label", key.public.replace(b"PUBLIC", b"TRUSTED PUBLIC"), False),
        ("DER", data, False),
        ("nothing", b"", False),
        ("no end", begin + b"".join(lines), False),
        ("a beginning too many", begin + key.public, False),
        ("a letter that is none", begin + b"*" + b"".join(lines) + end, False),
        ("one letter less", key.public.replace(b"M", b"", 1), False),
        ("the point at infinity", pem("PUBLIC KEY", der(0x30, P256_SPKI_HEAD, der(0x03, b"\0\0"))), False),
        ("a point off the curve", pem("PUBLIC KEY", der(0x30, P256_SPKI_HEAD, der(0x03, b"\0" + off_curve))), False),
        ("64 KiB", key.public.ljust(KEY_LIMIT, b"\n"), True),
        ("more than 64 KiB", key.public.ljust(KEY_LIMIT + 1, b"\n"), False),
    ):
        yield Case(f"a key file with {name}", public, grant, good)


def without_parameters(key):
    data = openssl("pkey", "-pubin", "-outform", "DER", data=key.public)
    bits = data[data.index(RSA_IDENTIFIER) + len(RSA_IDENTIFIER) :]
    return pem("PUBLIC KEY", der(0x30, der(0x30, RSA_IDENTIFIER[2:-2]), bits))


# --- headers and signatures -------------------------------------------------------------------------------------------


def headers():
    key = elliptic("P-256")
    for header, good in (
        ({}, True),
        ({"alg": "ES256", "typ": "JWT", "kid": "1"}, True),
        ({"alg": "ES384"}, False),
        ({"alg": "none"}, False),
        ({"alg": "es256"}, False),
        ({"alg": None}, False),
        ({"alg": ["ES256"]}, False),
        ({"alg": "ES256", "crit": ["exp"], "exp": 1}, False),
        ({"alg": "ES256", "crit": ["alg"]}, False),
        ({"alg": "ES256", "crit": []}, False),
        ({"alg": "ES256", "crit": None}, False),
        ({"crit": ["b64"], "b64": True}, False),
        ({"alg": "ES256", "Crit": ["exp"]}, True),
        ({"alg": "ES256", "x": {"crit": ["exp"]}}, True),
    ):
        yield Case(f"the header {json.dumps(header)}", key.public, key.grant(header), good)


def signatures():
    key = elliptic("P-256")
    text = signed_text({"alg": "ES256"})
    good = key.signature(text)
    r, s = int.from_bytes(good[:32], "big"), int.from_bytes(good[32:], "big")

    def pair(first, second):
        return first.to_bytes(32, "big") + second.to_bytes(32, "big")

    for name, signature, is_good in (
        ("r and s", good, True),
        ("its other s", pair(r, P256_ORDER - s), True),
        ("r = 0", pair(0, s), False),
        ("s = 0", pair(r, 0), False),
        ("r = s = 0", bytes(64), False),
        ("r = n", pair(P256_ORDER, s), False),
        ("s = n", pair(r, P256_ORDER), False),
        ("r and s exchanged", pair(s, r), False),
        ("a byte more", good + b"\0", False),
        ("a byte less", good[:-1], False),
        ("a byte more in each", b"\0" + good[:32] + b"\0" + good[32:], False),
        ("DER", der(0x30, integer(r), integer(s)), False),
        ("nothing", b"", False),
        ("noise", os.urandom(64), False),
    ):
        yield Case(f"a signature of {name}", key.public, f"{text}.{base64url(signature)}", is_good)
