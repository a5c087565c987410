"""Grants, the keys that they are signed with, and the verdict on them."""

import base64
import math
import re
import subprocess
import tempfile
from typing import NamedTuple

from cryptography.exceptions import InvalidSignature, UnsupportedAlgorithm
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, padding, rsa
from cryptography.hazmat.primitives.asymmetric.utils import decode_dss_signature, encode_dss_signature

from .documents import compact, parse_json, shown
from .fault import Fault
from .files import FILE_LIMIT

# --- algorithms and keys ----------------------------------------------------------------------------------------------


class Algorithm(NamedTuple):
    """An Algorithm (RFC 7518, section 3.1). Its curve is None for RSA."""

    digest: hashes.HashAlgorithm
    curve: ec.EllipticCurve | None
    signature_size: int


ALGORITHMS = {
    "ES256": Algorithm(hashes.SHA256(), ec.SECP256R1(), 64),
    "ES384": Algorithm(hashes.SHA384(), ec.SECP384R1(), 96),
    "RS256": Algorithm(hashes.SHA256(), None, 256),
}
RSA_BITS = 2048
KEY_FILE_LIMIT = 1 << 16  # a device reads no larger key file
SIGNATURE_LIMIT = 4096  # of what a signer prints; no signature in any form is nearly as long

# RFC 8017, appendix C: the identifier of keys for RSASSA-PSS alone, in DER. `cryptography` takes such a key for one of
# plain RSA.
PSS_ONLY = bytes.fromhex("06092A864886F70D01010A")


def algorithm_of(key, pem):
    """Returns the name of the one algorithm that a device takes for this public key, None if there is no such."""
    if isinstance(key, rsa.RSAPublicKey):
        fits = key.key_size == RSA_BITS and is_sound(key.public_numbers()) and not is_pss_only(pem)
        return "RS256" if fits else None
    curve = key.curve.name if isinstance(key, ec.EllipticCurvePublicKey) else None
    names = (name for name, algorithm in ALGORITHMS.items() if algorithm.curve and algorithm.curve.name == curve)
    return next(names, None)


def is_sound(numbers):
    """The partial validation of RSA keys in SP 800-56B, 6.4.2.2: a device's OpenSSL refuses what fails it.

    With an exponent of 1 anybody could sign. The last term is true neither for a prime nor for a power of one.
    """
    e, n = numbers.e, numbers.n
    no_small_factor = all(n % divisor for divisor in range(2, 752))
    return e >= 3 and e % 2 == 1 and no_small_factor and math.gcd(pow(2, n, n) - 2, n) == 1


def is_pss_only(pem):
    blocks = re.findall(rb"-----BEGIN [^-]*-----(.*?)-----END ", pem, re.DOTALL)
    return any(PSS_ONLY in base64.b64decode(block) for block in blocks)


def load_key(load, pem, what, fault):
    """Loads a key; returns it with its public half's algorithm."""
    try:
        key = load(pem)
        public = key.public_key() if hasattr(key, "public_key") else key
        name = algorithm_of(public, pem)
    except (ValueError, TypeError, UnsupportedAlgorithm):  # TypeError: it has a passphrase
        raise Fault(f"{what}: {fault}") from None
    if name is None:
        raise Fault(
            f"{what}: no key for grants, which are EC on NIST P-256 or P-384 and RSA of 2048 bits with an odd exponent of 3 or more"
        )
    return name, key


# The forms of RFC 5280 and, for RSA, RFC 8017, at a line's beginning, which a byte order mark doesn't change.
PUBLIC_KEY = re.compile(
    rb"(?:\A\xef\xbb\xbf|^)(-----BEGIN (RSA )?PUBLIC KEY-----\s.*?-----END \2?PUBLIC KEY-----)", re.M | re.S
)


class PublicKey(NamedTuple):
    """A PublicKey judges the signatures of grants."""

    algorithm: str
    key: ec.EllipticCurvePublicKey | rsa.RSAPublicKey

    def signed(self, data, signature):
        """Returns whether the private half made this signature, which is in the form of RFC 7518."""
        algorithm = ALGORITHMS[self.algorithm]
        if len(signature) != algorithm.signature_size:
            return False
        try:
            if algorithm.curve:
                self.key.verify(der_signature(signature), data, ec.ECDSA(algorithm.digest))
            else:
                self.key.verify(signature, data, padding.PKCS1v15(), algorithm.digest)
        except InvalidSignature:
            return False
        return True


def read_public_key(pem, what):
    """Reads the first public key in PEM, as a device does."""
    if len(pem) > KEY_FILE_LIMIT:
        raise Fault(f"{what}: longer than {KEY_FILE_LIMIT} bytes")
    block = PUBLIC_KEY.search(pem)
    if not block:
        raise Fault(f"{what}: no public key")
    return PublicKey(*load_key(serialization.load_pem_public_key, block[1] + b"\n", what, "no public key"))


class PrivateKey(NamedTuple):
    """A PrivateKey signs grants. `what` is its name in messages."""

    algorithm: str
    key: ec.EllipticCurvePrivateKey | rsa.RSAPrivateKey
    what: str

    def sign(self, data):
        """Returns a signature in the form of RFC 7518, which was checked: a faulty signer's would be worth nothing."""
        algorithm = ALGORITHMS[self.algorithm]
        if algorithm.curve:
            signature = raw_signature(self.key.sign(data, ec.ECDSA(algorithm.digest)), algorithm.signature_size)
        else:
            signature = self.key.sign(data, padding.PKCS1v15(), algorithm.digest)
        if not signature or not PublicKey(self.algorithm, self.key.public_key()).signed(data, signature):
            raise Fault(f"{self.what}: the signature made with it is not good")
        return signature


