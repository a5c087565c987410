"""tools/attest and the agent on a software TPM: the whole exchange, and every change to a real answer."""

import copy
import json
import os
import random
import subprocess

from attest_support import ATTEST, AttestTest, QuickVerify, decoded, encoded, run_attest
from harness import IDENTIFIERS, SandboxTest, read_file, run_agent, set_cpuinfo, write_file
from sample_size import sample_size
from tpm_harness import TPM_STATE, restart_tpm, tool

QUIET = {"TSS2_LOG": "all+NONE"}  # the TSS library prints its own lines otherwise
COUNTER, EK = "0x018C811F", "0x8101000A"
IDENTIFIER_LINES = "ORV_USER_SN=lobby left\nORV_BOARD_SN=b/17\nORV_SYSTEM_SN=s\nORV_CHASSIS_SN=c-ü\n"
BASE64 = b"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="


def replace_tpm():
    """Puts a new software TPM in the place of the present one."""
    restart_tpm(os.path.join(TPM_STATE, "other"))


class ExchangeTest(SandboxTest, AttestTest):
    """ExchangeTest runs the steps of an exchange; each leaves its file in the test's folder."""

    def setUp(self):
        SandboxTest.setUp(self)
        AttestTest.setUp(self)
        write_file(IDENTIFIERS, IDENTIFIER_LINES)

    def agent(self, *arguments, output):
        result = run_agent(*arguments)
        self.assert_success(result)
        self.write(output, result.stdout)
        return json.loads(result.stdout)

    def report(self, *options):
        return self.agent("-d", *options, output="report.json")

    def challenge(self, *options, report="report.json"):
        files = ("--report", self.path(report), "--secret-out", self.path("secret.bin"))
        result = run_attest("challenge", *files, *options)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.write("context.json", result.stdout)
        return json.loads(result.stdout)

    def attest(self, *options):
        return self.agent("-d", *options, "-A", self.path("context.json"), output="attested.json")

    def exchange(self, *options):
        self.report()
        self.challenge(*options)
        return self.attest()

    def load_key(self, report):
        """Loads the report's AK for the tpm2-tools, into ak.ctx."""
        session, areas = self.path("session"), {}
        for name in ("pubTpm2B", "privTpm2B"):
            areas[name] = self.write(name, decoded(report["tpm2"]["ak"][name]))
        tool("startauthsession", "--policy-session", "-S", session)
        tool("policysecret", "-Q", "-S", session, "-c", "e")
        key = ["-u", areas["pubTpm2B"], "-r", areas["privTpm2B"], "-c", self.path("ak.ctx")]
        tool("load", "-Q", "-C", EK, *key, "-P", f"session:{session}")
        tool("flushcontext", session)
        tool("flushcontext", "-t")


