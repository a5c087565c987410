"""The features document on standard output, made from the features that are installed."""

import datetime
import errno
import os
import pwd
import re

from harness import (
    INSTALLED_FEATURES,
    USER,
    SandboxTest,
    agent_path,
    check_features_document,
    document_bytes,
    feature_names,
    install_features,
    run_agent,
    set_cpuinfo,
    write_file,
)

MEBIBYTE = 1 << 20


def instant(seconds_from_now=0):
    moment = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(seconds=seconds_from_now)
    return moment.strftime("%Y-%m-%dT%H:%M:%SZ")


PAST, FUTURE = instant(-86400), instant(86400)


class PlainTest(SandboxTest):
    def document(self, result, records=()):
        """The parsed document of a run that logged exactly these records."""
        self.assert_success(result)
        self.assert_records(result, *records)
        self.assertEqual(result.other_lines, [])
        return check_features_document(result.stdout)

    def names(self, *features, serial=None):
        install_features(*features, serial=serial)
        return feature_names(self.document(run_agent()))

    def assert_left_out(self, entry, beside="good"):
        """The entry, second in the list, is left out with one WARN; the one beside it is listed."""
        install_features(beside, entry)
        result = run_agent()
        self.assertEqual(feature_names(check_features_document(result.stdout)), [beside], str(result))
        self.assertEqual((result.status, [record.level for record in result.records]), (0, ["WARN"]), str(result))
        text = result.records[0].text
        self.assertIn(INSTALLED_FEATURES, text)
        reason = text.replace(INSTALLED_FEATURES, "")
        self.assertRegex(reason, r"(?<!\d)1(?!\d)")
        self.assertRegex(reason, r"[a-z]{3}")
        return text

    def assert_counts_as_empty(self, result=None):
        """The whole input is left out with one ERROR that names the file and a reason."""
        result = result or run_agent()
        self.assertEqual(feature_names(check_features_document(result.stdout)), [], str(result))
        self.assertEqual((result.status, [record.level for record in result.records]), (0, ["ERROR"]), str(result))
        text = result.records[0].text
        self.assertIn(INSTALLED_FEATURES, text)
        self.assertRegex(text.replace(INSTALLED_FEATURES, ""), r"[a-z]{3}")


class FormTest(PlainTest):
    def test_empty_document(self):
        "Without any feature file the document has an empty list, and there is no record."
        result = run_agent()
        self.document(result)
        self.assertRegex(
            result.stdout, rb'\A\{\n\t"checkDate": "\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ",\n\t"features": \[ \]\n\}\n\Z'
        )

    def test_check_date_is_now(self):
        "checkDate is the present moment in UTC, in whole seconds, in every time zone."
        for zone in ("UTC", "AAA-9", "BBB+3:30"):
            with self.subTest(zone):
                before = instant()
                told = self.document(run_agent(env={"TZ": zone}))["checkDate"]
                self.assertLessEqual(before, told)
                self.assertLessEqual(told, instant())

    def test_whole_document(self):
        "A document with all members is laid out as here, byte by byte."
        install_features(
            {"name": "video-wall", "validFrom": PAST, "validUntil": FUTURE, "params": {"outputs": 4}}, {"name": "audio"}
        )
        result = run_agent()
        self.document(result)
        stdout = re.sub(rb'(?<="checkDate": ")[^"]*', b"NOW", result.stdout)
        expected = f"""{{
	"checkDate": "NOW",
	"features": [
		{{
			"name": "audio",
			"source": "installed"
		}},
		{{
			"name": "video-wall",
			"params": {{
				"outputs": 4
			}},
			"source": "installed",
			"validFrom": "{PAST}",
			"validUntil": "{FUTURE}"
		}}
	]
}}
"""
        self.assertEqual(stdout.decode(), expected)

    def test_params_are_handed_on_unchanged(self):
        "Any object may be params and comes back with the same values, in the order of the keys."
        params = {"z": [1, -2.5, True, None, 'ü\n"', [], {}], "a": {"b": {"c": {}}}, "A": 1e300}
        install_features({"name": "x", "params": params}, {"name": "y", "params": {}})
        result = run_agent()
        document = self.document(result)
        self.assertEqual([feature["params"] for feature in document["features"]], [params, {}])
        self.assertEqual(result.stdout, document_bytes(document))

    def test_numbers_have_sixteen_digits(self):
        "A number of more than 16 significant digits comes out with 16 of them."
        install_features({"name": "x", "params": {"a": 0.30000000000000004, "b": 12345678901234567, "c": 2**53}})
        params = self.document(run_agent())["features"][0]["params"]
        self.assertEqual(params, {"a": 0.3, "b": 12345678901234570, "c": 2**53})

    def test_names_are_sorted_by_bytes(self):
        "Names stand in the order of their bytes, whatever the order in the file."
        expected = ["-", "A", "Z", "a", "a b", "aa", "b", "é", "日本", "😀"]
        shuffled = [expected[index] for index in (4, 9, 0, 7, 2, 6, 1, 8, 5, 3)]
        self.assertEqual(self.names(*shuffled), expected)

    def test_unusual_names(self):
        "Any text that is not empty is a name."
        names = sorted(['"', "\\", "\x01", " ", "a\nb", "x" * 10000, "%s%n", "../../etc"], key=str.encode)
        self.assertEqual(self.names(*names), names)

    def test_silent_mode_prints_the_same(self):
        "-s changes nothing of the document."
        install_features("a", "")
        result = run_agent("-s")
        self.assertEqual((feature_names(check_features_document(result.stdout)), result.stderr), (["a"], b""))


