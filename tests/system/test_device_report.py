"""The device report and the identifiers in it: /proc/cpuinfo and /etc/orvanta/identifiers."""

import errno
import json
import os
import pwd
import random
import subprocess

from harness import (
    ETC,
    IDENTIFIERS,
    USER,
    check_for_crash,
    document_bytes,
    run_agent,
    set_cpuinfo,
    write_file,
)
from tpm_harness import PreparedTpmTest, parse_report, without_tpm_section

NOT_LOADED = [("ERROR", "failed to load serial number"), ("FATAL", "failed collecting device information")]
ALTERNATIVES = {
    "ORV_USER_SN": "userSerial",
    "ORV_BOARD_SN": "boardSerial",
    "ORV_SYSTEM_SN": "systemSerial",
    "ORV_CHASSIS_SN": "chassisSerial",
}


def report(serial, cbData=None, **alternatives):
    """The bytes of the report with these values, but for its TPM section."""
    value = {"serial": serial, "altSerial": alternatives}
    if cbData is not None:
        value["cbData"] = cbData
    return document_bytes(value)


class ReportTest(PreparedTpmTest):
    def assert_report(self, result, expected):
        """`expected` is the whole document but for its TPM section, whose form is checked too."""
        self.assert_success(result)
        self.assertEqual(without_tpm_section(result.stdout), expected)
        self.assertEqual(parse_report(result.stdout).attestation is not None, "-A" in result.arguments)
        self.assertEqual(result.stderr, b"")

    def assert_valid_json(self, data):
        result = subprocess.run(["jq", "-c", "."], input=data, capture_output=True)
        self.assertEqual((result.returncode, result.stderr), (0, b""), data)
        self.assertEqual(result.stdout.count(b"\n"), 1, data)

    def assert_not_loaded(self, result):
        self.assert_failure(result, *NOT_LOADED)


class DocumentTest(ReportTest):
    def test_least_report(self):
        "Without further identifiers the report has serial, TPM and an empty altSerial, byte by byte as here."
        result = run_agent("-d")
        self.assert_report(result, b'{\n\t"altSerial": { },\n\t"serial": "0000abcd"\n}\n')
        self.assert_valid_json(result.stdout)

    def test_full_report(self):
        "All identifiers and the context's text stand in the report in the order of their keys."
        write_file(IDENTIFIERS, "".join(f"{key}={name}-1\n" for key, name in ALTERNATIVES.items()))
        context = write_file(self.work_path("context"), {"cbData": "opaque"})
        result = run_agent("-d", "-A", context)
        expected = (
            b'{\n\t"altSerial": {\n\t\t"boardSerial": "boardSerial-1",\n\t\t"chassisSerial": "chassisSerial-1",\n'
            b'\t\t"systemSerial": "systemSerial-1",\n\t\t"userSerial": "userSerial-1"\n\t},\n'
            b'\t"cbData": "opaque",\n\t"serial": "0000abcd"\n}\n'
        )
        self.assert_report(result, expected)
        self.assert_valid_json(result.stdout)

    def test_each_identifier_alone(self):
        "Each of the four identifiers appears on its own under its name."
        for key, name in ALTERNATIVES.items():
            with self.subTest(key):
                write_file(IDENTIFIERS, f"{key}=x 1\n")
                self.assert_report(run_agent("-d"), report("0000abcd", **{name: "x 1"}))

    def test_silent_report_is_the_same(self):
        "-s changes nothing of the report."
        self.assert_report(run_agent("-s", "-d"), report("0000abcd"))

    def test_values_are_escaped(self):
        "Quotes, backslashes, control characters and other alphabets in a value make a valid document."
        values = ['a"b', "a\\b", "a/b", "a\x01\x1fb", "a\x7fb", "ü日本😀", "a\tb", "\\u0041", "a\x0bb\x08\x0cc"]
        for value in values:
            with self.subTest(value):
                write_file(IDENTIFIERS, f"ORV_BOARD_SN={value}\n")
                result = run_agent("-d")
                self.assert_report(result, report("0000abcd", boardSerial=value))
                self.assert_valid_json(result.stdout)
                self.assertEqual(json.loads(result.stdout)["altSerial"]["boardSerial"], value)

    def test_bytes_that_are_no_text_pass_unchanged(self):
        "A value with bytes that are no UTF-8 is printed as it is."
        write_file(IDENTIFIERS, b"ORV_BOARD_SN=\xff\xc3\n")
        self.assert_report(run_agent("-d"), report("0000abcd", boardSerial="\udcff\udcc3"))

    def test_report_to_a_place_that_takes_nothing(self):
        "A report that a full or closed standard output does not take is a failure, with the reason."
        with open("/dev/full", "wb") as full:
            refused = run_agent("-d", stdout=full)
        closed = run_agent("-c", 'exec "$0" -d >&-', os.environ["FEATUREWATCH"], program="/bin/sh")
        for result, reason in ((refused, errno.ENOSPC), (closed, errno.EBADF)):
            self.assertEqual(result.status, 1, str(result))
            self.assert_records(
                result,
                ("ERROR", f"failed to write the device report: {os.strerror(reason)}"),
                ("FATAL", "failed collecting device information"),
            )

    def test_nothing_is_printed_on_failure(self):
        "A report that fails prints nothing at all, and with -s only the FATAL record stays."
        set_cpuinfo("Serial\n")
        self.assert_not_loaded(run_agent("-d"))
        result = run_agent("-d", "-s")
        self.assertEqual((result.status, result.stdout), (1, b""))
        self.assertEqual(result.stderr, b"FATAL: failed collecting device information\n")

    def test_bad_context_comes_before_the_identifiers(self):
        "With a bad context file the identifiers are not even read."
        set_cpuinfo("")
        result = run_agent("-d", "-A", "missing")
        records = [("ERROR", "failed to open missing"), ("FATAL", "failed collecting device information")]
        self.assert_failure(result, *records)
        open("empty", "w").close()
        self.assert_failure(run_agent("-d", "-A", "empty"), records[1])


