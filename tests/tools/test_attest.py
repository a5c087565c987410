"""tools/attest alone: challenges, verdicts on answers of devices made of files, and files that are none."""

import contextlib
import copy
import hashlib
import io
import json
import os
import random
import stat
import subprocess
import sys
import tempfile
from unittest import mock

from attest_support import (
    AK_HEAD,
    ATTEST,
    EK_HEAD,
    AttestTest,
    QuickVerify,
    SoftwareDevice,
    SoftwareKey,
    attest,
    audit_digest,
    context_for,
    decoded,
    encoded,
    report_text,
    run_attest,
    sha256,
    sized,
)
from featurewatch_tools import files, structures, verification

NO_AUDIT = {"kind", "exclusive", "counter"}


class DeviceTest(AttestTest):
    """DeviceTest has a device made of files, a context for it and the secret."""

    def setUp(self):
        super().setUp()
        self.device = SoftwareDevice(self.folder)
        self.context = context_for(self.device.report(), self.device.ek.spki)
        self.secret = os.urandom(32)

    def answer(self, **changes):
        return self.device.answer(self.context, self.secret, **changes)

    def failed(self, report=None, options=(), **changes):
        """The checks that fail on this report, or on the device's answer with these changes."""
        self.write_exchange(report or self.answer(**changes), self.context, self.secret)
        return self.failed_checks(*options)

    def assert_unusable(self, **contents):
        """With these contents in place of attested, context or secret: exit status 2, and an error in both forms."""
        self.write_exchange(self.answer(), self.context, self.secret)
        for name, content in contents.items():
            self.write({"attested": "attested.json", "context": "context.json", "secret": "secret.bin"}[name], content)
        status, verdict = self.verify()
        self.assertEqual((status, verdict["ok"], verdict["checks"], verdict["counter"]), (2, False, [], None), contents)
        self.assertTrue(verdict["error"])
        plain = run_attest(*self.verify_arguments())
        self.assertEqual((plain.returncode, plain.stdout), (2, b""))
        self.assertRegex(plain.stderr, rb"^attest: .+\n$")


class CommandLineTest(AttestTest):
    def test_help(self):
        "Help for the program and each command goes to standard output, names all options, and is a success."
        for words, wanted in (
            (["--help"], [b"challenge", b"verify", b"featurewatch -d -A", b"docs/attestation.md"]),
            (["challenge", "--help"], [b"--report", b"--cb-data", b"--secret-out", b"exit status"]),
            (["verify", "--help"], [b"--report", b"--context", b"--secret", b"--ek-digest", b"--json", b"exit status"]),
        ):
            result = run_attest(*words)
            self.assertEqual((result.returncode, result.stderr), (0, b""))
            for word in wanted:
                self.assertIn(word, result.stdout)

    def test_wrong_usage(self):
        "Wrong usage ends with 2 and one line on standard error; with --json the object tells it too."
        files = ["--report", "r", "--context", "c", "--secret", "s"]
        for words in (
            [],
            ["judge"],
            ["verify"],
            ["challenge"],
            ["challenge", "--report", "r"],
            ["challenge", "--report", "r", "--secret-out", "s", "extra"],
            ["verify", *files[:4]],
            ["verify", *files, "--bogus"],
            ["verify", *files, "--ek", "00" * 32],
            ["verify", *files, "--ek-digest", "00" * 31],
            ["verify", *files, "--ek-digest", "0g" * 32],
            ["verify", *files, "--ek-digest", ""],
            ["verify", *files, "--ek-digest", "00" * 32 + "\n"],
            ["challenge", "--report", "r", "--secret-out", "s", "--cb-data", b"\xff"],
        ):
            with self.subTest(words):
                result = run_attest(*words)
                self.assertEqual((result.returncode, result.stdout), (2, b""))
                self.assertRegex(result.stderr, rb"^attest: .+--help\n$")
                verdict = json.loads(run_attest(*words, "--json").stdout)
                self.assertEqual((verdict["ok"], verdict["checks"], verdict["counter"]), (False, [], None))

    def test_missing_package(self):
        "Without cryptography help is still there, and whatever needs it says that it is missing: with -I -S."
        command = [sys.executable, "-I", "-S", "-B", ATTEST]
        result = subprocess.run([*command, "--help"], capture_output=True, timeout=60)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        verify = self.verify_arguments("--json")
        result = subprocess.run([*command, *verify], capture_output=True, timeout=60)
        self.assertEqual(result.stderr, b"attest: a Python package is missing: cryptography\n")
        self.assertEqual(json.loads(result.stdout)["error"], "a Python package is missing: cryptography")


