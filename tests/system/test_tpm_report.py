"""The TPM section of the device report: its form, the attested report and what refuses it, -R, and no TPM at all."""

import errno
import json
import os
import re
import subprocess

from harness import RUN, document_bytes, preload, run_agent, set_cpuinfo, write_file
from tpm_harness import (
    AES,
    AK_ATTRIBUTES,
    CFB,
    COUNTER,
    COUNTER_CREATED,
    ECDSA,
    EK_ATTRIBUTES,
    EK_HANDLE,
    EK_POLICY,
    NO_INCREMENT,
    NO_REPORT,
    NULL,
    SHA256,
    PreparedTpmTest,
    TpmTest,
    context,
    counter,
    default_ek,
    evict_ek,
    flush_all,
    handles,
    make_challenge,
    name_of,
    nv_define,
    nv_undefine,
    parse_public,
    parse_report,
    restart_tpm,
    scratch,
    spki,
    stop_tpm,
    tool,
    tss_failure,
    verify_attestation,
    with_attributes,
    without_tpm_section,
)

NONCE = bytes(range(32))
SECRET = b"the secret of the challenge"

LOAD_FAILED = "failed to load attestation key in endorsement hierarchy"
AREAS_UNREADABLE = "failed de-serializing AK areas"
ACTIVATION_FAILED = "failed to activate attestation key"
CHALLENGE_UNREADABLE = "failed de-serializing encrypted data for attestation key activation"
NO_KEY_LOADED = ("ERROR", "cannot activate attestation key if none is loaded")


def too_long(length):
    return ("ERROR", f"qualifying data exceed maximum size ({length} > 64)")