class CpuinfoTest(ReportTest):
    def test_serial_lines(self):
        "The third word of a line that begins with Serial is the serial number; the last such line counts."
        rows = [
            ("Serial : 0000abcd\n", "0000abcd"),
            ("Serial\t\t: 0000abcd\n", "0000abcd"),
            ("Serial : abcd", "abcd"),
            ("Serial : ab cd\n", "ab"),
            ("Serial number : x\n", ":"),
            ("SerialX : y\n", "y"),
            ("Serial : a\nSerial : b\n", "b"),
            ("x\n\nSerial : a\nSerial2 : b\nserial : c\n", "b"),
            ("Serial : " + "9" * 63 + "\n", "9" * 63),
            ("Serial : " + "9" * 64 + "\n", "9" * 63),
            ("Serial : a\r\n", "a"),
            ("Serial : \t a\n", "a"),
            ('Serial : "a\\\n', '"a\\'),
            ("Serial : [not defined]\n", "[not"),
            ("Serial : ü\n", "ü"),
            ("y" * 2047 + "Serial : piece\n", "piece"),
            ("y" * 2046 + "Serial : piece\nSerial : a\n", "a"),
            ("y" * 100000 + "\nSerial : a\n", "a"),
            ("Hardware : x\nSerial : a\n", "a"),
        ]
        for content, serial in rows:
            with self.subTest(content[-40:]):
                set_cpuinfo(content)
                self.assert_report(run_agent("-d"), report(serial))

    def test_failed_lines(self):
        "A Serial or Hardware line without a third word fails the report, even beside a good line."
        rows = [
            "Serial\n",
            "Serial :\n",
            "Serial : \n",
            "Serial",
            "Serial : a\nSerial :\n",
            "Serial :\nSerial : a\n",
            "Serial:a b\n",
            "Serial : a\nHardware\n",
            "Hardware :\nSerial : a\n",
            "Serial : a\nHardware: x\n",
        ]
        for content in rows:
            with self.subTest(content):
                set_cpuinfo(content)
                self.assert_not_loaded(run_agent("-d"))

    def test_no_serial(self):
        "Without a Serial line in either source there is no report; the default text is never used instead."
        lines = ("processor : 0", " Serial : a", "serial : a", "SERIAL : a", "Seria : a", "Hardware : x")
        for content in ("", "\n", *(line + "\n" for line in lines)):
            with self.subTest(content):
                set_cpuinfo(content)
                self.assert_not_loaded(run_agent("-d"))


