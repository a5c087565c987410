"""Credentials, names and digests of tools/attest beside those of openssl, the tpm2-tools and a software TPM."""

import hashlib
import hmac
import itertools
import re
import secrets
import subprocess
from unittest import mock

from attest_support import AK_HEAD, EK_HEAD, AttestTest, SoftwareDevice, SoftwareKey, parsed_report, sized
from cryptography.hazmat.primitives.asymmetric import ec
from featurewatch_tools import challenge, structures, verification
from featurewatch_tools.fault import Fault
from harness import read_file
from test_attest_end_to_end import COUNTER, EK, ExchangeTest
from tpm_harness import tool

TOOL_MARK = bytes.fromhex("BADCC0DE 00000001")  # the tpm2-tools' own, in front of a credential
SPKI_HEAD = bytes.fromhex("3059301306072A8648CE3D020106082A8648CE3D03010703420004")


def openssl(*arguments, data=b""):
    return subprocess.run(["openssl", *arguments], input=data, check=True, capture_output=True).stdout


def hashed(data):
    return openssl("dgst", "-sha256", "-binary", data=data)


def first_key(holds):
    """The first of the private keys 2, 3, 4, ... with this property."""
    keys = (ec.derive_private_key(number, ec.SECP256R1()) for number in itertools.count(2))
    return next(filter(holds, keys))


def begins_with_zero(key):
    return key.public_key().public_numbers().x < 2**248


class TpmTest(ExchangeTest):
    """TpmTest has the device's report, and its AK loaded for the tpm2-tools."""

    def setUp(self):
        super().setUp()
        content = self.report()
        self.device = parsed_report(content)
        self.load_key(content)

    def activated(self, credential):
        """The secret that the TPM finds in a credential for its EK and this AK."""
        session, output = self.path("session"), self.path("activated")
        tool("startauthsession", "--policy-session", "-S", session)
        tool("policysecret", "-Q", "-S", session, "-c", "e")
        keys = ("-c", self.path("ak.ctx"), "-C", EK, "-P", f"session:{session}")
        tool("activatecredential", "-Q", *keys, "-i", self.write("credential", TOOL_MARK + credential), "-o", output)
        tool("flushcontext", session)
        tool("flushcontext", "-t")
        return read_file(output)

    def assert_activated(self):
        secret = secrets.token_bytes(32)
        credential = challenge.make_credential(self.device.ek, self.device.ak.name, secret)
        self.assertEqual(self.activated(credential), secret)

    def test_tpm_finds_the_secret(self):
        "The TPM of both keys finds the secret in each credential, of this program's making as of the tpm2-tools'."
        for _ in range(5):
            self.assert_activated()
        secret = secrets.token_bytes(32)
        files = ("-u", self.write("ek", self.device.ek.whole), "-s", self.write("secret", secret))
        made = ("-n", self.device.ak.name.hex(), "-o", self.path("made"))
        tool("makecredential", "-Q", "-T", "none", *files, *made)
        self.assertEqual(self.activated(read_file(self.path("made")).removeprefix(TOOL_MARK)), secret)

    def test_coordinates_that_begin_with_zero(self):
        "The TPM finds the secret also where a coordinate, of the point or of what is shared, begins with a zero byte."
        ek = ec.EllipticCurvePublicKey.from_encoded_point(ec.SECP256R1(), self.device.ek.point())
        for holds in (begins_with_zero, lambda key: key.exchange(ec.ECDH(), ek)[0] == 0):
            with mock.patch.object(ec, "generate_private_key", lambda curve, key=first_key(holds): key):
                self.assert_activated()

    def test_names(self):
        "Names and qualified name are those that the TPM states for its EK, its AK and its counter."
        names = {}
        for key, handle in (("ek", EK), ("ak", self.path("ak.ctx"))):
            tool("readpublic", "-Q", "-c", handle, "-n", self.path("name"), "-q", self.path("qualified"))
            names[key], qualified = read_file(self.path("name")), read_file(self.path("qualified"))
        self.assertEqual(names, {"ek": self.device.ek.name, "ak": self.device.ak.name})
        self.assertEqual(structures.qualified_name(self.device.ek, self.device.ak), qualified)
        name = re.search(rb"name: ([0-9a-f]+)", tool("nvreadpublic", COUNTER))[1].decode()
        self.assertEqual(name, structures.COUNTER_NAME.hex())