class FormTest(TpmTest):
    def test_first_report(self):
        "The first report on a TPM makes keys and counter with one INFO record, and has the document's exact bytes."
        result = run_agent("-d")
        report = self.assert_reported(result, COUNTER_CREATED)
        self.assertEqual(report.value, 2)
        count = lambda match: f"{len(match[0]) - 2} letters"
        text = re.sub(r'"[A-Za-z0-9+/]{90,}={0,2}"', count, result.stdout.decode())
        expected = """{
\t"altSerial": { },
\t"serial": "0000abcd",
\t"tpm2": {
\t\t"ak": {
\t\t\t"privTpm2B": 172 letters,
\t\t\t"pubTpm2B": 120 letters
\t\t},
\t\t"ekEccNistP256PubTpm2B": 168 letters,
\t\t"tallyCounter": {
\t\t\t"val": 2
\t\t}
\t}
}
"""
        self.assertEqual(text, expected)

    def test_member_order_of_an_attested_report(self):
        "An attested report has all members, each object's in the order of their keys."
        first = parse_report(run_agent("-d").stdout)
        challenge = make_challenge(first.ek, first.ak_public, SECRET)
        result = self.run_with_context(context(NONCE, first.key, challenge, cbData="text"))
        self.assert_reported(result)
        pairs = json.loads(result.stdout, object_pairs_hook=lambda members: members)
        keys = lambda members: [key for key, _ in members]
        self.assertEqual(keys(pairs), ["altSerial", "cbData", "serial", "tpm2"])
        section = dict(pairs)["tpm2"]
        self.assertEqual(keys(section), ["ak", "ekEccNistP256PubTpm2B", "tallyCounter"])
        self.assertEqual(keys(dict(section)["ak"]), ["actResp", "privTpm2B", "pubTpm2B"])
        self.assertEqual(keys(dict(section)["tallyCounter"]), ["att", "sig", "val"])

    def test_rest_of_the_document_is_untouched(self):
        "The section changes nothing of the other members."
        result = self.run_with_context({"cbData": "ü"})
        self.assertEqual(
            without_tpm_section(result.stdout), document_bytes({"altSerial": {}, "cbData": "ü", "serial": "0000abcd"})
        )

    def test_jq_reads_it(self):
        "Another JSON parser reads the same values."
        result = run_agent("-d")
        program = ".tpm2 | .ak.privTpm2B, .ak.pubTpm2B, .ekEccNistP256PubTpm2B, .tallyCounter.val"
        read = subprocess.run(["jq", "-r", program], input=result.stdout, capture_output=True, check=True)
        section = json.loads(result.stdout)["tpm2"]
        expected = [section["ak"]["privTpm2B"], section["ak"]["pubTpm2B"], section["ekEccNistP256PubTpm2B"], "2"]
        self.assertEqual(read.stdout.decode().splitlines(), expected)

    def test_endorsement_key(self):
        "The EK is the one that the TPM makes from the default template, and has that template's fields."
        report = parse_report(run_agent("-d").stdout)
        flush_all()
        self.assertEqual(len(report.ek), 124)
        self.assertEqual(report.ek, default_ek())
        key = parse_public(report.ek)
        self.assertEqual((key.attributes, key.policy), (EK_ATTRIBUTES, EK_POLICY))
        self.assertEqual((key.symmetric, key.scheme), ((AES, 128, CFB), (NULL,)))
        self.assertEqual((len(key.x), len(key.y)), (32, 32))

    def test_attestation_key(self):
        "The AK is a restricted ECDSA key with the template's fields, 90 bytes of public and 128 of private area."
        report = parse_report(run_agent("-d").stdout)
        self.assertEqual((len(report.ak_public), len(report.ak_private)), (90, 128))
        key = parse_public(report.ak_public)
        self.assertEqual((key.attributes, key.policy), (AK_ATTRIBUTES, b""))
        self.assertEqual((key.symmetric, key.scheme), ((NULL,), (ECDSA, SHA256)))
        self.assertEqual((len(key.x), len(key.y)), (32, 32))

    def test_other_tools_read_the_keys(self):
        "tpm2_print and openssl read both keys, and the TPM takes the public areas with the names they must have."
        report = parse_report(run_agent("-d").stdout)
        flush_all()
        rows = [(report.ek, "restricted|decrypt"), (report.ak_public, "restricted|sign")]
        for public, attributes in rows:
            with self.subTest(attributes), scratch() as path:
                printed = tool("print", "-t", "TPM2B_PUBLIC", path("public", public)).decode()
                self.assertIn(attributes, printed)
                self.assertIn("NIST p256", printed)
                command = ["openssl", "pkey", "-pubin", "-inform", "DER", "-noout", "-pubcheck"]
                subprocess.run(command, input=spki(public), capture_output=True, check=True)
                tool("loadexternal", "-Q", "-C", "n", "-u", path("public"), "-c", path("context"), "-n", path("name"))
                with open(path("name"), "rb") as stream:
                    self.assertEqual(stream.read(), name_of(public))
                tool("flushcontext", "-t")

    def test_private_area_belongs_to_the_key(self):
        "Another program of this TPM can load the AK's two areas below the EK."
        report = parse_report(run_agent("-d").stdout)
        flush_all()
        with scratch() as path:
            session = path("session")
            tool("startauthsession", "--policy-session", "-S", session)
            tool("policysecret", "-S", session, "-c", "e")
            areas = ["-u", path("public", report.ak_public), "-r", path("private", report.ak_private)]
            tool("load", "-Q", "-C", hex(EK_HANDLE), "-P", f"session:{session}", *areas, "-c", path("key"))
            flush_all()

    def test_each_plain_report_makes_a_new_attestation_key(self):
        "EK and value stay from one plain report to the next, without a record; the AK is new each time."
        reports = [self.assert_reported(run_agent("-d"), COUNTER_CREATED)]
        reports += [self.assert_reported(run_agent("-d")) for _ in range(3)]
        self.assertEqual({report.ek for report in reports}, {reports[0].ek})
        self.assertEqual([report.value for report in reports], [2] * 4)
        self.assertEqual(len({report.ak_public for report in reports}), 4)
        self.assertEqual(len({report.ak_private for report in reports}), 4)

    def test_nothing_but_the_first_copy_of_the_endorsement_key_stays(self):
        "The run that makes the EK leaves its transient copy, every other run nothing, until the TPM starts again."
        self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        left = handles("transient")
        self.assertEqual(len(left), 1)
        for options in (["-d"], ["-R"]):
            self.assert_reported(run_agent(*options))
            self.assert_reported(self.run_with_context(context(NONCE), *options))
            self.assertEqual(handles("transient"), left)
        self.assertEqual((handles("persistent"), handles("nv-index")), ([EK_HANDLE], [COUNTER]))
        restart_tpm()
        self.assertEqual(handles("transient"), [])
        for options in (["-d"], ["-R"]):
            self.assert_reported(run_agent(*options))
            self.assert_reported(self.run_with_context(context(NONCE), *options))
            self.assert_nothing_loaded()
        self.assertEqual((handles("persistent"), handles("nv-index")), ([EK_HANDLE], [COUNTER]))

    def test_silent_report_is_the_same(self):
        "With -s the first report comes without its INFO record."
        self.assertEqual(self.assert_reported(run_agent("-s", "-d")).value, 2)
        self.assertEqual(self.syslog.texts(), [])

    def test_record_in_syslog(self):
        "Records of the TPM work go to syslog under their own logger."
        run_agent("-d")
        self.assertEqual(self.syslog.texts(), ["INFO  orv.tally            - " + COUNTER_CREATED[1]])

    def test_lines_of_the_library_stay_out_of_the_report(self):
        "What the TSS library writes is on standard error, beside the records, and nowhere else."
        result = run_agent("-d", env={"TSS2_LOG": "all+WARNING"})
        self.assert_records(result, COUNTER_CREATED)
        self.assertTrue(result.other_lines)
        self.assertEqual(parse_report(result.stdout).value, 2)

    def test_other_members_of_the_tpm_are_left_alone(self):
        "Objects and indices of others, right above the agent's own too, are neither taken for its own nor touched."
        others = [0x01C0000D, 0x018C8121, 0x018C8200]
        for index in others:
            nv_define(index)
        with scratch() as path:
            tool("createprimary", "-Q", "-C", "o", "-c", path("key"))
            tool("evictcontrol", "-Q", "-C", "o", "-c", path("key"), hex(EK_HANDLE + 1))
            tool("flushcontext", "-t")
        self.assert_reported(run_agent("-R"), COUNTER_CREATED)
        self.assertEqual(handles("persistent"), [EK_HANDLE, EK_HANDLE + 1])
        self.assertEqual(handles("nv-index"), sorted([COUNTER, *others]))


