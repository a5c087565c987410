"""TPM structures, names and digests (TPM 2.0 Library). docs/attestation.md has the formulas."""

import hashlib
from typing import NamedTuple

from .fault import Fault

# TPM 2.0 Library, Structures: algorithms, a handle, a command, and what a session audit begins with.
ALG_SHA256, ALG_NULL, ALG_ECC = 0x000B, 0x0010, 0x0023
RH_ENDORSEMENT, CC_NV_READ = 0x4000000B, 0x0000014E
GENERATED_IN_TPM, SESSION_AUDIT = 0xFF544347, 0x8016

# The counter's NV index as TPMS_NV_PUBLIC: index, name algorithm, attributes (counter, AUTHWRITE, AUTHREAD, NO_DA,
# WRITTEN), no policy, 8 bytes.
COUNTER_PUBLIC = bytes.fromhex("018C811F 000B 22040014 0000 0008")

EK_TEMPLATE = {  # TCG EK Credential Profile, template L-2
    "name algorithm": ALG_SHA256,
    "attributes": 0x000300B2,  # fixedTPM, fixedParent, sensitiveDataOrigin, adminWithPolicy, restricted, decrypt
    "policy": "837197674484b3f81a90cc8d46a5d724fd52d76e06520b64f2a1da1b331469aa",  # PolicySecret of the hierarchy
    "symmetric": (0x0006, 128, 0x0043),  # AES-128 in CFB mode
    "scheme": (ALG_NULL,),
    "curve": 0x0003,  # NIST P-256
    "KDF": (ALG_NULL,),
}
AK_TEMPLATE = {
    "name algorithm": ALG_SHA256,
    "attributes": 0x00050072,  # fixedTPM, fixedParent, sensitiveDataOrigin, userWithAuth, restricted, sign
    "policy": "",
    "symmetric": (ALG_NULL,),
    "scheme": (0x0018, ALG_SHA256),  # ECDSA
    "curve": 0x0003,
    "KDF": (ALG_NULL,),
}

# NIST P-256 (SEC 2, 2.4.2), and the head of its keys as SubjectPublicKeyInfo (RFC 5480) in front of the coordinates.
P256_PRIME = 2**256 - 2**224 + 2**192 + 2**96 - 1
P256_B = 0x5AC635D8AA3A93E7B3EBBD55769886BC651D06B0CC53B0F63BCE3C3E27D2604B
SPKI_HEAD = bytes.fromhex("3059301306072A8648CE3D020106082A8648CE3D030107034200")
UNCOMPRESSED = b"\4"  # SEC 1, 2.3.3: x and y follow


# --- reading ----------------------------------------------------------------------------------------------------------


class Reader:
    """A Reader takes a structure apart from front to back. Too few bytes are a Fault, as are bytes left at the end."""

    def __init__(self, data, what):
        self.data, self.what, self.at = data, what, 0

    def take(self, count):
        self.at += count
        if self.at > len(self.data):
            raise Fault(f"{self.what} is cut short")
        return self.data[self.at - count : self.at]

    def number(self, size):
        return int.from_bytes(self.take(size), "big")

    def flag(self):
        value = self.number(1)
        if value > 1:
            raise Fault(f"{self.what} has {value} for yes or no")
        return value == 1

    def sized(self):
        return self.take(self.number(2))

    def choice(self, details):
        """An algorithm and, unless it is the null one, its details of two bytes each."""
        algorithm = self.number(2)
        return (algorithm, *(self.number(2) for _ in range(0 if algorithm == ALG_NULL else details)))

    def end(self):
        if self.at != len(self.data):
            raise Fault(f"{self.what} has bytes left over")


def read_sized(data, what):
    """Returns the content of a TPM2B structure that is all of `data`."""
    reader = Reader(data, what)
    content = reader.sized()
    reader.end()
    return content


