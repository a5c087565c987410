"""tools/grant judges keys and grants as a device does: the common table, through `grant show`."""

import collections
import os
import sys
import unittest

from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.asymmetric.utils import decode_dss_signature, encode_dss_signature
from grant_cases import P256_ORDER, cases
from test_grant import GRANT, GrantToolTest, run_grant

sys.path.insert(0, os.path.dirname(GRANT))

from featurewatch_tools.fault import Fault  # noqa: E402, found through the line above
from featurewatch_tools.grants import ALGORITHMS, PrivateKey  # noqa: E402


class CommonCasesTest(GrantToolTest):
    def test_show_judges_as_told(self):
        "Good ones are good. For a bad key the status is 2, for a bad header or signature 1; nothing bad passes."
        counts = collections.Counter()
        for case in cases():
            with self.subTest(case.name):
                self.write("case.pub", case.public)
                result = run_grant("show", "--public", "case.pub", self.write("case.jws", case.grant))
                self.assertEqual(result.returncode == 0, case.good, result)
                self.assertEqual(b"signature: good" in result.stdout, case.good, result)
                counts[case.good] += 1
        self.assertGreater(counts[True], 10)
        self.assertGreater(counts[False], 35)


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