class EarlierKeyTest(PreparedTpmTest):
    """EarlierKeyTest has the attestation key of an earlier report, as the other party would give it back."""

    def setUp(self):
        super().setUp()
        self.earlier = parse_report(run_agent("-d").stdout)
        self.key = self.earlier.key

    def challenge(self, secret=SECRET):
        return make_challenge(self.earlier.ek, self.earlier.ak_public, secret)


class AttestedReportTest(EarlierKeyTest):
    def report(self, members, *options):
        report = self.assert_reported(self.run_with_context(members, *options))
        self.assert_nothing_loaded()
        return report

    def test_context_without_nonce_is_certified_with_an_empty_one(self):
        "The file's presence, not what it holds, has the counter certified: without a nonce the extra data are empty."
        for members in ({}, {"cbData": "text"}, {"tpm2": {}}, {"other": 1}):
            with self.subTest(members):
                report = self.report(members)
                self.assertIsNone(report.answer)
                verify_attestation(report, b"")

    def test_plain_report_is_not_certified(self):
        "Without a context there is neither attestation nor signature nor answer."
        report = self.assert_reported(run_agent("-d"))
        self.assertEqual((report.attestation, report.signature, report.answer), (None, None, None))

    def test_attestation_carries_the_nonce(self):
        "A nonce of 1 to 64 bytes is what the attestation carries."
        for nonce in (b"\0", b"x", b"\xff" * 31, NONCE, b"n" * 63, bytes(64), os.urandom(64)):
            with self.subTest(len(nonce)):
                report = self.report(context(nonce))
                self.assertIsNone(report.answer)
                verify_attestation(report, nonce)

    def test_nonce_that_is_too_long(self):
        "A nonce of 65 bytes or more is refused."
        for length in (65, 66, 1000, 65536, 70000):
            with self.subTest(length):
                self.assert_failed(self.run_with_context(context(b"n" * length)), too_long(length), NO_REPORT)
                self.assert_nothing_loaded()

    def test_key_challenge_and_nonce(self):
        "With all three the answer is the secret, the key comes back, and it has attested this nonce."
        report = self.report(context(NONCE, self.key, self.challenge()))
        self.assertEqual(report.answer, SECRET)
        self.assertEqual(report.key, self.key)
        self.assertEqual((report.ek, report.value), (self.earlier.ek, self.earlier.value))
        verify_attestation(report, NONCE)

    def test_key_without_challenge(self):
        "A key alone gives no answer; it certifies and comes back byte for byte."
        report = self.report(context(NONCE, self.key))
        self.assertIsNone(report.answer)
        self.assertEqual(report.key, self.key)
        verify_attestation(report, NONCE)

    def test_key_that_certified_may_come_back(self):
        "The AK that an attested report made is the one that certified, and later reports take it."
        first = self.report(context(NONCE))
        verify_attestation(first, NONCE)
        self.assertNotEqual(first.ak_public, self.earlier.ak_public)
        challenge = make_challenge(first.ek, first.ak_public, SECRET)
        second = self.report(context(b"another", first.key, challenge))
        self.assertEqual((second.answer, second.key), (SECRET, first.key))
        verify_attestation(second, b"another")

    def test_key_lives_on_over_a_restart(self):
        "A key is good after the TPM was restarted."
        restart_tpm()
        report = self.report(context(NONCE, self.key, self.challenge()))
        self.assertEqual((report.answer, report.key), (SECRET, self.key))
        verify_attestation(report, NONCE)

    def test_context_may_be_used_again(self):
        "The same context serves many times; each signature is a new one over the same facts."
        members = context(NONCE, self.key, self.challenge())
        reports = [self.report(members) for _ in range(4)]
        for report in reports:
            self.assertEqual((report.answer, report.key), (SECRET, self.key))
            verify_attestation(report, NONCE)
        self.assertEqual(len({report.signature for report in reports}), 4)

    def test_any_secret_comes_back_exactly(self):
        "Any secret of 1 to 32 bytes comes back exactly, blanks and zeros included."
        for secret in (b"x", b"\0", b"\0" * 32, os.urandom(16), b" secret ", os.urandom(32)):
            with self.subTest(secret):
                self.assertEqual(self.report(context(key=self.key, challenge=self.challenge(secret))).answer, secret)

    def test_bytes_behind_the_parts_are_ignored(self):
        "Bytes after the challenge and after the areas do no harm, and don't come back."
        key = tuple(area + b"behind" for area in self.key)
        report = self.report(context(NONCE, key, self.challenge() + b"behind"))
        self.assertEqual((report.answer, report.key), (SECRET, self.key))
        verify_attestation(report, NONCE)

    def test_verification_finds_a_false_report(self):
        "The verification of these tests refuses another nonce, value, key, attestation and signature."
        report = self.report(context(NONCE, self.key))
        other = self.report(context(NONCE))
        flipped = bytearray(report.attestation)
        flipped[-1] ^= 1
        changes = [
            {"value": report.value + 1},
            {"ak_public": other.ak_public},
            {"ek": other.ak_public},
            {"attestation": bytes(flipped)},
            {"signature": other.signature},
        ]
        verify_attestation(report, NONCE)
        for change in changes:
            with self.subTest(list(change)), self.assertRaises(AssertionError):
                verify_attestation(type(report)(**{**vars(report), **change}), NONCE)
        with self.assertRaises(AssertionError):
            verify_attestation(report, NONCE + b"x")