class SelectionTest(PlainTest):
    def test_feature_is_listed_between_its_instants(self):
        "A feature is listed from validFrom on and before validUntil."
        rows = [
            ({}, True),
            ({"validFrom": PAST}, True),
            ({"validFrom": FUTURE}, False),
            ({"validUntil": FUTURE}, True),
            ({"validUntil": PAST}, False),
            ({"validFrom": PAST, "validUntil": FUTURE}, True),
            ({"validFrom": instant(-100), "validUntil": instant(-50)}, False),
            ({"validFrom": instant(50), "validUntil": FUTURE}, False),
            ({"validFrom": FUTURE, "validUntil": PAST}, False),
            ({"validFrom": "0000-01-01T00:00:00Z", "validUntil": "9999-12-31T23:59:59Z"}, True),
            ({"validFrom": "1969-12-31T23:59:59Z"}, True),
            ({"validFrom": "2024-02-29T00:00:00Z"}, True),
            ({"validFrom": instant()}, True),
            ({"validUntil": instant()}, False),
        ]
        for members, listed in rows:
            with self.subTest(members):
                self.assertEqual(self.names({"name": "x", **members}), ["x"] if listed else [])

    def test_one_entry_per_name(self):
        "Of several active entries of a name the first is listed; one that is not active does not count."
        install_features(
            {"name": "x", "validUntil": PAST, "params": {"n": 1}},
            {"name": "x", "params": {"n": 2}},
            {"name": "x", "params": {"n": 3}},
            {"name": "y", "validFrom": FUTURE},
        )
        document = self.document(run_agent())
        self.assertEqual(document["features"], [{"name": "x", "params": {"n": 2}, "source": "installed"}])

    def test_unknown_members_are_ignored(self):
        "Members that mean nothing are ignored, in the file and in an entry."
        write_file(
            INSTALLED_FEATURES,
            {"version": 5, "features": [{"name": "x", "source": "granted", "validfrom": 5, "extra": []}], "more": None},
        )
        document = self.document(run_agent())
        self.assertEqual(document["features"], [{"name": "x", "source": "installed"}])

    def test_empty_list(self):
        "An empty list is in order."
        self.assertEqual(self.names(), [])

    def test_many_features(self):
        "Ten thousand features are listed."
        names = [f"f{number:05}" for number in range(10000)]
        self.assertEqual(self.names(*reversed(names)), names)


