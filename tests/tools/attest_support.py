"""What the tests of tools/attest share: the program as a command and as a module, and devices made of files.

`SoftwareDevice` answers a context as an appliance would, but its keys are OpenSSL keys in files: so it can give
answers that no TPM gives, with all names and digests as they belong or any one of them wrong. Names and digests are
made here from the formulas of docs/attestation.md and the known name of the counter, with nothing taken from
tools/attest.
"""

import base64
import hashlib
import json
import os
import secrets
import shutil
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

from forked_command import TOOLS, load_command, run_forked

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
ATTEST = os.path.join(TOOLS, "attest")
# After the folder of the tests themselves: it has a module with the name of one over there.
sys.path[1:1] = [os.path.join(ROOT, "tests", "system"), TOOLS]

from featurewatch_tools import documents, files  # noqa: E402, found through the line above
from featurewatch_tools.fault import Fault  # noqa: E402
from harness import document_text  # noqa: E402

COUNTER_NAME = bytes.fromhex("000B2154E1C69F9CC07749A88F9835AD835426AEDB46AA9D6C41D6764AC380734878")
EK_HEAD = bytes.fromhex(
    "0023000B000300B20020837197674484B3F81A90CC8D46A5D724FD52D76E06520B64F2A1DA1B331469AA000600800043001000030010"
)
AK_HEAD = bytes.fromhex("0023000B00050072000000100018000B00030010")
MAGIC, SESSION_AUDIT = 0xFF544347, 0x8016


attest = load_command("attest", "challenge", "verification")


def run_attest(*arguments, **keywords):
    """Runs the command to its end: in a process made from this one, or with keywords for subprocess.run as a program.
    None may end with a traceback."""
    if keywords:
        command = [sys.executable, ATTEST, *arguments]
        result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=60, **keywords)
    else:
        result = run_forked(attest.main, arguments)
    if b"Traceback" in result.stderr or result.returncode not in (0, 1, 2):
        raise AssertionError(f"attest {arguments}: {result}")
    return result


def encoded(data):
    return base64.b64encode(data).decode()


def decoded(letters):
    return base64.b64decode(letters)


def sized(data):
    return len(data).to_bytes(2, "big") + data


def sha256(data):
    return hashlib.sha256(data).digest()


def name_of(area):
    return b"\x00\x0b" + sha256(area)


def audit_digest(counter):
    command = sha256(bytes.fromhex("0000014E") + COUNTER_NAME * 2 + bytes.fromhex("00080000"))
    response = sha256(bytes.fromhex("000000000000014E0008") + counter.to_bytes(8, "big"))
    return sha256(bytes(32) + command + response)


class SoftwareKey:
    """A SoftwareKey is an ECC key pair in a file, and its public area, which begins with `head`."""

    def __init__(self, folder, head):
        descriptor, self.path = tempfile.mkstemp(dir=folder, suffix=".pem")
        os.close(descriptor)
        generate = ["openssl", "ecparam", "-name", "prime256v1", "-genkey", "-noout", "-out", self.path]
        subprocess.run(generate, check=True)
        export = ["openssl", "pkey", "-in", self.path, "-pubout", "-outform", "DER"]
        self.spki = subprocess.run(export, check=True, capture_output=True).stdout
        self.set_head(head)

    def set_head(self, head):
        self.area = head + sized(self.spki[-64:-32]) + sized(self.spki[-32:])
        self.whole = sized(self.area)
        self.name = name_of(self.area)

    def sign(self, data):
        command = ["openssl", "dgst", "-sha256", "-sign", self.path]
        return subprocess.run(command, input=data, check=True, capture_output=True).stdout