class FormulaTest(AttestTest):
    """FormulaTest opens credentials with a key in a file, by the formulas of docs/attestation.md and openssl."""

    def setUp(self):
        super().setUp()
        self.device = SoftwareDevice(self.folder)
        self.report = parsed_report(self.device.report())

    def opened(self, credential):
        """The secret in the credential, after a check of each of its parts."""
        reader = structures.Reader(credential, "credential")
        identity, point = reader.sized(), structures.Reader(reader.sized(), "point")
        reader.end()
        x, y = point.sized(), point.sized()
        point.end()
        peer = self.write("peer", SPKI_HEAD + x + y)
        shared = openssl("pkeyutl", "-derive", "-inkey", self.device.ek.path, "-peerkey", peer, "-peerform", "DER")
        seed = hashed(b"\0\0\0\1" + shared + b"IDENTITY\0" + x + self.device.ek.spki[-64:-32])
        identity = structures.Reader(identity, "identity")
        integrity, encrypted = identity.sized(), identity.data[identity.at :]
        key = self.derived(seed, b"INTEGRITY\0" + (256).to_bytes(4, "big"))
        self.assertEqual(integrity, hmac.digest(key, encrypted + self.device.ak.name, hashlib.sha256))
        key = self.derived(seed, b"STORAGE\0" + self.device.ak.name + (128).to_bytes(4, "big"))[:16]
        content = openssl("enc", "-d", "-aes-128-cfb", "-K", key.hex(), "-iv", "00" * 16, data=encrypted)
        self.assertEqual(content[:2], (32).to_bytes(2, "big"))
        return content[2:]

    @staticmethod
    def derived(seed, rest):
        return hmac.digest(seed, b"\0\0\0\1" + rest, hashlib.sha256)

    def test_same_form_as_the_tool(self):
        "By the formulas the secret is found in this program's credentials and in those of tpm2_makecredential."
        secret = secrets.token_bytes(32)
        made = challenge.make_credential(self.report.ek, self.report.ak.name, secret)
        files = ("-u", self.write("ek", self.device.ek.whole), "-s", self.write("secret", secret))
        tool("makecredential", "-Q", "-T", "none", *files, "-n", self.device.ak.name.hex(), "-o", self.path("made"))
        other = read_file(self.path("made")).removeprefix(TOOL_MARK)
        self.assertEqual((self.opened(made), self.opened(other)), (secret, secret))
        self.assertEqual(len(made), len(other))

    def test_signature_and_session_digest(self):
        "Signatures and session digests are what openssl makes of the same bytes."
        data = secrets.token_bytes(100)
        self.assertTrue(verification.signature_holds(self.report.ak, data, self.device.ak.sign(data)))
        self.assertFalse(verification.signature_holds(self.report.ak, data + b"\0", self.device.ak.sign(data)))
        name = b"\0\x0b" + hashed(bytes.fromhex("018C811F 000B 22040014 0000 0008"))
        command = hashed(bytes.fromhex("0000014E") + name + name + bytes.fromhex("0008 0000"))
        response = hashed(bytes.fromhex("00000000 0000014E 0008") + (7).to_bytes(8, "big"))
        self.assertEqual(structures.session_digest(7), hashed(bytes(32) + command + response))

    def test_unfit_keys_get_no_context(self):
        "A key of another template, or off the curve, gets no context, whoever asks for one."
        for key, head in (("ek", EK_HEAD), ("ak", AK_HEAD)):
            for point in (bytes(64), b"\xff" * 64, bytes(31) + b"\1" + bytes(31) + b"\2"):
                device = SoftwareDevice(self.folder)
                getattr(device, key).whole = sized(head + sized(point[:32]) + sized(point[32:]))
                with self.assertRaisesRegex(Fault, f"no {key.upper()} to challenge: its point is not on the curve"):
                    challenge.make_context(parsed_report(device.report()), None)
            device = SoftwareDevice(self.folder)
            setattr(device, key, SoftwareKey(self.folder, head[:-4] + b"\0\4\0\x10"))  # another curve
            with self.assertRaisesRegex(Fault, f"no {key.upper()} to challenge: its curve is 4"):
                challenge.make_context(parsed_report(device.report()), None)