class ChallengeTest(DeviceTest):
    def setUp(self):
        super().setUp()
        self.report = self.write("report.json", self.device.report())

    def challenge(self, *options, **keywords):
        return run_attest("challenge", "--report", self.report, *options, **keywords)

    def make(self, *options):
        """Makes a context and a secret, and gives both."""
        result = self.challenge("--secret-out", self.path("made.bin"), *options)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        with open(self.path("made.bin"), "rb") as stream:
            return json.loads(result.stdout), stream.read()

    def assert_refused(self, result, status=2):
        self.assertEqual((result.returncode, result.stdout), (status, b""))
        self.assertRegex(result.stderr, rb"^attest: ")

    def test_context_has_all_parts(self):
        "The context holds a nonce, the report's AK, a challenge, the cbData, who the device said it is, and no more."
        context, secret = self.make("--cb-data", 'round "2" ü\n\U0001f600')
        self.assertEqual(len(decoded(context.pop("nonce"))), 32)
        self.assertEqual(context.pop("cbData"), 'round "2" ü\n\U0001f600')
        ak = context.pop("tpm2")["ak"]
        challenge = decoded(ak.pop("actChall"))
        self.assertEqual(ak, self.device.report()["tpm2"]["ak"])
        digest = hashlib.sha256(self.device.ek.spki).hexdigest()
        expected = {"serial": self.device.serial, "altSerial": self.device.alt_serial, "ekDigest": digest}
        self.assertEqual(context, {"expected": expected})
        # Two sized structures and nothing else: the credential, then the encrypted secret.
        end = 2 + int.from_bytes(challenge[:2], "big")
        self.assertEqual(end + 2 + int.from_bytes(challenge[end : end + 2], "big"), len(challenge))
        self.assertEqual(len(secret), 32)

    def test_cb_data_is_left_out(self):
        "Without cbData, or with an empty one, the context has no such member, as the device then prints none."
        for options in ((), ("--cb-data", "")):
            self.assertNotIn("cbData", self.make(*options)[0])

    def test_all_is_fresh(self):
        "Nonce, secret and challenge are new each time."
        contexts, made = zip(*(self.make() for _ in range(3)))
        self.assertEqual(len(set(made)), 3)
        self.assertEqual(len({context["nonce"] for context in contexts}), 3)
        self.assertEqual(len({context["tpm2"]["ak"]["actChall"] for context in contexts}), 3)

    def test_secret_stays_here(self):
        "The secret file is for its owner alone, whatever stood there; it is told nowhere else, nothing stays beside."
        for before in (None, 0o666):
            if before:
                os.chmod(self.write("made.bin", "old"), before)
            context, secret = self.make()
            self.assertEqual(stat.S_IMODE(os.stat(self.path("made.bin")).st_mode), 0o600)
            for form in (encoded(secret), secret.hex()):
                self.assertNotIn(form, json.dumps(context))
        self.assertFalse([name for name in os.listdir(self.folder) if name.startswith(".")])

    def test_secret_cannot_be_written(self):
        "Where the secret can't be written no context is printed, and what stands there stays."
        os.mkdir(self.path("folder"))
        os.symlink("report.json", self.path("link"))
        os.mkfifo(self.path("pipe"))
        for target in ("folder", "link", "pipe", "none/file", "x" * 300):
            with self.subTest(target):
                target = self.path(target)
                self.assert_refused(self.challenge("--secret-out", target))
        self.assertTrue(stat.S_ISFIFO(os.stat(self.path("pipe")).st_mode))
        self.assertEqual(os.readlink(self.path("link")), "report.json")

    def test_output_fails(self):
        "A standard output that is full or closed is a failure, not half a context."
        with open("/dev/full", "wb") as full:
            command = [ATTEST, "challenge", "--report", self.report, "--secret-out", self.path("made.bin")]
            result = subprocess.run(command, stdout=full, stderr=subprocess.PIPE, timeout=60)
            self.assertEqual((result.returncode, result.stderr.count(b"\n")), (2, 1), result)
        closed = subprocess.run(["sh", "-c", '"$@" >&-', "sh", *command], stderr=subprocess.PIPE, timeout=60)
        self.assertEqual((closed.returncode, closed.stderr.count(b"\n")), (2, 1), closed)

    def test_keys_of_a_wrong_kind(self):
        "A report whose EK or AK isn't of its template, or off the curve, gets no challenge: exit status 1, no secret."
        for key, head in (("ek", EK_HEAD), ("ak", AK_HEAD)):
            for name, changed in wrong_heads(head):
                with self.subTest(f"{key} with another {name}"):
                    device = copy.deepcopy(self.device)
                    getattr(device, key).set_head(changed)
                    self.write("report.json", device.report())
                    self.assert_refused(self.challenge("--secret-out", self.path("made.bin")), 1)
            with self.subTest(f"{key} off the curve"):
                device = copy.deepcopy(self.device)
                getattr(device, key).whole = sized(head + sized(bytes(31) + b"\1") + sized(bytes(31) + b"\2"))
                self.write("report.json", device.report())
                self.assert_refused(self.challenge("--secret-out", self.path("made.bin")), 1)
        self.assertFalse(os.path.exists(self.path("made.bin")))

    def test_attested_report_will_do(self):
        "A challenge can be made from an attested report, too: the next exchange needs no plain report."
        self.write("report.json", self.answer())
        self.assertEqual(self.make()[0]["tpm2"]["ak"]["pubTpm2B"], encoded(self.device.ak.whole))

    def test_no_program_is_needed(self):
        "The challenge is made without any other program."
        command = [sys.executable, ATTEST, "challenge", "--report", self.report, "--secret-out", self.path("made.bin")]
        result = subprocess.run(command, env={"PATH": self.folder}, capture_output=True, timeout=60)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertEqual(len(self.content("made.bin")), 32)

    def test_report_cannot_be_used(self):
        "A report that can't be read, or is none, gets no challenge."
        for content in garbage():
            self.write("report.json", content)
            self.assert_refused(self.challenge("--secret-out", self.path("made.bin")))
        self.report = self.path("missing")
        self.assert_refused(self.challenge("--secret-out", self.path("made.bin")))