class SoftwareDevice:
    """A SoftwareDevice gives reports as `dict`s. Its fields may be changed before."""

    def __init__(self, folder):
        self.ek, self.ak = SoftwareKey(folder, EK_HEAD), SoftwareKey(folder, AK_HEAD)
        self.ak_private = sized(secrets.token_bytes(126))
        self.serial, self.alt_serial = "0000abcd", {"boardSerial": "b 1", "userSerial": "lobby"}
        self.counter = 7

    def qualified_signer(self):
        return name_of(name_of(bytes.fromhex("4000000B") + self.ek.name) + self.ak.name)

    def report(self):
        return {
            "altSerial": self.alt_serial,
            "serial": self.serial,
            "tpm2": {
                "ak": {"privTpm2B": encoded(self.ak_private), "pubTpm2B": encoded(self.ak.whole)},
                "ekEccNistP256PubTpm2B": encoded(self.ek.whole),
                "tallyCounter": {"val": self.counter},
            },
        }

    def attestation(self, context, **changes):
        """A TPMS_ATTEST in answer to the context; `changes` replace its parts."""
        part = {
            "magic": MAGIC,
            "kind": SESSION_AUDIT,
            "signer_name": self.qualified_signer(),
            "extra_data": decoded(context["nonce"]),
            "clock": bytes(16) + b"\1" + bytes(8),
            "body": b"\1" + sized(audit_digest(self.counter)),
            **changes,
        }
        head = part["magic"].to_bytes(4, "big") + part["kind"].to_bytes(2, "big")
        return head + sized(part["signer_name"]) + sized(part["extra_data"]) + part["clock"] + part["body"]

    def answer(self, context, secret, signer=None, **changes):
        """The attested report; `signer` is another key to sign with."""
        report = self.report()
        if "cbData" in context:
            report["cbData"] = context["cbData"]
        attestation = self.attestation(context, **changes)
        report["tpm2"]["ak"]["actResp"] = encoded(secret)
        report["tpm2"]["tallyCounter"]["att"] = encoded(attestation)
        report["tpm2"]["tallyCounter"]["sig"] = encoded((signer or self.ak).sign(attestation))
        return report


def context_for(report, spki, cb_data="round 1"):
    """A context like that of `attest challenge`, with a challenge that no TPM can answer."""
    return {
        "nonce": encoded(secrets.token_bytes(32)),
        "cbData": cb_data,
        "tpm2": {"ak": {**report["tpm2"]["ak"], "actChall": encoded(bytes(64))}},
        "expected": {
            "serial": report["serial"],
            "altSerial": report["altSerial"],
            "ekDigest": hashlib.sha256(spki).hexdigest(),
        },
    }


def report_text(report):
    """The report as the agent prints it: numbers as doubles."""
    return document_text(report) + "\n"


def parsed_report(report):
    """The report as the program reads it."""
    return documents.parse_report(documents.parse_json(file_bytes(report), "test"), "test")


def file_bytes(content):
    """Bytes as they are, text as UTF-8, a dictionary as the agent would print it."""
    if isinstance(content, dict):
        content = report_text(content)
    return content if isinstance(content, bytes) else content.encode()


class AttestTest(unittest.TestCase):
    """AttestTest has a folder of its own for the files of one exchange."""

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, content):
        with open(self.path(name), "wb") as stream:
            stream.write(file_bytes(content))
        return self.path(name)

    def content(self, name):
        with open(self.path(name), "rb") as stream:
            return stream.read()

    def write_exchange(self, report, context, secret):
        self.write("attested.json", report)
        self.write("context.json", context)
        self.write("secret.bin", secret)

    def verify_arguments(self, *options):
        files = {"--report": "attested.json", "--context": "context.json", "--secret": "secret.bin"}
        return ["verify", *(word for option, name in files.items() for word in (option, self.path(name))), *options]

    def verify(self, *options):
        """Runs the command; gives its exit status and what it says in JSON."""
        result = run_attest(*self.verify_arguments("--json", *options))
        return result.returncode, json.loads(result.stdout)

    def failed_checks(self, *options):
        """The names of the checks that fail; the exit status must fit."""
        status, verdict = self.verify(*options)
        failed = {check["name"] for check in verdict["checks"] if not check["ok"]}
        self.assertIsNone(verdict["error"])
        self.assertEqual((status, verdict["ok"]), (1, False) if failed else (0, True), verdict)
        self.assertEqual(verdict["counter"] is None, bool(failed), verdict)
        return failed


class QuickVerify:
    """QuickVerify verifies an exchange thousands of times: in this process, with the files in memory.

    It goes through the program's own `verify`, with a Fault as status 2, as `main` has it; any other exception is an
    error of the test. `changed` counts what was tried.
    """

    def __init__(self, test):
        self.test, self.changed = test, 0
        self.arguments = attest.make_parser().parse_args(test.verify_arguments("--json"))
        self.files = {test.path(name): test.content(name) for name in ("attested.json", "context.json", "secret.bin")}
        test.enterContext(mock.patch.object(files, "read_file", self.files.__getitem__))
        test.enterContext(mock.patch.object(files, "put", lambda output: None))

    def status(self, name, content):
        """The exit status with this content in the file of that name."""
        self.changed += 1
        path = self.test.path(name)
        before, self.files[path] = self.files[path], file_bytes(content)
        try:
            return attest.verify(self.arguments)
        except Fault:
            return 2
        finally:
            self.files[path] = before

    def assert_fails(self, name, content, what):
        if self.status(name, content) not in (1, 2):
            self.test.fail(f"accepted: {what}: {content!r}")
