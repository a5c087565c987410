"""The helpers with the TPM themselves: another TPM must be another one, and a wrong report must be called wrong."""

import json
import os

from harness import WORK, document_bytes, is_alive, read_file, run_agent
from tpm_harness import (
    COUNTER,
    TPM_PID_FILE,
    PreparedTpmTest,
    TpmTest,
    counter,
    decode_base64,
    default_ek,
    handles,
    nv_define,
    nv_increment,
    openssl_verifies,
    parse_public,
    parse_report,
    restart_tpm,
    scratch,
    start_tpm,
    stop_tpm,
    tool,
    tss_failure,
    without_tpm_section,
)


class TpmControlTest(TpmTest):
    def test_restart_keeps_what_is_persistent(self):
        "A restart keeps the state and empties the memory; another folder is another TPM, and the first is as before."
        nv_define(COUNTER)
        nv_increment(COUNTER)
        ek = default_ek()
        with scratch() as path:
            tool("createprimary", "-Q", "-C", "n", "-c", path("key"))
        self.assertEqual(len(handles("transient")), 1)
        restart_tpm()
        self.assertEqual((handles("transient"), counter(), default_ek()), ([], 1, ek))
        restart_tpm(self.work_path("other"))
        self.assertEqual(handles("nv-index"), [])
        self.assertNotEqual(default_ek(), ek)
        restart_tpm()
        self.assertEqual((counter(), default_ek()), (1, ek))

    def test_stopped_tpm_is_gone(self):
        "A stopped TPM answers nobody until it is started again."
        pid = int(read_file(TPM_PID_FILE))
        self.assertTrue(is_alive(pid))
        stop_tpm()
        self.assertFalse(is_alive(pid))
        with self.assertRaises(AssertionError):
            handles("persistent")
        start_tpm()
        self.assertEqual(handles("persistent"), [])

    def test_scratch_leaves_nothing(self):
        "The files of a scratch folder are gone afterwards."
        with scratch() as path:
            self.assertEqual(read_file(path("name", b"data")), b"data")
            folder = os.path.dirname(path("name"))
        self.assertFalse(os.path.exists(folder))
        self.assertEqual(os.listdir(WORK), [])


class ReportFormTest(PreparedTpmTest):
    def setUp(self):
        super().setUp()
        self.data = run_agent("-d").stdout
        self.document = json.loads(self.data)

    def assert_wrong(self, data):
        for check in (parse_report, without_tpm_section):
            with self.assertRaises((AssertionError, ValueError, KeyError)):
                check(data)

    def test_wrong_forms_are_found(self):
        "Any change of the document's form is found."
        parse_report(self.data)
        for data in (self.data[:-1], self.data + b"\n", self.data.replace(b"\t", b" "), b"", b"{ }\n"):
            with self.subTest(data[-20:]):
                self.assert_wrong(data)
        self.assert_wrong(json.dumps(self.document).encode())

    def test_wrong_members_are_found(self):
        "A missing, additional or wrong member is found."
        section = self.document["tpm2"]
        public = section["ak"]["pubTpm2B"]
        key, tally = section["ak"], section["tallyCounter"]
        changes = [
            {**section, "other": 1},
            {"ak": key, "tallyCounter": tally},
            {**section, "ak": {"pubTpm2B": public}},
            {**section, "ak": {**key, "pubTpm2B": public[:-4]}},
            {**section, "ak": {**key, "pubTpm2B": "!" + public}},
            {**section, "ak": {**key, "privTpm2B": key["privTpm2B"].rstrip("=")}},
            {**section, "ak": {**key, "actResp": ""}},
            {**section, "tallyCounter": {}},
            {**section, "tallyCounter": {**tally, "att": "QQ=="}},
            {**section, "tallyCounter": {**tally, "sig": "QQ=="}},
            {**section, "tallyCounter": {"val": "2"}},
            {**section, "tallyCounter": {"val": 2.5}},
            {**section, "tallyCounter": {"val": True}},
        ]
        for change in changes:
            with self.subTest(change):
                self.assert_wrong(document_bytes({**self.document, "tpm2": change}))
        self.assert_wrong(document_bytes({**self.document, "zzz": 1}))
        self.assert_wrong(document_bytes({"altSerial": {}, "serial": "0000abcd"}))

    def test_rest_is_the_document_without_the_section(self):
        "What without_tpm_section gives is the exact document of the other members."
        del self.document["tpm2"]
        self.assertEqual(without_tpm_section(self.data), document_bytes(self.document))

    def test_base64_has_one_form(self):
        "Only the padded text in the standard alphabet counts."
        self.assertEqual(decode_base64("+/8="), b"\xfb\xff")
        for text in ("-_8=", "+/8", "+/9=", "+/8=\n", "", "+ /8="):
            with self.subTest(text), self.assertRaises((AssertionError, ValueError)):
                decode_base64(text)

    def test_structures_are_read_to_the_end(self):
        "A public area with a byte more or less is not one."
        public = parse_report(self.data).ek
        parse_public(public)
        for wrong in (public[:-1], public + b"x", public[2:], b""):
            with self.subTest(len(wrong)), self.assertRaises(AssertionError):
                parse_public(wrong)

    def test_signature_that_is_none(self):
        "openssl refuses what is not a signature."
        public = parse_report(self.data).ak_public
        for signature in (b"x", bytes(70)):
            self.assertFalse(openssl_verifies(public, b"data", signature))

    def test_record_of_a_failure(self):
        "The record of a failed call has the library's own words for the code."
        expected = ("WARN", "text: tpm:session(1):authorization failure without DA implications (0x9a2)")
        self.assertEqual(tss_failure("text", 0x9A2, "WARN"), expected)