def wrong_heads(head):
    """Each part of the public area in front of the point, changed so that it still is an ECC key's area."""
    policy = int.from_bytes(head[8:10], "big")
    parts = [("name algorithm", 3, 0x0C), ("scheme", len(head) - 5, None), ("curve", len(head) - 3, 4)]
    for name, at, value in parts:
        if value is not None:
            yield name, head[:at] + bytes([value]) + head[at + 1 :]
    for bit in range(32):
        attributes = int.from_bytes(head[4:8], "big") ^ 1 << bit
        yield f"attribute bit {bit}", head[:4] + attributes.to_bytes(4, "big") + head[8:]
    yield "policy", head[:8] + sized(bytes(32)) + head[10 + policy :]
    if policy:
        yield "policy size", head[:8] + sized(b"") + head[10 + policy :]
    symmetric, rest = (head[-12:-6], head[-6:]) if policy else (head[-10:-8], head[-8:])
    front = head[: -len(symmetric + rest)]
    yield "symmetric", front + (b"\0\x10" if policy else b"\0\6\0\x80\0\x43") + rest
    if policy:
        yield "key size", front + b"\0\6\1\0\0\x43" + rest
        yield "mode", front + b"\0\6\0\x80\0\x44" + rest
    scheme = rest[:-4]
    for other in (b"\0\x10", b"\0\x18\0\x0b", b"\0\x18\0\x0c", b"\0\x1b\0\x0b"):
        if other != scheme:
            yield f"scheme {other.hex()}", front + symmetric + other + rest[-4:]
    yield "KDF", head[:-2] + b"\0\x20\0\x0b"


