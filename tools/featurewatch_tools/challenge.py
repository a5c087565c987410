"""Challenges: a nonce, and a secret that only the TPM with both of a report's keys can find out."""

import hashlib
import hmac
import secrets

from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes
from cryptography.hazmat.primitives.kdf.concatkdf import ConcatKDFHash
from cryptography.hazmat.primitives.kdf.kbkdf import KBKDFHMAC, CounterLocation, Mode

from .documents import NONCE_SIZE, SECRET_SIZE, base64_text
from .fault import Fault
from .structures import AK_TEMPLATE, EK_TEMPLATE, sized


def unfit_keys(report):
    """Returns which of the report's keys can't be challenged, "EK" or "AK", each with its faults as a text."""
    faults = {"EK": report.ek.faults(EK_TEMPLATE), "AK": report.ak.faults(AK_TEMPLATE)}
    return {key: text for key, text in faults.items() if text}


def make_context(report, cb_data):
    """Makes the context for the device of this report and the secret that must come back; both are for one use."""
    for key, faults in unfit_keys(report).items():
        raise Fault(f"no {key} to challenge: {faults}")
    secret = secrets.token_bytes(SECRET_SIZE)
    credential = make_credential(report.ek, report.ak.name, secret)
    blobs = {"pubTpm2B": report.ak.whole, "privTpm2B": report.ak_private, "actChall": credential}
    context = {
        "nonce": base64_text(secrets.token_bytes(NONCE_SIZE)),
        **({"cbData": cb_data} if cb_data else {}),
        "tpm2": {"ak": {name: base64_text(data) for name, data in blobs.items()}},
        # The device ignores this member: it is for the verification, to compare the answer with.
        "expected": {**report.identity, "ekDigest": report.ek.digest()},
    }
    return context, secret


# --- credential protection (TPM 2.0 Library, Architecture) ------------------------------------------------------------


def make_credential(ek, name, secret):
    """The secret for the TPM with this EK and a key of this name: TPM2B_ID_OBJECT and TPM2B_ENCRYPTED_SECRET."""
    seed, point = share_seed(ek)
    encrypted = encrypt(derive(seed, b"STORAGE", name, 16), sized(secret))
    integrity = hmac.digest(derive(seed, b"INTEGRITY", b"", 32), encrypted + name, hashlib.sha256)
    return sized(sized(integrity) + encrypted) + sized(point)


def share_seed(ek):
    """Returns a seed that only the EK's TPM can work out, and the point (TPMS_ECC_POINT) that it needs for that."""
    public = ec.EllipticCurvePublicKey.from_encoded_point(ec.SECP256R1(), ek.point())
    ephemeral = ec.generate_private_key(ec.SECP256R1())
    numbers = ephemeral.public_key().public_numbers()
    x, y = (coordinate.to_bytes(32, "big") for coordinate in (numbers.x, numbers.y))
    # KDFe: the label with its final zero byte, then the x coordinate of either party.
    kdf = ConcatKDFHash(hashes.SHA256(), length=32, otherinfo=b"IDENTITY\0" + x + ek.x)
    return kdf.derive(ephemeral.exchange(ec.ECDH(), public)), sized(x) + sized(y)


def derive(seed, label, context, length):
    """KDFa with SHA-256."""
    kdf = KBKDFHMAC(
        algorithm=hashes.SHA256(),
        mode=Mode.CounterMode,
        length=length,
        rlen=4,
        llen=4,
        location=CounterLocation.BeforeFixed,
        label=label,
        context=context,
        fixed=None,
    )
    return kdf.derive(seed)


def encrypt(key, data):
    """AES in CFB mode from an all-zero vector, as each key encrypts only once."""
    encryptor = Cipher(algorithms.AES(key), modes.CFB(bytes(16))).encryptor()
    return encryptor.update(data) + encryptor.finalize()