class LeftOutTest(PlainTest):
    def test_broken_entries(self):
        "An entry of a wrong form is left out with one WARN that names the file, its index and the reason."
        good = {"name": "bad"}
        rows = [{}, {"nam": "x"}, None, 5, True, [], ["x"]]
        rows += [{"name": name} for name in ("", None, 5, True, [], {}, ["x"])]
        rows += [{**good, "params": params} for params in (None, 5, "x", [], [{}], True)]
        instants = [
            None,
            5,
            "",
            "x",
            "2026-01-01",
            "2026-01-01T00:00:00",
            "2026-01-01T00:00:00z",
            "2026-01-01t00:00:00Z",
            "2026-01-01 00:00:00Z",
            "2026-01-01T00:00:00.000Z",
            "2026-01-01T00:00:00+00:00",
            "2026-01-01T00:00:00ZZ",
            " 2026-01-01T00:00:00Z",
            "2026-01-01T00:00:00Z ",
            "26-01-01T00:00:00Z",
            "02026-01-01T00:00:00Z",
            "+026-01-01T00:00:00Z",
            "-026-01-01T00:00:00Z",
            "2026-1-01T00:00:00Z",
            "2026-01-01T0:00:00Z",
            "2026-+1-01T00:00:00Z",
            "2026- 1-01T00:00:00Z",
            "2026-00-01T00:00:00Z",
            "2026-13-01T00:00:00Z",
            "2026-01-00T00:00:00Z",
            "2026-01-32T00:00:00Z",
            "2026-02-29T00:00:00Z",
            "2026-04-31T00:00:00Z",
            "2100-02-29T00:00:00Z",
            "2026-01-01T24:00:00Z",
            "2026-01-01T00:60:00Z",
            "2026-01-01T00:00:61Z",
            "2026-01-01T00:00:0xZ",
            "٢٠٢٦-01-01T00:00:00Z",
        ]
        rows += [{**good, key: value} for key in ("validFrom", "validUntil") for value in instants]
        for entry in rows:
            with self.subTest(entry):
                self.assert_left_out(entry)

    def test_reason_differs(self):
        "The reason tells a bad name from a bad instant and from bad params."
        texts = {
            self.assert_left_out(entry)
            for entry in ({"name": ""}, {"name": "x", "validFrom": "x"}, {"name": "x", "params": 5}, 5)
        }
        self.assertEqual(len(texts), 4, texts)

    def test_each_broken_entry_has_its_record(self):
        "Every entry left out has its own record with its own index, in the file's order."
        install_features("", "a", "", "b", "")
        result = run_agent()
        self.assertEqual(feature_names(check_features_document(result.stdout)), ["a", "b"])
        self.assertEqual([record.level for record in result.records], ["WARN"] * 3)
        for index, record in zip((0, 2, 4), result.records):
            self.assertRegex(record.text.replace(INSTALLED_FEATURES, ""), rf"(?<!\d){index}(?!\d)")

    def test_broken_entry_does_not_take_the_name(self):
        "A good entry of the same name after a broken one is listed."
        install_features({"name": "x", "params": 5}, {"name": "x", "params": {"n": 2}})
        result = run_agent()
        document = check_features_document(result.stdout)
        self.assertEqual(document["features"], [{"name": "x", "params": {"n": 2}, "source": "installed"}])
        self.assertEqual([record.level for record in result.records], ["WARN"])

    def test_content_is_not_logged(self):
        "No content of the file but names gets into a record."
        secret = "only-for-us"
        contents = [
            {"features": [{"name": "x", "validFrom": secret}, {"name": "y", "params": [secret]}]},
            {"features": [{"name": [secret]}, secret]},
            {"features": secret},
            {"serial": secret, "features": ["x"]},
            "{" + secret,
            f'"{secret}"',
        ]
        for content in contents:
            with self.subTest(content):
                write_file(INSTALLED_FEATURES, content)
                result = run_agent()
                self.assertTrue(result.records)
                self.assertNotIn(secret.encode(), result.stderr + result.stdout)
        self.assertFalse([text for text in self.syslog.texts() if secret in text])