class VerdictTest(DeviceTest):
    def test_good_answer(self):
        "A good answer passes all checks, in words and as an object for jq, and tells counter and digests."
        self.assertEqual(self.failed(), set())
        plain = run_attest(*self.verify_arguments())
        self.assertEqual((plain.returncode, plain.stderr), (0, b""))
        *lines, end = plain.stdout.decode().splitlines()
        self.assertEqual(end, "The attestation holds, for an EK that nobody vouched for: the counter is 7.")
        names = [check["name"] for check in self.verify()[1]["checks"]]
        self.assertEqual([line.split()[:2] for line in lines], [["ok", name] for name in names])
        self.assertIn("no --ek-digest", lines[names.index("ek-identity")])
        self.assertTrue(lines[names.index("ak-template")].endswith(" a restricted signing key, fixed to its TPM"))
        output = run_attest(*self.verify_arguments("--json")).stdout
        query = ".ok, .counter, .ekDigest, .akDigest, .error, (.checks | length), (.checks | map(keys) | unique)"
        answer = subprocess.run(["jq", "-c", query], input=output, capture_output=True, check=True).stdout
        digests = [hashlib.sha256(key.spki).hexdigest() for key in (self.device.ek, self.device.ak)]
        wanted = [True, "7", *digests, None, len(names), [["detail", "name", "ok"]]]
        self.assertEqual([json.loads(line) for line in answer.splitlines()], wanted)

    def test_failed_check_in_words(self):
        "A failed check is marked on its line, the others stay ok, and the end tells it; the status is 1."
        self.failed(extra_data=bytes(32))
        plain = run_attest(*self.verify_arguments())
        *lines, end = plain.stdout.decode().splitlines()
        self.assertEqual((plain.returncode, end), (1, "The attestation does NOT hold."))
        self.assertEqual([line.split()[1] for line in lines if line.startswith("FAILED")], ["nonce"])
        self.assertNotIn("counter is", plain.stdout.decode())

    def test_digest_is_that_of_openssl(self):
        "The EK's digest is what openssl and sha256sum make of its key; --ek-digest takes it in either case."
        command = f"openssl pkey -in {self.device.ek.path} -pubout | openssl pkey -pubin -outform DER | sha256sum"
        digest = subprocess.run(command, shell=True, capture_output=True, check=True).stdout[:64].decode()
        for form in (digest, digest.upper()):
            self.assertEqual(self.failed(options=("--ek-digest", form)), set())
        self.assertEqual(self.verify()[1]["ekDigest"], digest)
        plain = run_attest(*self.verify_arguments("--ek-digest", digest)).stdout.decode()
        self.assertIn("and of --ek-digest", plain)
        self.assertNotIn("no --ek-digest", plain)

    def test_ek_of_another_digest(self):
        "An EK that isn't the one of --ek-digest fails, by a single bit as well, though the first report had it."
        digest = hashlib.sha256(self.device.ek.spki).hexdigest()
        for wrong in (f"{int(digest, 16) ^ 1:064x}", "0" * 64, hashlib.sha256(self.device.ak.spki).hexdigest()):
            self.assertEqual(self.failed(options=("--ek-digest", wrong)), {"ek-identity"})

    def test_terminal_is_safe(self):
        "What a report says reaches the terminal as ASCII on one line only."
        self.device.serial = "x\x1b[2J\nok      counter  faked \u202e"
        self.assertEqual(self.failed(), {"serial"})
        plain = run_attest(*self.verify_arguments()).stdout
        self.assertTrue(plain.isascii())
        self.assertNotIn(b"\x1b", plain)
        self.assertEqual(len(plain.splitlines()), 15)

    def test_ek_known(self):
        "Only a digest that was given and holds makes the EK a known one, in JSON and in the verdict's own words."
        digest = hashlib.sha256(self.device.ek.spki).hexdigest()
        for options, known, end in (
            ((), False, "The attestation holds, for an EK that nobody vouched for: the counter is 7."),
            (("--ek-digest", digest), True, "The attestation holds: the counter is 7."),
            (("--ek-digest", "0" * 64), False, "The attestation does NOT hold."),
        ):
            with self.subTest(options):
                self.failed(options=options)
                self.assertIs(self.verify(*options)[1]["ekKnown"], known)
                plain = run_attest(*self.verify_arguments(*options)).stdout.decode()
                self.assertEqual(plain.splitlines()[-1], end)
        self.assertIs(self.failed(self.answer(signer=self.device.ek)) and self.verify()[1]["ekKnown"], False)
        self.write("attested.json", "")
        self.assertIs(self.verify("--ek-digest", digest)[1]["ekKnown"], False)

    def test_nothing_unforeseen_escapes(self):
        "What nobody foresaw ends with status 2 and one line, and with --json with an object, not with a traceback."
        self.write_exchange(self.answer(), self.context, self.secret)
        for options, output in (((), ""), (("--json",), "internal error")):
            with mock.patch.object(verification, "judge", side_effect=ZeroDivisionError("told\nso")):
                with contextlib.redirect_stderr(io.StringIO()) as stderr, mock.patch.object(files, "put") as put:
                    self.assertEqual(attest.main(self.verify_arguments(*options)), 2)
            self.assertRegex(stderr.getvalue(), r"^attest: internal error.*ZeroDivisionError.*\n$")
            self.assertEqual(stderr.getvalue().count("\n"), 1)
            printed = "".join(call.args[0] for call in put.call_args_list)
            self.assertIn(output, json.loads(printed)["error"] if output else printed)

    def test_interrupted(self):
        "Interrupted, the command ends with the status of SIGINT and without a word."
        self.write_exchange(self.answer(), self.context, self.secret)
        with mock.patch.object(verification, "judge", side_effect=KeyboardInterrupt):
            with contextlib.redirect_stderr(io.StringIO()) as stderr:
                self.assertEqual(attest.main(self.verify_arguments()), 130)
        self.assertEqual(stderr.getvalue(), "")

    def test_output_fails(self):
        "A verdict that can't be written is no success."
        self.write_exchange(self.answer(), self.context, self.secret)
        for options in ((), ("--json",)):
            with open("/dev/full", "wb") as full:
                command = [ATTEST, *self.verify_arguments(*options)]
                result = subprocess.run(command, stdout=full, stderr=subprocess.PIPE, timeout=60)
            self.assertEqual((result.returncode, result.stderr.count(b"\n")), (2, 1), result)

    def test_no_program_is_needed(self):
        "The answer is judged without any other program."
        self.write_exchange(self.answer(), self.context, self.secret)
        command = [sys.executable, ATTEST, *self.verify_arguments("--json")]
        result = subprocess.run(command, env={"PATH": self.folder}, capture_output=True, timeout=60)
        self.assertEqual((result.returncode, result.stderr, json.loads(result.stdout)["ok"]), (0, b"", True))