class IdentifierFileTest(ReportTest):
    def test_value_is_what_follows_the_first_equals_sign(self):
        "What follows the first '=' is the value, without trailing blanks and without one pair of quotes."
        rows = [
            ("ORV_BOARD_SN=abc\n", "abc"),
            ("ORV_BOARD_SN=abc", "abc"),
            ("ORV_BOARD_SN=abc \t\r\n", "abc"),
            ("ORV_BOARD_SN= abc\n", " abc"),
            ("ORV_BOARD_SN=a b\n", "a b"),
            ('ORV_BOARD_SN="abc" \n', "abc"),
            ("ORV_BOARD_SN='abc'\n", "abc"),
            ('ORV_BOARD_SN=" a \' "\n', " a ' "),
            ('ORV_BOARD_SN="a"b"\n', 'a"b'),
            ('ORV_BOARD_SN="a\\"b"\n', 'a\\"b'),
            ('ORV_BOARD_SN=abc"\n', 'abc"'),
            ('ORV_BOARD_SN= "abc"\n', ' "abc"'),
            ("ORV_BOARD_SN=\n", ""),
            ("ORV_BOARD_SN=   \n", ""),
            ('ORV_BOARD_SN=""\n', ""),
            ("ORV_BOARD_SN=a=b=\n", "a=b="),
            ("ORV_BOARD_SN==a\n", "=a"),
            ("ORV_BOARD_SN=#a\n", "#a"),
            ("ORV_BOARD_SN=a # b\n", "a # b"),
            (" \t\v\f\r ORV_BOARD_SN=abc\n", "abc"),
            ("ORV_BOARD_SN=one\nORV_BOARD_SN=two\n", "one"),
            ("ORV_BOARD_SN=\nORV_BOARD_SN=two\n", ""),
            ("# ORV_BOARD_SN=x\n\n  # y\n \t\nORV_BOARD_SN=abc\n", "abc"),
            ("OTHER=1\norv_board_sn=2\nORV_BOARD_SN =3\nORV_BOARD_SN=abc\n", "abc"),
            ("export ORV_BOARD_SN=4\nORV_BOARD_SNX=5\n=6\nORV_BOARD_SN=abc\n", "abc"),
            ("ORV_BOARD_SN=" + "9" * 113 + "\n", "9" * 113),
            ("#" + "x" * 126 + "ORV_BOARD_SN=piece\n", "piece"),
        ]
        for content, value in rows:
            with self.subTest(content[-60:]):
                write_file(IDENTIFIERS, content)
                self.assert_report(run_agent("-d"), report("0000abcd", boardSerial=value))

    def test_ignored_lines(self):
        "Unknown keys, comments and blank lines are no fault and give nothing."
        lines = ("#", "OTHER=x", "ORV_BOARD_SN =x", "=", "ORV_HW_TYPE=x", "ORV_MAIN_IFACE_NAME=eth1", "# a=b")
        for content in ("", "\n", "# a=b", *(line + "\n" for line in lines)):
            with self.subTest(content):
                write_file(IDENTIFIERS, content)
                self.assert_report(run_agent("-d"), report("0000abcd"))

    def test_bad_lines(self):
        "A bad line anywhere fails the report."
        rows = [
            "foo\n",
            "foo",
            "ORV_BOARD_SN\n",
            "ORV_BOARD_SN=\"abc'\n",
            'ORV_BOARD_SN="\n',
            "ORV_BOARD_SN='\n",
            "ORV_BOARD_SN='abc\n",
            'ORV_BOARD_SN="abc" x\n',
            "OTHER='abc\n",
            "ORV_BOARD_SN=good\nfoo\n",
            "foo\nORV_BOARD_SN=good\n",
            "ORV_BOARD_SN=" + "9" * 115 + "\n",
            "# " + "x" * 200 + "\n",
        ]
        for content in rows:
            with self.subTest(content[-60:]):
                write_file(IDENTIFIERS, content)
                self.assert_not_loaded(run_agent("-d"))

    def test_serial_of_the_file(self):
        "ORV_SN is the serial where /proc/cpuinfo has none, and is passed over where it has one."
        write_file(IDENTIFIERS, "ORV_SN=from file\nORV_SN=second\n")
        self.assert_report(run_agent("-d"), report("0000abcd"))
        set_cpuinfo("processor : 0\n")
        self.assert_report(run_agent("-d"), report("from file"))
        for content in ("ORV_SN=\n", 'ORV_SN=""\n'):
            write_file(IDENTIFIERS, content)
            self.assert_report(run_agent("-d"), report(""))

    def test_serial_of_the_file_does_not_save_a_failed_cpuinfo(self):
        "A fault in one source fails the report though the other has a serial."
        write_file(IDENTIFIERS, "ORV_SN=good\n")
        set_cpuinfo("Serial :\n")
        self.assert_not_loaded(run_agent("-d"))
        set_cpuinfo("Serial : good\n")
        write_file(IDENTIFIERS, "bad\n")
        self.assert_not_loaded(run_agent("-d"))

    def test_missing_file_is_in_order(self):
        "A missing file, a missing folder and a link to nothing are no fault."
        os.symlink("nothing", IDENTIFIERS)
        self.assert_report(run_agent("-d"), report("0000abcd"))
        os.unlink(IDENTIFIERS)
        os.rmdir(ETC)
        try:
            self.assert_report(run_agent("-d"), report("0000abcd"))
        finally:
            os.mkdir(ETC)

    def test_file_that_cannot_be_read(self):
        "A folder in the file's place, a link to itself and a file in the folder's place fail the report."
        os.mkdir(IDENTIFIERS)
        self.assert_not_loaded(run_agent("-d"))
        os.rmdir(IDENTIFIERS)
        os.symlink(IDENTIFIERS, IDENTIFIERS)
        self.assert_not_loaded(run_agent("-d"))
        os.unlink(IDENTIFIERS)
        os.rmdir(ETC)
        open(ETC, "w").close()
        try:
            self.assert_not_loaded(run_agent("-d"))
        finally:
            os.unlink(ETC)
            os.mkdir(ETC)

    def test_file_without_rights(self):
        "A file that the user may not read fails the report."
        self.require_user_switch()
        write_file(IDENTIFIERS, "ORV_BOARD_SN=x\n")
        user = pwd.getpwnam(USER)
        rights = {"user": user.pw_uid, "group": user.pw_gid, "extra_groups": []}
        self.assert_report(run_agent("-d", **rights), report("0000abcd", boardSerial="x"))
        os.chmod(IDENTIFIERS, 0)
        self.assert_not_loaded(run_agent("-d", **rights))

    def test_no_content_crashes_or_hangs_the_report(self):
        "No content of the two files crashes or hangs the report, or prints half of it."
        source = random.Random(20)
        words = [b"Serial", b"Hardware", b"ORV_SN", b"ORV_BOARD_SN", b"%s", b"x" * 130]
        words += [bytes([byte]) for byte in b"=: \n\"'\0\xff"]
        for number in range(60):
            contents = [b"".join(source.choices(words, k=source.randrange(60))) for _ in range(2)]
            with self.subTest(number=number, contents=contents):
                set_cpuinfo(contents[0])
                write_file(IDENTIFIERS, contents[1])
                result = run_agent("-d")
                check_for_crash(result)
                if result.status == 0:
                    rest = without_tpm_section(result.stdout)
                    self.assertTrue(rest.startswith(b'{\n\t"altSerial": {'), str(result))
                    self.assertTrue(rest.endswith(b'"\n}\n'), str(result))
                else:
                    self.assert_not_loaded(result)