class RefusedContextTest(EarlierKeyTest):
    """RefusedContextTest has well-formed contexts that make no sense to this TPM: each ends without a report."""

    def assert_refused(self, members, *records):
        before = counter()
        self.assert_failed(self.run_with_context(members), *records, NO_REPORT)
        self.assert_nothing_loaded()
        self.assertEqual(counter(), before)

    def assert_key_refused(self, key, *records):
        """With this key there is no report, whether or not it has a challenge to answer."""
        for challenge in (None, self.challenge()):
            self.assert_refused(context(NONCE, key, challenge), *records)

    def test_challenge_without_key(self):
        "A challenge without a key is passed on, and refused because no key is loaded, even if it is not one."
        for challenge in (self.challenge(), b"nonsense"):
            self.assert_refused(context(NONCE, challenge=challenge), NO_KEY_LOADED)

    def test_key_of_another_tpm(self):
        "A key that another TPM made is refused by this one, and good there."
        restart_tpm(self.work_path("other-tpm"))
        other = parse_report(run_agent("-d").stdout)
        self.assertNotEqual(other.ek, self.earlier.ek)
        flush_all()
        self.assert_reported(self.run_with_context(context(NONCE, other.key)))
        self.assert_refused(context(NONCE, self.key), tss_failure(LOAD_FAILED, 0x1DF))
        restart_tpm()
        self.assert_key_refused(other.key, tss_failure(LOAD_FAILED, 0x1DF))
        self.assert_reported(self.run_with_context(context(NONCE, self.key)))

    def test_damaged_private_area(self):
        "A private area with a bit changed anywhere after its sizes is refused."
        for position in (4, 20, 40, 80, 127):
            private = bytearray(self.earlier.ak_private)
            private[position] ^= 1
            with self.subTest(position):
                damaged = (self.earlier.ak_public, bytes(private))
                self.assert_refused(context(key=damaged), tss_failure(LOAD_FAILED, 0x1DF))

    def test_private_area_that_is_none(self):
        "A private area that cannot be read is not looked at before the TPM refuses it."
        for private in (b"x", b"\0\0", self.earlier.ak_private[:-1], b"\xff" * 200, self.earlier.ak_private[:2]):
            with self.subTest(private):
                self.assert_key_refused((self.earlier.ak_public, private), tss_failure(LOAD_FAILED, 0x1D5))

    def test_areas_of_different_keys(self):
        "The public area of one key does not go with the private area of another."
        other = parse_report(run_agent("-d").stdout)
        self.assert_key_refused((other.ak_public, self.earlier.ak_private), tss_failure(LOAD_FAILED, 0x1DF))

    def test_public_area_that_is_none(self):
        "A public area that cannot be read is refused before the TPM sees it."
        for public in (b"x", b"\0", self.earlier.ak_public[:-1], self.earlier.ak_public[:20]):
            with self.subTest(public):
                self.assert_key_refused((public, self.earlier.ak_private), tss_failure(AREAS_UNREADABLE, 0x90006))

    def test_key_that_is_no_restricted_signing_key(self):
        "A key that is not both restricted and a signing key is refused with its attributes, and not even tried."
        rows = [0x00040072, 0x00010072, 0, AK_ATTRIBUTES & ~0x00010000, EK_ATTRIBUTES, 0xFFFAFFFF]
        text = "an attestation key must be a restricted signing key, cannot load key with attributes 0x%x)"
        for attributes in rows:
            with self.subTest(hex(attributes)):
                public = with_attributes(self.earlier.ak_public, attributes)
                self.assert_key_refused((public, self.earlier.ak_private), ("ERROR", text % attributes))
        self.assert_key_refused((self.earlier.ek, self.earlier.ak_private), ("ERROR", text % EK_ATTRIBUTES))

    def test_key_with_other_attributes_that_pass(self):
        "A restricted signing key whose attributes were changed is refused by the TPM."
        for attributes in (AK_ATTRIBUTES & ~0x40, 0x00050000, AK_ATTRIBUTES | 0x80, AK_ATTRIBUTES | 0x400):
            with self.subTest(hex(attributes)):
                public = with_attributes(self.earlier.ak_public, attributes)
                self.assert_key_refused((public, self.earlier.ak_private), tss_failure(LOAD_FAILED, 0x1DF))

    def test_challenge_for_another_key(self):
        "A challenge made for another AK or another EK is not answered."
        other = parse_report(run_agent("-d").stdout)
        challenge = make_challenge(self.earlier.ek, other.ak_public, SECRET)
        self.assert_refused(context(NONCE, self.key, challenge), tss_failure(ACTIVATION_FAILED, 0x1DF))
        restart_tpm(self.work_path("other-tpm"))
        elsewhere = parse_report(run_agent("-d").stdout)
        restart_tpm()
        challenge = make_challenge(elsewhere.ek, self.earlier.ak_public, SECRET)
        self.assert_refused(context(NONCE, self.key, challenge), tss_failure(ACTIVATION_FAILED, 0x1DF))

    def test_damaged_challenge(self):
        "A challenge with a bit changed is not answered."
        challenge = self.challenge()
        for position in (4, 35, 40):
            damaged = bytearray(challenge)
            damaged[position] ^= 1
            with self.subTest(position):
                self.assert_refused(context(NONCE, self.key, bytes(damaged)), tss_failure(ACTIVATION_FAILED, 0x1DF))

    def test_cut_challenge(self):
        "A challenge that breaks off anywhere is refused with the same record, be it in its first or its second part."
        challenge = self.challenge()
        first = 2 + int.from_bytes(challenge[:2], "big")
        for length in (1, 2, 3, first - 1, first, first + 1, first + 2, len(challenge) - 1):
            with self.subTest(length):
                cut = context(NONCE, self.key, challenge[:length])
                self.assert_refused(cut, tss_failure(CHALLENGE_UNREADABLE, 0x90006))

    def test_empty_secret(self):
        "An empty secret is not an answer: there is no report, and no record but the last."
        self.assert_refused(context(NONCE, self.key, self.challenge(b"")))

    def test_order_of_the_steps(self):
        "The key is loaded first, then the challenge answered, then the counter certified."
        bad_key = (self.earlier.ak_public, self.earlier.ak_private[:-1])
        load_failed = tss_failure(LOAD_FAILED, 0x1D5)
        unreadable = tss_failure(CHALLENGE_UNREADABLE, 0x90006)
        self.assert_refused(context(b"n" * 65, bad_key, b"x"), load_failed)
        self.assert_refused(context(b"n" * 65, self.key, b"x"), unreadable)
        self.assert_refused(context(b"n" * 65, self.key, self.challenge()), too_long(65))

    def test_silent_refusal(self):
        "With -s only the FATAL record is left."
        result = self.run_with_context(context(b"n" * 65), "-s", "-d")
        self.assertEqual((result.status, result.stdout), (1, b""))
        self.assertEqual(result.stderr, b"FATAL: failed collecting device information\n")