class EndToEndTest(ExchangeTest):
    def test_exchange(self):
        "Report, challenge, attested report, verification: it holds, in words and for jq, with the right counter."
        self.exchange("--cb-data", "round 1, ü")
        plain = run_attest(*self.verify_arguments())
        self.assertEqual((plain.returncode, plain.stderr), (0, b""))
        end = b"The attestation holds, for an EK that nobody vouched for: the counter is 2.\n"
        self.assertTrue(plain.stdout.endswith(end), plain.stdout)
        output = run_attest(*self.verify_arguments("--json")).stdout
        query = '.ok and .counter == "2" and .error == null and (.checks | length > 10 and all(.ok))'
        subprocess.run(["jq", "-e", query], input=output, check=True, capture_output=True)

    def test_typed_as_documented(self):
        "The commands as a user types them, with redirections and relative names."
        script = """set -e
            "$FEATUREWATCH" -d > report.json
            "$ATTEST" challenge --report report.json --secret-out secret.bin > context.json
            "$FEATUREWATCH" -d -A context.json > attested.json
            tpm2_readpublic -Q -c 0x8101000A -f pem -o ek.pem
            digest=$(openssl pkey -pubin -in ek.pem -outform DER | sha256sum | cut -d ' ' -f 1)
            "$ATTEST" verify --report attested.json --context context.json --secret secret.bin --ek-digest "$digest"
        """
        environment = {**os.environ, **QUIET, "ATTEST": ATTEST}
        command = ["bash", "-c", script]
        result = subprocess.run(command, cwd=self.folder, env=environment, capture_output=True, timeout=60)
        self.assertEqual(result.returncode, 0, result)
        self.assertIn(b"and of --ek-digest", result.stdout)
        self.assertEqual(os.stat(self.path("secret.bin")).st_mode & 0o777, 0o600)

    def test_increments_between(self):
        "With -R between, the counter is one higher each time; the same AK goes on from exchange to exchange."
        self.exchange()
        keys, counters = set(), []
        for options in ((), ("-R",), ("-R",), ()):
            self.challenge(report="attested.json")
            self.attest(*options)
            self.assertEqual(self.failed_checks(), set())
            verdict = self.verify()[1]
            keys.add((verdict["ekDigest"], verdict["akDigest"]))
            counters.append(verdict["counter"])
        self.assertEqual(counters, ["2", "3", "4", "4"])
        self.assertEqual(len(keys), 1)

    def test_without_cb_data(self):
        "An exchange without cbData holds, and so does one with an empty one."
        for options in ((), ("--cb-data", "")):
            self.assertNotIn("cbData", self.exchange(*options))
            self.assertEqual(self.failed_checks(), set())

    def test_replay(self):
        "An old attested report fails with a new context: nonce and secret are others."
        old = self.exchange()
        self.challenge(report="attested.json")
        self.write("attested.json", old)
        self.assertEqual(self.failed_checks(), {"nonce", "credential"})

    def test_old_context_with_new_secret(self):
        "Context and secret belong together: the secret of another challenge fails."
        self.exchange()
        context = read_file(self.path("context.json"))
        self.challenge()
        self.write("context.json", context)
        self.assertEqual(self.failed_checks(), {"credential"})

    def test_changed_identity(self):
        "A device that calls itself otherwise in its answer is noticed, though its TPM is the same."
        self.report()
        self.challenge()
        set_cpuinfo("Serial\t\t: 0000abce\n")
        write_file(IDENTIFIERS, IDENTIFIER_LINES.replace("b/17", "b/18"))
        self.attest()
        self.assertEqual(self.failed_checks(), {"serial", "altSerial"})

    def test_another_device(self):
        "Another device can't use this one's key, and its own answer fails on keys, secret and names."
        first = self.exchange()
        self.assertEqual(self.failed_checks(), set())
        context = self.challenge()
        secret = read_file(self.path("secret.bin"))
        replace_tpm()
        refused = run_agent("-d", "-A", self.path("context.json"))
        self.assertEqual((refused.status, refused.stdout), (1, b""))

        # The other device answers a challenge of its own with the first one's nonce, and puts in the secret.
        self.report()
        own = self.challenge()
        own["nonce"] = context["nonce"]
        self.write("context.json", own)
        foreign = self.attest()
        self.write("context.json", json.dumps(context))
        self.write("secret.bin", secret)
        self.assertEqual(self.failed_checks(), {"ek-identity", "ak-identity", "credential"})
        foreign["tpm2"]["ak"]["actResp"] = encoded(secret)
        for member in ("ekEccNistP256PubTpm2B", "ak"):
            mixed = copy.deepcopy(foreign)
            mixed["tpm2"][member] = first["tpm2"][member]
            self.write("attested.json", mixed)
            self.assertIn("signer", self.failed_checks())
        mixed["tpm2"]["ekEccNistP256PubTpm2B"] = first["tpm2"]["ekEccNistP256PubTpm2B"]
        self.write("attested.json", mixed)
        self.assertEqual(self.failed_checks(), {"credential", "signature", "signer"})

    def test_other_statements_of_the_key(self):
        "A quote and an NV certification that the same AK signed over the same nonce don't pass for a session audit."
        report = self.exchange()
        nonce = decoded(json.loads(read_file(self.path("context.json")))["nonce"]).hex()
        self.load_key(report)
        files = {"att": self.path("att"), "sig": self.path("sig")}
        quote = ["-m", files["att"], "-s", files["sig"], "-f", "plain", "-g", "sha256"]
        tool("quote", "-Q", "-c", self.path("ak.ctx"), "-l", "sha256:0", "-q", nonce, *quote)
        self.assert_only_other_kind(report, files)
        certify = ["--attestation", files["att"], "-o", files["sig"], "-f", "plain", "-g", "sha256", "-s", "ecdsa"]
        tool("nvcertify", "-C", self.path("ak.ctx"), "-c", COUNTER, "-q", nonce, *certify, "--size", "8", COUNTER)
        self.assert_only_other_kind(report, files)

    def assert_only_other_kind(self, report, files):
        """Everything about this statement is right, but for its kind and what hangs on that."""
        for member, path in files.items():
            report["tpm2"]["tallyCounter"][member] = encoded(read_file(path))
        self.write("attested.json", report)
        self.assertEqual(self.failed_checks(), {"kind", "exclusive", "counter"})