def read_private_key(pem, what):
    def load(data):
        return serialization.load_pem_private_key(data, password=None)

    return PrivateKey(*load_key(load, pem, what, "no private key, or one with a passphrase"), what)


def make_key_pair(name):
    """Returns a new private key for this algorithm and its public half, both in PEM."""
    curve = ALGORITHMS[name].curve
    key = ec.generate_private_key(curve) if curve else rsa.generate_private_key(65537, RSA_BITS)
    forms = serialization.PrivateFormat.PKCS8, serialization.PublicFormat.SubjectPublicKeyInfo
    private = key.private_bytes(serialization.Encoding.PEM, forms[0], serialization.NoEncryption())
    return private, key.public_key().public_bytes(serialization.Encoding.PEM, forms[1])


class CommandSigner(NamedTuple):
    """A CommandSigner has a command sign, where the private key is in other hands: those of an HSM or a key service.

    The command gets the text on standard input and prints the signature, in DER or in the form of RFC 7518.
    """

    command: str
    public: PublicKey

    @property
    def algorithm(self):
        return self.public.algorithm

    def sign(self, data):
        algorithm, output = ALGORITHMS[self.algorithm], self.output(data)
        forms = [output, algorithm.curve and raw_signature(output, algorithm.signature_size)]
        for signature in filter(None, forms):
            if self.public.signed(data, signature):
                return signature
        raise Fault("what the signer printed is no signature that fits the public key")

    def output(self, data):
        with tempfile.TemporaryFile() as text:  # no pipe, which a signer that prints before it reads could fill
            text.write(data)
            text.seek(0)
            with subprocess.Popen(self.command, shell=True, stdin=text, stdout=subprocess.PIPE) as process:
                output = process.stdout.read(SIGNATURE_LIMIT)
        if process.returncode != 0:
            raise Fault(f"the signer ended with status {process.returncode}")
        return output


def raw_signature(der, size):
    """From two integers in DER (RFC 3279, 2.2.3) to both side by side (RFC 7518, 3.4); None if that can't be."""
    try:
        return b"".join(number.to_bytes(size // 2, "big") for number in decode_dss_signature(der))
    except (ValueError, OverflowError):
        return None


def der_signature(raw):
    middle = len(raw) // 2
    return encode_dss_signature(*(int.from_bytes(part, "big") for part in (raw[:middle], raw[middle:])))


# --- the compact form (RFC 7515, section 3.1) -------------------------------------------------------------------------


def encode(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def decode(segment):
    """Decodes the one canonical form: no padding, zero bits after the data. Anything else gives None."""
    try:
        data = base64.b64decode(segment + "=" * (-len(segment) % 4), altchars=b"-_", validate=True)
    except ValueError:
        return None
    return data if encode(data) == segment else None


def sign_grant(signer, serial, features):
    """Returns the grant of these features for the device of this serial number, as a text of one line."""
    parts = {"alg": signer.algorithm}, {"serial": serial, "features": features}
    text = ".".join(encode(compact(part).encode()) for part in parts)
    grant = f"{text}.{encode(signer.sign(text.encode()))}\n"
    if len(grant) > FILE_LIMIT:
        raise Fault(f"the grant has {len(grant)} bytes, and a device takes {FILE_LIMIT}")
    return grant


class Grant(NamedTuple):
    """A Grant is one that was read: what it contains, the text that was signed, and the signature's segment."""

    header: dict
    payload: object
    signed_text: str
    signature: str


def read_grant(data, what, numbers):
    """Reads the compact form, which may end with one line feed. `numbers` is for the payload, as in parse_json."""
    try:
        segments = data.decode("ascii").removesuffix("\n").split(".")
    except UnicodeDecodeError:
        segments = []
    if len(segments) != 3:
        raise Fault(f"{what}: not three segments with dots between them")
    header, payload, signature = segments
    grant = Grant(
        read_segment(header, f"{what}: header", {}),
        read_segment(payload, f"{what}: payload", numbers),
        f"{header}.{payload}",
        signature,
    )
    if type(grant.header) is not dict:
        raise Fault(f"{what}: header: no object")
    return grant


def read_segment(segment, what, numbers):
    data = decode(segment)
    if data is None:
        raise Fault(f"{what}: no canonical base64url")
    return parse_json(data, what, numbers)


def flaw(grant, key):
    """Returns what is wrong with the signature, None if it is good.

    It judges as a device does, except that it is strict in how the signature is written.
    """
    name = grant.header.get("alg", key.algorithm)
    if name != key.algorithm:
        return f"the header's algorithm is {shown(name)}, the key is for {key.algorithm}"
    if "crit" in grant.header:
        return "the header has crit, which announces extensions (RFC 7515, 4.1.11): a device knows none"
    signature = decode(grant.signature)
    if signature is None:
        return "no canonical base64url"
    return None if key.signed(grant.signed_text.encode(), signature) else "the key did not sign this"