class FreshRefusalTest(TpmTest):
    def test_bad_context_leaves_the_tpm_alone(self):
        "A file that is not a context, and identifiers that cannot be read, fail before the TPM is touched."
        self.assert_failed(run_agent("-d", "-A", "missing"), ("ERROR", "failed to open missing"), NO_REPORT)
        set_cpuinfo("")
        self.assert_failed(run_agent("-d"), ("ERROR", "failed to load serial number"), NO_REPORT)
        self.assertEqual((handles("persistent"), handles("nv-index"), handles("transient")), ([], [], []))

    def test_bad_key_comes_before_the_counter(self):
        "A key or challenge that is refused leaves the counter unmade, but the EK is there."
        rows = [
            (context(key=(b"x", b"x")), tss_failure(AREAS_UNREADABLE, 0x90006)),
            (context(challenge=b"x"), NO_KEY_LOADED),
        ]
        for members, record in rows:
            self.assert_failed(self.run_with_context(members), record, NO_REPORT)
            self.assertEqual((handles("persistent"), handles("nv-index")), ([EK_HANDLE], []))

    def test_long_nonce_comes_after_the_counter(self):
        "A nonce that is refused leaves the counter made."
        self.assert_failed(self.run_with_context(context(b"n" * 65)), COUNTER_CREATED, too_long(65), NO_REPORT)
        self.assertEqual(counter(), 2)

    def test_first_report_may_be_attested(self):
        "On a fresh TPM an attested report makes all that it needs."
        report = self.assert_reported(self.run_with_context(context(NONCE)), COUNTER_CREATED)
        self.assertEqual(report.value, 2)
        verify_attestation(report, NONCE)

    def test_whole_work_in_the_run_that_makes_the_endorsement_key(self):
        "-R with key, challenge and nonce works in a run that makes the EK, though the TPM has little room then."
        first = parse_report(run_agent("-d").stdout)
        flush_all()
        evict_ek()
        challenge = make_challenge(first.ek, first.ak_public, SECRET)
        result = self.run_with_context(context(NONCE, first.key, challenge), "-R")
        report = self.assert_reported(result)
        self.assertEqual((report.answer, report.key, report.ek), (SECRET, first.key, first.ek))
        self.assertEqual(report.value, first.value + 1)
        verify_attestation(report, NONCE)