class ForgeryTest(DeviceTest):
    """Each answer here is right in all but one point, and exactly the checks of that point fail."""

    def test_formulas_are_the_documented_ones(self):
        "Counter name and session digest of the program are those of the formulas, for small and large counters."
        self.assertEqual(
            structures.COUNTER_NAME.hex(), "000b2154e1c69f9cc07749a88f9835ad835426aedb46aa9d6c41d6764ac380734878"
        )
        for counter in (0, 1, 2**32, 2**64 - 1):
            self.assertEqual(structures.session_digest(counter), audit_digest(counter))

    def test_attestation_of_another_kind(self):
        "A quote, a certification of NV, of a key or of a time, and what no TPM made, are no session audit."
        quote = bytes.fromhex("00000001000b03010000") + sized(bytes(32))
        nv = sized(b"name") + b"\0\0" + sized((7).to_bytes(8, "big"))
        for kind, body in ((0x8018, quote), (0x8014, nv), (0x8017, sized(b"n") * 2), (0x8019, bytes(25))):
            self.assertEqual(self.failed(kind=kind, body=body), NO_AUDIT)
        for changes in ({"kind": 0x8015}, {"magic": 0xFF544346}, {"magic": 0}):
            self.assertEqual(self.failed(**changes), NO_AUDIT)

    def test_session_is_not_exclusive(self):
        "An audit whose session wasn't exclusive fails."
        self.assertEqual(self.failed(body=b"\0" + sized(audit_digest(7))), {"exclusive"})

    def test_nonce(self):
        "Another nonce, none, one cut short, one longer: the attestation is old or foreign."
        nonce = decoded(self.context["nonce"])
        for other in (os.urandom(32), b"", nonce[:31], nonce + b"\0", nonce[:31] + bytes([nonce[31] ^ 1])):
            self.assertEqual(self.failed(extra_data=other), {"nonce"})

    def test_short_nonce(self):
        "A context whose nonce is not 32 bytes is unusable, though the attestation has that very nonce."
        for nonce in (b"", b"abc", bytes(31), bytes(33)):
            self.context["nonce"] = encoded(nonce)
            self.assert_unusable()

    def test_replay(self):
        "An answer to an earlier context fails with a new one, be the secret known or not."
        old = self.answer()
        self.context = context_for(self.device.report(), self.device.ek.spki)
        self.assertEqual(self.failed(old), {"nonce"})
        self.secret = os.urandom(32)
        self.assertEqual(self.failed(old), {"nonce", "credential"})

    def test_secret(self):
        "Another secret, or a part of it, is no answer to the challenge."
        for other in (os.urandom(32), self.secret[:31], self.secret + b"\0", b""):
            report = self.answer()
            report["tpm2"]["ak"]["actResp"] = encoded(other)
            self.assertEqual(self.failed(report), {"credential"})

    def test_signature_by_another_key(self):
        "A signature by another key, the EK's even, fails."
        for key in (SoftwareKey(self.folder, AK_HEAD), self.device.ek):
            self.assertEqual(self.failed(signer=key), {"signature"})

    def test_signer(self):
        "The qualified name must be that of this AK under this EK: not the plain name, not another parent's."
        other = SoftwareDevice(self.folder)
        for name in (self.device.ak.name, other.qualified_signer(), b"", self.device.qualified_signer() + b"\0"):
            self.assertEqual(self.failed(signer_name=name), {"signer"})

    def test_counter(self):
        "The digest must cover one reading of this counter with this value and nothing else."
        for digest in (
            audit_digest(8),
            sha256(audit_digest(7)),
            bytes(32),
            b"",
            audit_digest(7)[:31],
            audit_digest(7) + b"\0",
            sha256(audit_digest(7) + bytes(64)),
        ):
            self.assertEqual(self.failed(body=b"\1" + sized(digest)), {"counter"})

    def test_value(self):
        "A val that isn't the attested one, or not as a report prints it, fails."
        text = report_text(self.answer())
        values = ["8", "6", "0", "-7", "7.0", "7.5", "07e0", "7e0", "70e-1", "1e999", "-0", "7" * 400]
        values += ["0e0", "0e9999999999999999999", "0.0e-9999999999999999999", "7e-9999999999999999999", "7e+0"]
        for val in values:
            with self.subTest(val):
                changed = text.replace('"val": 7', f'"val": {val}')
                self.assertNotEqual(changed, text)
                if val.startswith("07"):
                    self.assert_unusable(attested=changed)  # no JSON
                else:
                    self.assertEqual(self.failed(changed), {"counter"})

    def test_attestation_key_is_not_restricted(self):
        "An AK that signs anything is no AK, though all names chain and the signature holds; it is told what it has."
        self.device.ak.set_head(AK_HEAD[:4] + bytes.fromhex("00040072") + AK_HEAD[8:])
        self.context = context_for(self.device.report(), self.device.ek.spki)
        self.assertEqual(self.failed(), {"ak-template"})
        told = next(check["detail"] for check in self.verify()[1]["checks"] if check["name"] == "ak-template")
        self.assertTrue(told.endswith(f"fixed to its TPM: its attributes is {0x00040072}"), told)

    def test_templates(self):
        "Every change of the EK's or AK's template fails, though all names chain and the signature holds."
        for key, head in (("ek", EK_HEAD), ("ak", AK_HEAD)):
            for name, changed in wrong_heads(head):
                with self.subTest(f"{key} with another {name}"):
                    getattr(self.device, key).set_head(changed)
                    self.context = context_for(self.device.report(), self.device.ek.spki)
                    self.assertEqual(self.failed(), {f"{key}-template"})
            getattr(self.device, key).set_head(head)

    def test_keys_of_another_type(self):
        "An EK or AK that is no ECC key is refused, though all names chain and the signature holds."
        for key, head in (("ek", EK_HEAD), ("ak", AK_HEAD)):
            for kind in (b"\0\1", b"\0\x25"):
                getattr(self.device, key).set_head(kind + head[2:])
                self.context = context_for(self.device.report(), self.device.ek.spki)
                self.assert_unusable()
            getattr(self.device, key).set_head(head)

    def test_keys_of_another_device(self):
        "Another device's EK, AK or private area in place of the first report's fails."
        other = SoftwareDevice(self.folder)
        fields = {"ek": {"ek-identity"}, "ak": {"ak-identity"}, "ak_private": {"ak-identity"}}
        for field, expected in fields.items():
            mine = getattr(self.device, field)
            setattr(self.device, field, getattr(other, field))
            self.assertEqual(self.failed(), expected)
            setattr(self.device, field, mine)

    def test_another_device(self):
        "The whole answer of another device, which was given context and secret, fails on its keys."
        report = SoftwareDevice(self.folder).answer(self.context, self.secret)
        report["altSerial"], report["serial"] = self.device.alt_serial, self.device.serial
        self.assertEqual(self.failed(report), {"ek-identity", "ak-identity"})

    def test_identity(self):
        "serial, altSerial and cbData must be what the first report and the context say."
        for member, values in {
            "serial": ["0000abce", ""],
            "altSerial": [{}, {"boardSerial": "b 1"}, {"boardSerial": "b 2", "userSerial": "lobby"}],
            "cbData": ["round 2", "", None],
        }.items():
            for value in values:
                report = self.answer()
                report[member] = value
                if value is None:
                    del report[member]
                with self.subTest(member, value=value):
                    self.assertEqual(self.failed(report), {member})
        del self.context["cbData"]
        self.assertEqual(self.failed({**self.answer(), "cbData": "round 1"}), {"cbData"})
        self.assert_unusable(attested={**self.answer(), "cbData": None})