class WholeFileTest(PlainTest):
    def test_malformed_files(self):
        "A file that is not JSON, not an object or has no list of features counts as empty, with one ERROR."
        rows = ["", " ", "x", "{", "[]", "null", '"x"', "5", "{}", '{"Features":[]}', "\0"]
        rows += ['{"features":[{"name":"x"}]} y']
        rows += ['{"features":%s}' % value for value in ("null", "5", "{}", '"x"', "true", '{"name":"x"}')]
        rows += ['{"features":[{"name":"x"},]}', '{"features":[{"name":"x"}]', "\ufeff" + '{"features":[]}']
        for content in rows:
            with self.subTest(content):
                write_file(INSTALLED_FEATURES, content)
                self.assert_counts_as_empty()

    def test_serial_must_be_the_devices(self):
        "A serial in the file must be the device's; another one, or none on the device, makes the file count as empty."
        self.assertEqual(self.names("x", serial="0000abcd"), ["x"])
        for serial in ("0000abce", "", "0000ABCD", "0000abcd ", 5, [], {"a": 1}):
            with self.subTest(serial):
                install_features("x", serial=serial)
                self.assert_counts_as_empty()
        set_cpuinfo("processor : 0\n")
        install_features("x", serial="0000abcd")
        self.assert_counts_as_empty()
        self.assertEqual(self.names("x"), ["x"])

    def test_file_over_one_mebibyte_counts_as_empty(self):
        "A file of one mebibyte is read, one byte more makes it count as empty."
        content = '{"features":[{"name":"x"}]}'
        write_file(INSTALLED_FEATURES, content.ljust(MEBIBYTE))
        self.assertEqual(feature_names(self.document(run_agent())), ["x"])
        write_file(INSTALLED_FEATURES, content.ljust(MEBIBYTE + 1))
        self.assert_counts_as_empty()
        write_file(INSTALLED_FEATURES, content.ljust(100 * MEBIBYTE))
        self.assert_counts_as_empty()

    def test_no_regular_file(self):
        "A folder, an endless device, a pipe without writer and a link to itself count as empty, at once."
        makers = [
            lambda: os.mkdir(INSTALLED_FEATURES),
            lambda: os.symlink("/dev/zero", INSTALLED_FEATURES),
            lambda: os.mkfifo(INSTALLED_FEATURES),
            lambda: os.symlink(INSTALLED_FEATURES, INSTALLED_FEATURES),
        ]
        for number, make in enumerate(makers):
            with self.subTest(number):
                make()
                self.assert_counts_as_empty()
                (os.rmdir if number == 0 else os.unlink)(INSTALLED_FEATURES)

    def test_file_without_rights(self):
        "A file that the user may not read counts as empty, with one ERROR."
        self.require_user_switch()
        install_features("x")
        user = pwd.getpwnam(USER)
        rights = {"user": user.pw_uid, "group": user.pw_gid, "extra_groups": []}
        self.assertEqual(feature_names(self.document(run_agent(**rights))), ["x"])
        os.chmod(INSTALLED_FEATURES, 0)
        self.assert_counts_as_empty(run_agent(**rights))

    def test_missing_folder_is_silent(self):
        "Without the folder, or with a link to nothing, there is no feature and no record."
        os.symlink("nothing", INSTALLED_FEATURES)
        self.assertEqual(self.document(run_agent())["features"], [])
        os.unlink(INSTALLED_FEATURES)
        os.rmdir("/etc/orvanta")
        try:
            self.assertEqual(self.document(run_agent())["features"], [])
        finally:
            os.mkdir("/etc/orvanta")

    def test_text_that_is_not_utf8(self):
        "One byte that is not UTF-8 leaves the whole file out: readers of the document would fail on it."
        for text in (b"\xff", b"\x80", b"\xed\xa0\x80", b"\xc0\x80"):
            write_file(INSTALLED_FEATURES, b'{"features":[{"name":"a"},{"name":"b' + text + b'"}]}')
            self.assert_counts_as_empty()

    def test_deep_nesting(self):
        "Deep nesting does no harm: alone, in a feature that is listed, and in one that is left out."
        write_file(INSTALLED_FEATURES, "[" * MEBIBYTE)
        self.assert_counts_as_empty()
        # A listed one takes a line with that many tabs for each level, so the depth is bounded.
        left_out = ("WARN", f"{INSTALLED_FEATURES}: left out feature 0: params nests too deep")
        for depth, names, records in ((98, ["x"], []), (101, [], [left_out]), (500_000, [], [left_out])):
            nested = "[" * depth + "]" * depth
            entry = '{"name":"x","params":{"deep":' + nested + "}}"
            write_file(INSTALLED_FEATURES, '{"features":[' + entry + "]}")
            result = run_agent()
            self.assert_success(result)
            self.assert_records(result, *records)
            self.assertEqual(re.findall(rb'"name": "(.*)"', result.stdout), [name.encode() for name in names])
            self.assertTrue(result.stdout.endswith(b"\n}\n"))

    def test_every_beginning_of_a_file(self):
        "A file cut off anywhere gives a whole document, at worst an empty one with an ERROR."
        first = '{"name":"a","validFrom":"2026-01-01T00:00:00Z","params":{"n":[1]}}'
        content = '{"serial":"0000abcd","features":[' + first + ',{"name":"é"}]}'
        data = content.encode()
        for length in range(len(data)):
            write_file(INSTALLED_FEATURES, data[:length])
            result = run_agent()
            self.assertEqual(result.status, 0, str(result))
            names = feature_names(check_features_document(result.stdout))
            self.assertEqual(names, [], data[:length])
            self.assertEqual([record.level for record in result.records], ["ERROR"], str(result))


class OutputTest(PlainTest):
    def test_output_that_takes_nothing(self):
        "A document that a full or closed standard output does not take is a failure, with the reason."
        install_features(*(f"f{number}" for number in range(1000)))
        with open("/dev/full", "wb") as full:
            refused = run_agent(stdout=full)
        closed = run_agent("-c", 'exec "$0" >&-', agent_path(), program="/bin/sh")
        for result, reason in ((refused, errno.ENOSPC), (closed, errno.EBADF)):
            self.assertEqual(result.status, 1, str(result))
            self.assert_records(result, ("FATAL", f"failed to write the features document: {os.strerror(reason)}"))

    def test_nothing_is_left_behind(self):
        "The run writes no file and leaves no process."
        install_features("x")
        self.document(run_agent())
        for folder in (".", "/run/featurewatch", "/var/lib/orvanta"):
            self.assertEqual(os.listdir(folder), [], folder)
        self.assertEqual(os.listdir("/etc/orvanta"), ["features.json"])