class IncrementTest(TpmTest):
    def test_first_increment(self):
        "-R on a fresh TPM makes the counter, which adds one, and then adds one."
        self.assertEqual(self.assert_reported(run_agent("-R"), COUNTER_CREATED).value, 3)

    def test_later_increments(self):
        "Each -R adds one and reports the new value; a plain report adds nothing."
        first = self.assert_reported(run_agent("-d"), COUNTER_CREATED).value
        for number in range(1, 6):
            self.assertEqual(self.assert_reported(run_agent("-R")).value, first + number)
            self.assertEqual(self.assert_reported(run_agent("-d")).value, first + number)

    def test_with_other_options(self):
        "-R with -d, itself again, or -s adds one as well."
        first = self.assert_reported(run_agent("-d"), COUNTER_CREATED).value
        for number, options in enumerate((["-R", "-d"], ["-d", "-R"], ["-R", "-R"], ["-R", "-s"], ["-s", "-R"]), 1):
            with self.subTest(options):
                self.assertEqual(self.assert_reported(run_agent(*options)).value, first + number)

    def test_silent_first_increment(self):
        "-R -s on a fresh TPM logs nothing."
        self.assertEqual(self.assert_reported(run_agent("-R", "-s")).value, 3)

    def test_with_context(self):
        "-R with a context certifies the new value, with its key, challenge and nonce."
        first = parse_report(run_agent("-d").stdout)
        flush_all()
        challenge = make_challenge(first.ek, first.ak_public, SECRET)
        for number, members in enumerate(({}, context(NONCE), context(NONCE, first.key, challenge)), 1):
            report = self.assert_reported(self.run_with_context(members, "-R"))
            self.assertEqual(report.value, first.value + number)
            verify_attestation(report, NONCE if "nonce" in members else b"")
            self.assert_nothing_loaded()
        self.assertEqual((report.answer, report.key), (SECRET, first.key))

    def test_increment_comes_before_the_report(self):
        "The counter is incremented before context and identifiers are read, so a report that fails has added one."
        run_agent("-d")
        value = counter()
        self.assert_failed(run_agent("-R", "-A", "missing"), ("ERROR", "failed to open missing"), NO_REPORT)
        self.assertEqual(counter(), value + 1)
        set_cpuinfo("")
        self.assert_failed(run_agent("-R"), ("ERROR", "failed to load serial number"), NO_REPORT)
        self.assertEqual(counter(), value + 2)

    def test_refused_combination_does_not_increment(self):
        "A refused combination with -R leaves the TPM alone."
        for options in (["-R", "-w"], ["-R", "-k"], ["-R", "foo"], ["-h", "-R"]):
            run_agent(*options)
        self.assertEqual((handles("persistent"), handles("nv-index")), ([], []))
        self.assertEqual(os.listdir(RUN), [])