class PublicArea(NamedTuple):
    """A PublicArea is an ECC key's TPM2B_PUBLIC: whole, its name, its fields without the point, and the point."""

    whole: bytes
    name: bytes
    fields: dict
    x: bytes
    y: bytes

    def point(self):
        return UNCOMPRESSED + self.x + self.y

    def subject_public_key_info(self):
        return SPKI_HEAD + self.point()

    def digest(self):
        return sha256(self.subject_public_key_info()).hex()

    def faults(self, template):
        """Describes where the key differs from the template; empty when it fits."""
        faults = [f"its {field} is {self.fields[field]}" for field in template if self.fields[field] != template[field]]
        if not is_on_curve(int.from_bytes(self.x, "big"), int.from_bytes(self.y, "big")):
            faults.append("its point is not on the curve")
        return ", ".join(faults)


def is_on_curve(x, y):
    return max(x, y) < P256_PRIME and (y**2 - (x**3 - 3 * x + P256_B)) % P256_PRIME == 0


def read_public(data, what):
    reader = Reader(read_sized(data, what), what)
    if reader.number(2) != ALG_ECC:
        raise Fault(f"{what} is no ECC key")
    fields = {
        "name algorithm": reader.number(2),
        "attributes": reader.number(4),
        "policy": reader.sized().hex(),
        "symmetric": reader.choice(2),
        "scheme": reader.choice(1),
        "curve": reader.number(2),
        "KDF": reader.choice(1),
    }
    x, y = reader.sized(), reader.sized()
    reader.end()
    if (len(x), len(y)) != (32, 32):
        raise Fault(f"{what} has coordinates of other than 32 bytes")
    return PublicArea(data, name_of(reader.data), fields, x, y)


class Attestation(NamedTuple):
    """An Attestation is a TPMS_ATTEST. The last two are None unless it is a session audit."""

    data: bytes
    kind: tuple
    qualified_signer: bytes
    extra_data: bytes
    exclusive: bool | None
    session_digest: bytes | None


def read_attestation(data, what):
    reader = Reader(data, what)
    kind = reader.number(4), reader.number(2)
    signer, extra_data = reader.sized(), reader.sized()
    reader.take(8 + 4 + 4)  # clock, resets, restarts
    reader.flag()  # whether the clock is safe
    reader.take(8)  # firmware version
    if kind != (GENERATED_IN_TPM, SESSION_AUDIT):
        return Attestation(data, kind, signer, extra_data, None, None)
    exclusive, digest = reader.flag(), reader.sized()
    reader.end()
    return Attestation(data, kind, signer, extra_data, exclusive, digest)


def der_signature(data, what):
    """Takes the one DER form of a sequence of two positive integers (RFC 3279, 2.2.3) and no other."""
    reader = Reader(data, what)
    if (reader.number(1), reader.number(1)) != (0x30, len(data) - 2):
        raise Fault(f"{what} is no DER sequence")
    for _ in range(2):
        kind, digits = reader.number(1), reader.take(reader.number(1))
        value = int.from_bytes(digits, "big", signed=True)
        if kind != 0x02 or value <= 0 or digits != uint(value, value.bit_length() // 8 + 1):
            raise Fault(f"{what} has something else than two positive DER integers")
    reader.end()
    return data


# --- writing, names and digests ---------------------------------------------------------------------------------------


def sha256(*parts):
    return hashlib.sha256(b"".join(parts)).digest()


def uint(value, size):
    return value.to_bytes(size, "big")


def sized(data):
    return uint(len(data), 2) + data


def name_of(public):
    return uint(ALG_SHA256, 2) + sha256(public)


def qualified_name(ek, ak):
    """The AK's place in its TPM: the chain of names from the endorsement hierarchy through the EK."""
    return name_of(name_of(uint(RH_ENDORSEMENT, 4) + ek.name) + ak.name)


COUNTER_NAME = name_of(COUNTER_PUBLIC)
READ_PARAMETERS = uint(8, 2) + uint(0, 2)  # size, offset
CP_HASH = sha256(uint(CC_NV_READ, 4), COUNTER_NAME, COUNTER_NAME, READ_PARAMETERS)
READ_RESPONSE = uint(0, 4) + uint(CC_NV_READ, 4) + uint(8, 2)  # success, command, size of the data


def session_digest(counter):
    """The digest of an audit session with one command in it: this value was read from the counter."""
    return sha256(bytes(32), CP_HASH, sha256(READ_RESPONSE, uint(counter, 8)))