class ChangedReportTest(ExchangeTest):
    """Every change to a real answer must fail. All of them go through the program's own main function."""

    def setUp(self):
        super().setUp()
        self.attested = self.exchange("--cb-data", "round 1, ü")
        self.text = read_file(self.path("attested.json"))
        self.quick = QuickVerify(self)
        self.assertEqual(self.quick.status("attested.json", self.text), 0)

    def places(self):
        """Where the texts of the members' names and values stand: line by line, quotes left out."""
        start = 0
        for line in self.text.splitlines(keepends=True):
            quotes = [start + at for at, byte in enumerate(line) if byte == ord('"')]
            yield from ((first + 1, last) for first, last in zip(quotes[::2], quotes[1::2]))
            start += len(line)
        value = self.text.index(b'"val": ') + len(b'"val": ')
        yield value, self.text.index(b"\n", value)

    def is_name(self, end):
        return self.text[end : end + 2] == b'":'

    def assert_text_matters(self, place, others):
        """Each byte there, replaced by each of those that `others` gives for it, fails."""
        for at in range(*place):
            for byte in set(others(self.text[at])) - {self.text[at]}:
                changed = self.text[:at] + bytes([byte]) + self.text[at + 1 :]
                self.quick.assert_fails("attested.json", changed, f"byte {at}, {byte}")

    def test_every_byte_of_short_values(self):
        "Each byte of each short value, replaced by every other byte, fails."
        places = [(start, end) for start, end in self.places() if end - start < 30 and not self.is_name(end)]
        self.assertEqual(len(places), 7)  # serial, four more, cbData, val
        for place in places:
            self.assert_text_matters(place, lambda byte: range(256))
        self.assertEqual(self.quick.changed, 1 + 255 * sum(end - start for start, end in places))

    def test_every_letter_of_names_and_long_values(self):
        "Each letter of each name and each base64 text, replaced by some others and by what is none, fails."
        source = random.Random(3)
        places = [(start, end) for start, end in self.places() if end - start > 30 or self.is_name(end)]
        self.assertEqual(len(places), 6 + 17)  # all members with a name; six of them base64
        for place in places:
            others = lambda byte: [byte ^ 1, source.choice(BASE64), source.randrange(256)]
            self.assert_text_matters(place, others)
        self.assertGreater(self.quick.changed, 2500)

    def assert_blob_matters(self, holder, name, changes):
        """Each byte of the decoded member, combined with each of the changes by exclusive or, fails."""
        report = copy.deepcopy(self.attested)
        values = report["tpm2"][holder] if holder else report["tpm2"]
        data = decoded(values[name])
        for at, byte in enumerate(data):
            for change in changes:
                values[name] = encoded(data[:at] + bytes([byte ^ change]) + data[at + 1 :])
                self.quick.assert_fails("attested.json", report, f"{name}, byte {at}, {change}")
        self.assertEqual(self.quick.changed, 1 + len(data) * len(changes))

    def test_every_byte_of_the_attestation(self):
        "Each byte of the attestation, with one bit, another or all of them turned over, fails."
        self.assert_blob_matters("tallyCounter", "att", [0x01, 0x80, 0xFF])

    def test_every_byte_of_the_signature(self):
        "Each byte of the signature, with one bit, another or all of them turned over, fails."
        self.assert_blob_matters("tallyCounter", "sig", [0x01, 0x80, 0xFF])

    def test_every_byte_of_the_attestation_key(self):
        "Each byte of the AK's public area, with one bit, another or all of them turned over, fails."
        self.assert_blob_matters("ak", "pubTpm2B", [0x01, 0x80, 0xFF])

    def test_every_bit_of_the_endorsement_key(self):
        "Each bit of the EK's public area, turned over, fails."
        self.assert_blob_matters(None, "ekEccNistP256PubTpm2B", [1 << bit for bit in range(8)])

    def test_every_bit_of_the_private_area(self):
        "Each bit of the AK's private area, turned over, fails."
        self.assert_blob_matters("ak", "privTpm2B", [1 << bit for bit in range(8)])

    def test_every_byte_of_the_response(self):
        "Each byte of the answer to the challenge, replaced by every other byte, or by a sample of them, fails."
        self.assert_blob_matters("ak", "actResp", range(1, 256, sample_size(7, 1)))

    def test_sample_through_the_command(self):
        "A sample of such changes fails in the command as well, with status 1 or 2 and never a traceback."
        source = random.Random(5)
        for start, end in self.places():
            at = source.randrange(start, end)
            self.write("attested.json", self.text[:at] + bytes([self.text[at] ^ 1]) + self.text[at + 1 :])
            # As a program: in this process, and those made from it, files are replaced.
            result = run_attest(*self.verify_arguments("--json"), env=os.environ)
            self.assertIn(result.returncode, (1, 2), at)
            verdict = json.loads(result.stdout)
            self.assertEqual((verdict["ok"], verdict["counter"]), (False, None))