class LargeCounterTest(DeviceTest):
    COUNTERS = [
        2**53 - 1,
        2**53,
        2**53 + 1,
        10**16,
        10**16 + 1,
        2**60 + 12345,
        2**63,
        2**64 - 2049,
        2**64 - 1,
    ]

    def test_exact_counter(self):
        "From a val that is rounded to 16 digits and the attestation's digest the exact counter is found."
        for counter in self.COUNTERS:
            with self.subTest(counter):
                self.device.counter = counter
                self.assertEqual(self.failed(), set())
                self.assertEqual(self.verify()[1]["counter"], str(counter))
                plain = run_attest(*self.verify_arguments()).stdout.decode()
                self.assertTrue(plain.endswith(f"nobody vouched for: the counter is {counter}.\n"))

    def test_any_counter(self):
        "Whatever the counter, it is among those that print alike, and they are all of those."
        source = random.Random(7)
        counters = [source.getrandbits(bits) for bits in range(1, 65)]
        counters += [source.randrange(10**19, 2**64) for _ in range(20)]  # where most of them print alike
        for counter in counters:
            alike = verification.counters_printed_as(f"{float(counter):.16g}")
            self.assertIn(counter, alike)
            self.assertEqual(alike, list(range(alike[0], alike[-1] + 1)))
            for neighbour in (alike[0] - 1, alike[-1] + 1):
                if 0 <= neighbour < 2**64:
                    self.assertNotEqual(f"{float(neighbour):.16g}", f"{float(counter):.16g}")

    def test_rounded_value_is_checked(self):
        "A val that rounds another counter fails also up there, as does another way to write the same number."
        self.device.counter = 2**60 + 12345
        text = report_text(self.answer())
        self.assertIn('"val": 1.152921504606859e+18\n', text)
        printed = "1.152921504606859e+18"
        for val in (printed.replace("9e", "8e"), printed.upper(), "1152921504606859000", str(2**60 + 12345), "2e+19"):
            self.assertEqual(self.failed(text.replace(printed, val)), {"counter"}, val)


