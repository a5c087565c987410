"""tools/grant judges keys and grants as a device does: the common table, through `grant show`."""

import collections
import contextlib
import io
import unittest
from unittest import mock

from attest_support import Fault, files
from forked_command import load_command
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.asymmetric.utils import decode_dss_signature, encode_dss_signature
from featurewatch_tools.grants import ALGORITHMS, PrivateKey
from grant_cases import P256_ORDER, cases


class CommonCasesTest(unittest.TestCase):
    def shown(self, case):
        """Exit status and standard output of `grant show`, with its files in memory."""
        contents = {"case.pub": case.public, "case.jws": case.grant.encode()}
        output = []
        with mock.patch.object(files, "read_file", contents.__getitem__), mock.patch.object(
            files, "put", output.append
        ):
            with contextlib.redirect_stderr(io.StringIO()) as stderr:
                status = load_command("grant").main(["show", "--public", "case.pub", "case.jws"])
        self.assertNotIn("internal error", stderr.getvalue())
        self.assertEqual(bool(stderr.getvalue()), status == 2)
        return status, "".join(output)

    def test_show_judges_as_told(self):
        "Good ones are good, and nothing bad passes: neither key, nor header, nor signature."
        counts = collections.Counter()
        for case in cases():
            with self.subTest(case.name):
                status, output = self.shown(case)
                self.assertEqual(status == 0, case.good, output)
                self.assertEqual("signature: good" in output, case.good, output)
                counts[case.good] += 1
        self.assertGreater(counts[True], 20)
        self.assertGreater(counts[False], 45)


class FaultyKey:
    """A FaultyKey signs well, but its signature is then changed."""

    def __init__(self, change):
        self.key, self.change = ec.generate_private_key(ec.SECP256R1()), change

    def public_key(self):
        return self.key.public_key()

    def sign(self, data, algorithm):
        return self.change(*decode_dss_signature(self.key.sign(data, algorithm)))


class FaultySignerTest(unittest.TestCase):
    def signature(self, change):
        return PrivateKey("ES256", FaultyKey(change), "the key").sign(b"data")

    def test_worthless_signatures_are_noticed(self):
        "A signature that a faulty signer spoilt is never handed out: r or s zero, negative, too large, or no DER."
        for name, change in {
            "r = 0": lambda r, s: encode_dss_signature(0, s),
            "s = 0": lambda r, s: encode_dss_signature(r, 0),
            "both 0": lambda r, s: encode_dss_signature(0, 0),
            "r negative": lambda r, s: bytes.fromhex("3006 0201FF 020101"),
            "r + n": lambda r, s: encode_dss_signature(r + P256_ORDER, s),
            "r of 33 bytes": lambda r, s: encode_dss_signature(r + 2**256, s),
            "s of 33 bytes": lambda r, s: encode_dss_signature(r, s + 2**256),
            "a bit": lambda r, s: encode_dss_signature(r ^ 1, s),
            "exchanged": lambda r, s: encode_dss_signature(s, r),
            "nothing": lambda r, s: b"",
            "no DER": lambda r, s: b"\xff" * 70,
            "a byte more": lambda r, s: encode_dss_signature(r, s) + b"\0",
        }.items():
            with self.subTest(name):
                with self.assertRaisesRegex(Fault, "^the key: the signature made with it is not good$"):
                    self.signature(change)
        self.assertEqual(len(self.signature(encode_dss_signature)), ALGORITHMS["ES256"].signature_size)
