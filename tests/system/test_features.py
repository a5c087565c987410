"""The feature list in the running daemon: the entries of the installed file."""

import re
import signal

from daemon_harness import HOOK, WatchTest, foreground_result, started
from harness import DEFAULT_SERIAL, INSTALLED_FEATURES, Daemon, install_features, wait_for, write_file

OTHER_SERIAL = "0000abce"
EXPIRED = {"validUntil": "2020-01-01T00:00:00Z"}


class InstalledTest(WatchTest):
    def warnings(self):
        return [pair for pair in self.records() if pair[0] not in ("INFO", "DEBUG")]

    def test_wrong_entries_are_left_out(self):
        "Each wrong entry gives one WARN with the file and its index, at each reading; the others stand."
        wrong = [
            {},
            {"name": ""},
            {"name": 5},
            {"name": None},
            "text",
            None,
            [],
            {"name": "x", "params": []},
            {"name": "x", "params": None},
            {"name": "x", "validFrom": "2026-01-01"},
            {"name": "x", "validFrom": "2026-01-01T00:00:00+00:00"},
            {"name": "x", "validUntil": "2026-01-01T00:00:00.5Z"},
            {"name": "x", "validUntil": 2000000000},
            {"name": "x", "validUntil": "2036-13-01T00:00:00Z"},
        ]
        content = {"features": [{"name": "first"}, *wrong, {"name": "last"}]}
        with Daemon() as daemon:
            self.wait_for_record(started(daemon.pid))
            write_file(INSTALLED_FEATURES, content)
            daemon.wait_for_names("first", "last")
            self.recheck(daemon)
            daemon.stop()
        found = self.warnings()
        self.assertEqual({level for level, _ in found}, {"WARN"})
        for index in range(1, len(wrong) + 1):
            matching = [text for _, text in found if INSTALLED_FEATURES in text and re.search(rf"\b{index}\b", text)]
            self.assertTrue(matching, (index, found))
        self.assertEqual(len(found) % len(wrong), 0, found)

    def test_flood_of_wrong_entries(self):
        "A file of nothing but wrong entries gives twenty WARNs and one that counts the rest, and starts in time."
        count = 500000
        write_file(INSTALLED_FEATURES, '{"features":[' + ",".join("0" * count) + "]}")
        with Daemon() as daemon:
            self.assertEqual(daemon.names(), [])
            daemon.stop()
        texts = [text for _, text in self.warnings()]
        self.assertEqual(len(texts), 21)
        for index, text in enumerate(texts[:20]):
            self.assertTrue(text.startswith(f"{INSTALLED_FEATURES}: left out feature {index}: "), text)
        self.assertEqual(texts[20], f"{INSTALLED_FEATURES}: left out {count - 20} more")

    def test_control_bytes_in_names(self):
        "Control bytes in a name are in the document as they are, and shown as numbers in the records."
        name = "a\n12:00:00.000 FATAL: forged\x1b[2J\x7f\t"
        install_features(name)
        with Daemon(hook=HOOK, foreground=True) as daemon:
            daemon.wait_for_record("started")
            self.assertEqual(daemon.names(), [name])
            daemon.signal(signal.SIGTERM)
            result = foreground_result(daemon)
        self.assert_success(result)
        shown = "a\\x0a12:00:00.000 FATAL: forged\\x1b[2J\\x7f\\x09"
        self.assertEqual(result.records[0].text, "features list updated: " + shown)
        self.assertEqual({record.level for record in result.records}, {"INFO"})
        self.assertEqual(result.other_lines, [])

    def test_members_are_handed_on(self):
        "Parameters and instants are handed on unchanged, unknown members are not."
        entry = {
            "name": "wall",
            "params": {"outputs": 4, "list": [True, None, -1.5, "ü\n"], "deep": {"x": {}}},
            "validFrom": "2026-01-01T00:00:00Z",
            "validUntil": "2099-01-01T00:00:00Z",
        }
        install_features({**entry, "price": "secret"}, serial=DEFAULT_SERIAL)
        with Daemon() as daemon:
            self.assertEqual(daemon.document()["features"], [{**entry, "source": "installed"}])
            daemon.stop()
        self.assertNotIn("secret", str(self.records()))

    def test_first_active_entry_of_a_name_counts(self):
        "Of several entries of one name the first that is active is listed."
        install_features(
            {"name": "a", "params": {"n": 1}, **EXPIRED},
            {"name": "a", "params": {"n": 2}},
            {"name": "a", "params": {"n": 3}},
        )
        with Daemon() as daemon:
            self.assertEqual(daemon.document()["features"], [{"name": "a", "params": {"n": 2}, "source": "installed"}])
            daemon.stop()

    def test_file_for_another_device_counts_as_empty(self):
        "Installed features with another device's serial number count as empty, with one ERROR."
        install_features("a", serial=OTHER_SERIAL)
        with Daemon() as daemon:
            self.assertEqual(daemon.names(), [])
            daemon.stop()
        ((level, text),) = self.warnings()
        self.assertEqual(level, "ERROR")
        self.assertIn(INSTALLED_FEATURES, text)

    def test_files_without_a_list_count_as_empty(self):
        "A file that is no object, or whose features are no list, counts as empty, with one ERROR each."
        with Daemon() as daemon:
            self.wait_for_record(started(daemon.pid))
            for number, content in enumerate(("[]", "{}", '{"features": {}}', "null", ""), 1):
                write_file(INSTALLED_FEATURES, content)
                wait_for(lambda: len(self.warnings()) >= number, f"an ERROR for {content!r}")
                self.assertEqual(daemon.names(), [])
            daemon.stop()
        self.assertEqual([level for level, _ in self.warnings()], ["ERROR"] * 5)
        self.assertEqual({INSTALLED_FEATURES in text for _, text in self.warnings()}, {True})

    def test_change_of_members_is_a_change(self):
        "Other parameters under the same names are published too."
        install_features({"name": "a", "params": {"n": 1}})
        with Daemon(hook=HOOK) as daemon:
            install_features({"name": "a", "params": {"n": 2}})
            wait_for(lambda: daemon.document()["features"][0]["params"] == {"n": 2}, "the new parameters")
            daemon.stop()
        self.assertEqual(self.runs(), 2)