class StructureTest(DeviceTest):
    BLOBS = [
        ("ekEccNistP256PubTpm2B",),
        ("ak", "pubTpm2B"),
        ("ak", "privTpm2B"),
        ("ak", "actResp"),
        ("tallyCounter", "att"),
        ("tallyCounter", "sig"),
    ]

    def setUp(self):
        super().setUp()
        self.report = self.answer()
        self.write_exchange(self.report, self.context, self.secret)
        self.quick = QuickVerify(self)
        self.assertEqual(self.quick.status("attested.json", self.report), 0)

    def changed(self, path, change):
        """The report with the member at the path changed."""
        report = copy.deepcopy(self.report)
        holder = report["tpm2"]
        for name in path[:-1]:
            holder = holder[name]
        holder[path[-1]] = change(holder[path[-1]])
        return report

    def test_bytes_too_many_or_too_few(self):
        "A byte more or less at the end or the beginning of any structure fails, as does another size field."
        for path in self.BLOBS:
            for change in (
                lambda data: data + b"\0",
                lambda data: data[:-1],
                lambda data: b"\0" + data,
                lambda data: data[1:],
                lambda data: b"",
                lambda data: data[:1] + bytes([data[1] + 1]) + data[2:] + b"\0",
                lambda data: data * 2,
            ):
                report = self.changed(path, lambda letters, change=change: encoded(change(decoded(letters))))
                self.quick.assert_fails("attested.json", report, path)

    def test_base64_that_is_not_canonical(self):
        "base64 without padding, with blanks, in the URL alphabet or with bits behind the data fails."
        for path in self.BLOBS:
            for change in (
                lambda letters: letters.rstrip("=") if letters.endswith("=") else letters + "=",
                lambda letters: letters + "\n",
                lambda letters: " " + letters,
                lambda letters: letters[:4] + "\n" + letters[4:],
                lambda letters: letters[:8] + "-_-_" + letters[8:],
                lambda letters: letters + "====",
                lambda letters: letters + "é",
                lambda letters: letters + "\0",
            ):
                self.quick.assert_fails("attested.json", self.changed(path, change), path)
        letters = self.report["tpm2"]["ak"]["actResp"]  # 32 bytes: one padding letter, two idle bits
        last = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/".index(letters[-2])
        for idle in (1, 2, 3):
            other = letters[:-2] + "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"[last + idle] + "="
            self.assertEqual(decoded(other), decoded(letters))
            self.quick.assert_fails("attested.json", self.changed(("ak", "actResp"), lambda _, o=other: o), "idle bits")

    def test_signatures_that_are_not_der(self):
        "Another encoding of the same two numbers is no signature, even if openssl took it."

        def integers(data):
            r_end = 4 + data[3]
            return data[4:r_end], data[r_end + 2 :]

        def sequence(body, head=b"\x30"):
            return head + bytes([len(body)]) + body

        r, s = integers(decoded(self.report["tpm2"]["tallyCounter"]["sig"]))
        first, second = sequence(r, b"\2"), sequence(s, b"\2")
        self.assertEqual(encoded(sequence(first + second)), self.report["tpm2"]["tallyCounter"]["sig"])
        body = first + second
        for other in (
            sequence(sequence(b"\0" + r, b"\2") + second),
            sequence(first + sequence(b"\0" + s, b"\2")),
            b"\x30\x81" + bytes([len(body)]) + body,
            b"\x30\x80" + body + b"\0\0",
            sequence(b"\2\x81" + bytes([len(r)]) + r + second),
            sequence(body + b"\5\0"),
            sequence(body + first),
            sequence(first),
            sequence(body, b"\x31"),
            sequence(sequence(r, b"\3") + second),
            sequence(sequence(b"\xff" + r, b"\2") + second),
            sequence(sequence(b"", b"\2") + second),
            sequence(sequence(b"\0", b"\2") * 2),
            b"\x30" + bytes([len(body) + 1]) + body,
            b"\x30" + bytes([len(body) - 1]) + body,
            body,
            b"\x30",
            b"\0",
        ):
            report = self.changed(("tallyCounter", "sig"), lambda _, other=other: encoded(other))
            self.assertEqual(self.quick.status("attested.json", report), 2, other.hex())
        swapped = self.changed(("tallyCounter", "sig"), lambda _: encoded(sequence(second + first)))
        self.assertEqual(self.quick.status("attested.json", swapped), 1)

    def test_coordinates_of_other_sizes(self):
        "A point with coordinates of another size than 32 bytes is refused, in the EK and in the AK."
        for path, key, head in ((self.BLOBS[0], self.device.ek, EK_HEAD), (self.BLOBS[1], self.device.ak, AK_HEAD)):
            x, y = key.spki[-64:-32], key.spki[-32:]
            for area in (sized(b"\0" + x) + sized(y), sized(x[1:]) + sized(y), sized(x) + sized(b""), sized(x), b""):
                report = self.changed(path, lambda _, area=area, head=head: encoded(sized(head + area)))
                self.assertEqual(self.quick.status("attested.json", report), 2, path)

    def test_members(self):
        "Each member removed, given twice, of another type, or joined by an unknown one makes the report unusable."
        for holder_path, name in member_places(self.report):
            for value in (None, True, 5, 1.5, [], {}, "", "text", ["x"], {"x": 1}):
                report = copy.deepcopy(self.report)
                holder = walk(report, holder_path)
                if holder[name] != value:
                    holder[name] = value
                    self.quick.assert_fails("attested.json", report, (holder_path, name))
            report = copy.deepcopy(self.report)
            del walk(report, holder_path)[name]
            self.quick.assert_fails("attested.json", report, f"{name} removed")
            self.assertEqual(self.quick.status("attested.json", self.with_twin(holder_path, name)), 2)
        for holder_path in ((), ("tpm2",), ("tpm2", "ak"), ("tpm2", "tallyCounter"), ("altSerial",)):
            for name in ("", "other", "Serial", "val ", "att\0"):
                report = copy.deepcopy(self.report)
                walk(report, holder_path)[name] = "x"
                self.quick.assert_fails("attested.json", report, f"unknown member {name!r}")

    def with_twin(self, holder_path, name):
        """The report's text with this member twice, both times with the same value."""
        report = copy.deepcopy(self.report)
        walk(report, holder_path)["<twin>"] = walk(report, holder_path)[name]
        text = report_text(report)
        self.assertEqual(text.count("<twin>"), 1)
        return text.replace("<twin>", name)

    def test_context_members(self):
        "A context with a member removed, of another type or changed fails the verification, all but the challenge."
        context = json.loads(json.dumps(self.context))
        for holder_path, name in member_places(context):
            for value in (None, True, 5, [], {}, "", "text"):
                changed = copy.deepcopy(context)
                walk(changed, holder_path)[name] = value
                if name != "actChall":
                    self.quick.assert_fails("context.json", changed, (holder_path, name, value))
            changed = copy.deepcopy(context)
            del walk(changed, holder_path)[name]
            self.quick.assert_fails("context.json", changed, f"{name} removed")