class BrokenPipeTest(PreparedTpmTest):
    """BrokenPipeTest has nobody read what a report writes: it ends in order, as only it can give back its session."""

    REFUSED = ("ERROR", f"failed to write the device report: {os.strerror(errno.EPIPE)}")

    def broken_pipe(self):
        """The writing end of a pipe whose reader is gone."""
        reader, writer = os.pipe()
        os.close(reader)
        self.addCleanup(os.close, writer)
        return writer

    def test_report_without_a_reader(self):
        "A report that nobody reads fails with two records and leaves nothing loaded; -R has added one all the same."
        value = counter()
        path = write_file(self.work_path("context.json"), context(NONCE))
        for options, increment in ((["-d"], 0), (["-R"], 1), (["-d", "-A", path], 0), (["-R", "-A", path], 1)):
            with self.subTest(options):
                self.assert_failed(run_agent(*options, stdout=self.broken_pipe()), self.REFUSED, NO_REPORT)
                self.assert_nothing_loaded()
                value += increment
                self.assertEqual(counter(), value)

    def test_records_without_a_reader(self):
        "With nobody reading the records a report is printed, another refused as ever, and nothing is left loaded."
        nv_undefine(COUNTER)
        report = self.assert_reported(run_agent("-d", stderr=self.broken_pipe()))
        self.assert_nothing_loaded()
        self.assertEqual(self.syslog.texts(), ["INFO  orv.tally            - " + COUNTER_CREATED[1]])
        self.assert_failed(self.run_with_context(context(b"n" * 65), stderr=self.broken_pipe()))
        self.assert_nothing_loaded()
        self.assertEqual(counter(), report.value)
        self.assertEqual(len(self.syslog.texts()), 3)