def member_places(value, path=()):
    """The path of the object and the name, for each member at any depth."""
    for name, member in value.items():
        yield path, name
        if isinstance(member, dict):
            yield from member_places(member, (*path, name))


def walk(value, path):
    for name in path:
        value = value[name]
    return value


def garbage():
    """Files that are no JSON object of any use."""
    source = random.Random(1)
    yield from (b"", b" ", b"\0", b"\n", b"{", b"}", b"[]", b"{}", b"null", b"true", b"5", b'"text"', b"[{}]", b"NaN")
    yield from (source.randbytes(length) for length in (1, 2, 10, 100, 1000, 100000))
    for depth in (1000, 500000):
        yield from (b"[" * depth, b'{"tpm2":' * (depth // 8), b"[" * depth + b"]" * depth)
    yield b'{"tpm2":' + b"[" * 100000 + b"]" * 100000 + b"}"
    yield b"9" * 500000
    yield b'{"serial": -Infinity}'
    yield b" " * ((1 << 20) + 1)


class GarbageTest(DeviceTest):
    def test_garbage(self):
        "Random bytes, nothing, deep nesting, long numbers: each is told as an error, whichever file it is."
        for content in garbage():
            self.assert_unusable(attested=content)
            self.assert_unusable(context=content)
        for content in (b"", self.secret[:31], self.secret + b"\n", self.secret.hex(), bytes((1 << 20) + 1)):
            self.assert_unusable(secret=content)

    def test_text_that_is_no_json(self):
        "A good report with a byte order mark, in another encoding, or with something behind it is no report."
        text = report_text(self.answer())
        self.write_exchange(text, self.context, self.secret)
        self.assertEqual(self.verify()[0], 0)
        for content in (
            "\ufeff" + text,
            text.encode("utf-16"),
            text + "{}",
            text + "\0",
            text + " " * (1 << 20),
            text + ",",
            text.replace('"serial": "0000abcd"', '"serial": "\xff"').encode("latin-1"),
            text.replace('"serial": "0000abcd"', '"serial": "\\ud800"'),
            text.replace('"serial": "0000abcd"', '"serial": "\n"'),
            text.replace('"serial": "0000abcd"', "'serial': '0000abcd'"),
            text.replace('"val": 7', '"val": NaN'),
            text.replace('"val": 7', '"val": Infinity'),
            text.replace('"val": 7', '"val": "7"'),
            text.replace('"val": 7', '"val": true'),
            text.replace('"val": 7', '"val": [7]'),
        ):
            self.assertNotEqual(content, text)
            self.assert_unusable(attested=content)

    def test_report_without_answers(self):
        "A report that answers no challenge, or only a part of it, is told so."
        for missing in (("ak", "actResp"), ("tallyCounter", "att"), ("tallyCounter", "sig")):
            report = self.answer()
            del report["tpm2"][missing[0]][missing[1]]
            self.assert_unusable(attested=report)
        self.assert_unusable(attested=self.device.report())

    def test_files_that_cannot_be_read(self):
        "A file that is missing, a folder, without an end, or that fails while it is read is told by its name."
        self.write_exchange(self.answer(), self.context, self.secret)
        arguments = self.verify_arguments("--json")
        for path in (self.path("missing"), self.folder, "/proc/self/mem", "/dev/zero", self.path("x" * 300)):
            for option in ("--report", "--context", "--secret"):
                changed = list(arguments)
                changed[changed.index(option) + 1] = path
                result = run_attest(*changed)
                self.assertEqual(result.returncode, 2)
                self.assertIn(path, json.loads(result.stdout)["error"])

    def test_nothing_is_left_in_temporary_folder(self):
        "Neither command leaves files in the folder for temporary ones, also when it fails."
        temporary = tempfile.mkdtemp(dir=self.folder)
        environment = {**os.environ, "TMPDIR": temporary}
        self.write_exchange(self.answer(), self.context, self.secret)
        self.assertEqual(run_attest(*self.verify_arguments(), env=environment).returncode, 0)
        self.write("attested.json", self.answer(signer=self.device.ek))
        self.assertEqual(run_attest(*self.verify_arguments(), env=environment).returncode, 1)
        for report in (self.device.report(), {}):
            challenge = ("challenge", "--report", self.write("report.json", report), "--secret-out", self.path("made"))
            run_attest(*challenge, env=environment)
        self.assertEqual(os.listdir(temporary), [])