class UnprintableKeyTest(PreparedTpmTest):
    def test_endorsement_key_that_cannot_be_serialised_refuses_the_report(self):
        "An EK whose area cannot be written out refuses the report with the record on it, and leaves nothing loaded."
        result = run_agent("-d", env=preload(TEST_FAIL="Tss2_MU_TPM2B_PUBLIC_Marshal"))
        failure = tss_failure("failed serializing EK public area", 0x90001)
        self.assert_failure(result, failure, NO_REPORT)
        self.assertEqual([handles("transient"), handles("loaded-session")], [[], []])


class NoTpmTest(TpmTest):
    NOT_OPENED = tss_failure("failed to open TPM2", 0xA000A)

    def setUp(self):
        super().setUp()
        stop_tpm()

    def assert_not_reached(self, result, fatal):
        self.assert_failure(result, self.NOT_OPENED, fatal)
        self.assertEqual(result.other_lines, [])

    def test_no_report_without_a_tpm(self):
        "Without a TPM there is no report, attested or not."
        path = write_file(self.work_path("context.json"), context(NONCE))
        self.assert_not_reached(run_agent("-d"), NO_REPORT)
        self.assert_not_reached(run_agent("-d", "-A", path), NO_REPORT)

    def test_no_increment_without_a_tpm(self):
        "Without a TPM -R fails before the report begins."
        self.assert_not_reached(run_agent("-R"), NO_INCREMENT)
        self.assert_not_reached(run_agent("-R", "-A", "missing"), NO_INCREMENT)

    def test_earlier_failures_come_first(self):
        "A bad context or bad identifiers fail the plain report before the TPM is looked for."
        self.assert_failure(run_agent("-d", "-A", "missing"), ("ERROR", "failed to open missing"), NO_REPORT)
        set_cpuinfo("")
        self.assert_failure(run_agent("-d"), ("ERROR", "failed to load serial number"), NO_REPORT)

    def test_silent_failure_shows_only_the_fatal_record(self):
        "With -s only the FATAL record is left."
        for option, fatal in (("-d", NO_REPORT), ("-R", NO_INCREMENT)):
            result = run_agent("-s", option)
            self.assertEqual((result.status, result.stdout), (1, b""))
            self.assertEqual(result.stderr.decode(), f"FATAL: {fatal[1]}\n")

    def test_other_modes_need_no_tpm(self):
        "The features document and the usage lines come without a TPM and without a record."
        for arguments in ([], ["-h"]):
            result = run_agent(*arguments)
            self.assert_success(result)
            self.assertEqual(result.stderr, b"")
