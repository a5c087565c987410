"""The watch: what file events, signals and timers do to the published document, and what readers of it may count on."""

import errno
import json
import os
import random
import shutil
import signal
import time

from daemon_harness import (
    FAILED,
    HOOK,
    REQUESTED,
    TERMINATING,
    UNCHANGED,
    DocumentReader,
    WatchTest,
    fill_disk,
    foreground_result,
    instant,
    modified,
    mount,
    open_folder,
    remove_folder,
    replace_unnoticed,
    scheduled,
    seconds_of,
    small_disk,
    soon,
    started,
    unmount,
    updated,
    write_in_place,
)
from harness import (
    ETC,
    FEATURES_DOCUMENT,
    INSTALLED_FEATURES,
    PID_FILE,
    RUN,
    USER,
    Daemon,
    as_bytes,
    assert_never,
    check_features_document,
    document_bytes,
    has_user_switch,
    install_features,
    preload,
    process_state,
    read_file,
    wait_for,
    write_file,
)

MEBIBYTE = 1 << 20


def features(*names):
    return as_bytes({"features": [{"name": name} for name in names]})


def halt(daemon):
    """Stops the daemon: what it receives from now on waits for its SIGCONT."""
    daemon.signal(signal.SIGSTOP)
    wait_for(lambda: process_state(daemon.pid) == "T", "the daemon's halt")


class DocumentTest(WatchTest):
    def test_exact_bytes(self):
        "The published document has exactly the bytes of its JSON form, with the moment of its evaluation."
        install_features({"name": "b", "params": {"z": [1, {}], "a": None}, "more": 1}, "ä", "a")
        before = int(time.time())
        with Daemon() as daemon:
            document = daemon.document()
            self.assertTrue(before <= seconds_of(document["checkDate"]) <= time.time())
            expected = {
                "checkDate": document["checkDate"],
                "features": [
                    {"name": "a", "source": "installed"},
                    {"name": "b", "source": "installed", "params": {"z": [1, {}], "a": None}},
                    {"name": "ä", "source": "installed"},
                ],
            }
            self.assertEqual(daemon.document_bytes(), document_bytes(expected))
            self.assertEqual(os.listdir(RUN).count(os.path.basename(FEATURES_DOCUMENT) + ".tmp"), 0)
            daemon.stop()
        self.assertIn(updated("a", "b", "ä"), self.records())

    def test_empty_list(self):
        "Without features an empty list is published, and the record ends after its blank."
        with Daemon() as daemon:
            date = daemon.document()["checkDate"]
            self.assertEqual(daemon.document_bytes(), document_bytes({"checkDate": date, "features": []}))
            daemon.stop()
        self.assertEqual(self.records()[0], ("INFO", "features list updated: "))

    def test_reader_always_sees_a_whole_document(self):
        "A reader in a tight loop sees nothing but whole documents through 200 publications."
        with Daemon() as daemon, DocumentReader() as reader:
            for number in range(200):
                self.change(daemon, f"feature-{number}", *("filler" + str(i) for i in range(number % 7)))
            daemon.stop()
        self.assertEqual(len(self.records(daemon.pid)), 200 * 2 + 3)
        self.assertGreater(reader.reads, 200)

    def test_stale_temporary_file_is_overwritten(self):
        "What a crash left of a longer temporary file is not part of the next document."
        stale = FEATURES_DOCUMENT + ".tmp"
        write_file(stale, "x" * 10000)
        if has_user_switch():
            shutil.chown(stale, USER)
        with Daemon() as daemon:
            self.assertEqual(daemon.names(), [])
            self.assertFalse(os.path.exists(stale))
            daemon.stop()

    def test_read_only_document_is_replaced(self):
        "A document that may not be written, another user's even, is replaced as a whole."
        write_file(FEATURES_DOCUMENT, "old")
        os.chmod(FEATURES_DOCUMENT, 0o400)
        with Daemon() as daemon:
            os.chmod(FEATURES_DOCUMENT, 0o400)
            self.change(daemon, "a")
            self.assertEqual(os.stat(FEATURES_DOCUMENT).st_mode & 0o7777, 0o644)
            daemon.stop()

    def test_missing_document_is_made_again(self):
        "A document that somebody removed is there again after the next publication."
        with Daemon() as daemon:
            os.unlink(FEATURES_DOCUMENT)
            install_features("a")
            wait_for(lambda: os.path.exists(FEATURES_DOCUMENT), "the document")
            self.assertEqual(daemon.names(), ["a"])
            daemon.stop()


class FileEventTest(WatchTest):
    def watch(self, *names, hook=HOOK):
        """A daemon, with these features installed."""
        if names:
            install_features(*names)
        daemon = Daemon(hook=hook)
        self.addCleanup(daemon.end)
        self.wait_for_record(started(daemon.pid))
        return daemon

    def assert_change(self, daemon, *steps):
        """Stops the daemon; since its start it has logged exactly these steps, and run the hook at each publication."""
        self.stop_and_wait(daemon)
        records = self.records(daemon.pid)
        self.assertEqual(records[2:], [*steps, TERMINATING])
        self.assertEqual(self.runs(), sum(text.startswith("features list updated") for _, text in records))

    def test_created(self):
        "An input that comes into being is published, with one record and one run of the hook."
        daemon = self.watch()
        self.change(daemon, "a")
        self.assert_change(daemon, modified(), updated("a"))

    def test_written_in_place(self):
        "One write into an input is one publication."
        daemon = self.watch("a")
        write_in_place(INSTALLED_FEATURES, read_file(INSTALLED_FEATURES).replace(b'"a"', b'"b"'))
        daemon.wait_for_names("b")
        self.assert_change(daemon, modified(), updated("b"))

    def test_two_quick_changes(self):
        "Two changes of an input, one right after the other, end in a document with the second."
        daemon = self.watch("a")
        content = read_file(INSTALLED_FEATURES)
        write_in_place(INSTALLED_FEATURES, content.replace(b'"a"', b'"b"'))
        write_in_place(INSTALLED_FEATURES, content.replace(b'"a"', b'"c"'))
        daemon.wait_for_names("c")
        self.stop_and_wait(daemon)
        lists = [record for record in self.records(daemon.pid) if record[1].startswith("features list")]
        self.assertIn(lists, ([updated("a"), updated("b"), updated("c")], [updated("a"), updated("c")]))
        self.assertEqual(self.runs(), len(lists))

    def test_renamed_over(self):
        "A file renamed over an input is one publication and one run; what both files list never vanishes between."
        daemon = self.watch("both", "one")
        with DocumentReader() as reader:
            for _ in range(5):
                self.change(daemon, "both", "two")
                self.change(daemon, "both", "one")
        # A reader that got no processor for a while may have missed a version.
        self.assertLessEqual({tuple(names) for names in reader.versions}, {("both", "one"), ("both", "two")})
        self.assertGreater(reader.reads, 0)
        self.assert_change(daemon, *[modified(), updated("both", "two"), modified(), updated("both", "one")] * 5)

    def test_deleted(self):
        "A removed input takes its features along."
        daemon = self.watch("a")
        os.unlink(INSTALLED_FEATURES)
        daemon.wait_for_names()
        self.assert_change(daemon, modified(), updated())

    def test_renamed_away(self):
        "An input that is moved to another name takes its features along, and brings them back when it returns."
        daemon = self.watch("a")
        os.rename(INSTALLED_FEATURES, ETC + "/other")
        daemon.wait_for_names()
        os.rename(ETC + "/other", INSTALLED_FEATURES)
        daemon.wait_for_names("a")
        self.assert_change(daemon, modified(), updated(), modified(), updated("a"))

    def test_link_swap(self):
        "A symbolic link that is swapped for another is one publication."
        write_file(self.work_path("one.json"), features("one"))
        write_file(self.work_path("two.json"), features("two"))
        os.symlink(self.work_path("one.json"), INSTALLED_FEATURES)
        daemon = self.watch()
        self.assertEqual(daemon.names(), ["one"])
        os.symlink(self.work_path("two.json"), ETC + "/next")
        os.rename(ETC + "/next", INSTALLED_FEATURES)
        daemon.wait_for_names("two")
        self.assert_change(daemon, modified(), updated("two"))

    def test_unmounted(self):
        "When the file system of the input's folder is unmounted, its features go."
        mount("-t", "tmpfs", "-o", "mode=755", "inputs", ETC)
        daemon = self.watch("a")
        unmount(ETC)
        self.assertFalse(os.path.exists(INSTALLED_FEATURES))
        daemon.wait_for_names()
        self.assert_change(daemon, modified(), updated())

    def test_attributes_do_not_matter(self):
        "A change of mode or time of an input brings no record, no publication and no run."
        daemon = self.watch("a")
        os.chmod(INSTALLED_FEATURES, 0o604)
        os.utime(INSTALLED_FEATURES, (1, 1))
        os.chmod(INSTALLED_FEATURES, 0o644)
        self.change(daemon, "b")
        self.assert_change(daemon, modified(), updated("b"))

    def test_other_names_do_not_matter(self):
        "Files of other names that come, change, move and go in the input's folder bring no record."
        daemon = self.watch("a")
        for path in (ETC + "/other", INSTALLED_FEATURES + ".tmp"):
            write_file(path, features("x"))
            with open(path, "ab") as stream:
                stream.write(b" ")
            os.rename(path, path + "2")
            os.unlink(path + "2")
        os.mkdir(ETC + "/folder")
        self.change(daemon, "b")
        self.assert_change(daemon, modified(), updated("b"))

    def test_same_content_is_no_change(self):
        "An input that is replaced by an equal one brings the record of the event and none about the list."
        daemon = self.watch("a")
        document = daemon.document_bytes()
        install_features("a")
        self.wait_for_record(modified())
        self.assertEqual(daemon.document_bytes(), document)
        self.change(daemon, "b")
        self.assert_change(daemon, modified(), modified(), updated("b"))

    def test_folder_that_comes_later(self):
        "An input whose folder does not exist at the start is noticed when both come into being."
        remove_folder(ETC)
        daemon = self.watch()
        os.mkdir(ETC)
        install_features("a")
        daemon.wait_for_names("a", limit=20)
        self.stop_and_wait(daemon)
        self.assertEqual(self.runs(), 2)

    def test_folder_that_comes_back(self):
        "A folder of inputs that goes away and comes back is noticed without anybody asking."
        remove_folder(ETC)
        os.mkdir(ETC)
        install_features("a")
        daemon = self.watch()
        remove_folder(ETC)
        daemon.wait_for_names(limit=20)
        os.mkdir(ETC)
        install_features("b")
        daemon.wait_for_names("b", limit=20)
        self.stop_and_wait(daemon)


class RefusedWatchTest(WatchTest):
    """The kernel lets the daemon watch no file."""

    def warnings(self):
        return [pair for pair in self.records() if pair[0] == "WARN"]

    def test_one_warning(self):
        "A start without file watches has one WARN, and the daemon runs: the next look finds each change."
        install_features("a")
        with Daemon(hook=HOOK, env=preload(TEST_FAIL="inotify_add_watch")) as daemon:
            self.wait_for_record(started(daemon.pid))
            text = f"failed to watch {INSTALLED_FEATURES}, its changes will be noticed late: "
            self.assertEqual(self.warnings(), [("WARN", text + os.strerror(errno.ENOSPC))])
            install_features("b")
            self.recheck(daemon)
            daemon.wait_for_names("b")
            daemon.stop()
        self.assertEqual(len(self.warnings()), 1)

    def test_missing_folder(self):
        "A folder that isn't there yet is not a reason to warn."
        remove_folder(ETC)
        with Daemon(hook=HOOK) as daemon:
            self.wait_for_record(started(daemon.pid))
            daemon.stop()
        self.assertEqual(self.warnings(), [])

    def test_folder_that_only_root_may_read(self):
        "A folder that the daemon's user may not read can't be watched: one WARN."
        self.require_user_switch()
        install_features("a")
        os.chmod(ETC, 0o711)
        with Daemon(hook=HOOK) as daemon:
            self.wait_for_record(started(daemon.pid))
            self.assertEqual(daemon.names(), ["a"])
            daemon.stop()
        os.chmod(ETC, 0o755)
        ((_, text),) = self.warnings()
        self.assertTrue(text.endswith(os.strerror(errno.EACCES)), text)


class SignalTest(WatchTest):
    def test_recheck_without_change(self):
        "SIGHUP with nothing new brings its two records, leaves the document's file alone and does not run the hook."
        install_features("a")
        with Daemon(hook=HOOK) as daemon:
            before = os.stat(FEATURES_DOCUMENT)
            for _ in range(3):
                self.recheck(daemon)
            after = os.stat(FEATURES_DOCUMENT)
            self.assertEqual((after.st_ino, after.st_mtime_ns), (before.st_ino, before.st_mtime_ns))
            daemon.stop()
        self.assertEqual(self.records(daemon.pid)[2:], [REQUESTED, UNCHANGED] * 3 + [TERMINATING])
        self.assertEqual(self.runs(), 1)

    def test_recheck_finds_what_no_event_reported(self):
        "SIGHUP publishes a change that no file event reported, here another file mounted over the input."
        install_features("a")
        with Daemon(hook=HOOK) as daemon:
            self.wait_for_record(started(daemon.pid))
            replace_unnoticed("b")
            self.recheck(daemon)
            daemon.wait_for_names("b")
            unmount(INSTALLED_FEATURES)
            self.recheck(daemon)
            daemon.wait_for_names("a")
            daemon.stop()
        expected = [REQUESTED, updated("b"), REQUESTED, updated("a"), TERMINATING]
        self.assertEqual(self.records(daemon.pid)[2:], expected)
        self.assertEqual(self.runs(), 3)

    def test_recheck_finds_a_folder_that_came_back(self):
        "A folder of inputs that went away and came back with a change is read at the next SIGHUP at the latest."
        remove_folder(ETC)
        os.mkdir(ETC)
        install_features("a")
        with Daemon(hook=HOOK) as daemon:
            remove_folder(ETC)
            daemon.wait_for_names()
            os.mkdir(ETC)
            install_features("b")
            self.recheck(daemon)
            daemon.wait_for_names("b")
            daemon.stop()

    def test_recheck_in_foreground(self):
        "In the foreground SIGHUP asks for a recheck too."
        with Daemon(foreground=True) as daemon:
            daemon.wait_for_record("started")
            daemon.signal(signal.SIGHUP)
            daemon.wait_for_record(UNCHANGED[1])
            daemon.signal(signal.SIGTERM)
            self.assertEqual(foreground_result(daemon).status, 0)

    def test_signals_at_once(self):
        "SIGTERM, SIGINT and SIGHUP that all wait for the daemon end it once, with status 0 and nothing after that."
        with Daemon(foreground=True) as daemon:
            daemon.wait_for_record("started")
            halt(daemon)
            for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGCONT):
                daemon.signal(number)
            result = foreground_result(daemon)
        self.assert_success(result)
        records = [(record.level, record.text) for record in result.records[2:]]
        self.assertIn(records, ([TERMINATING], [REQUESTED, UNCHANGED, TERMINATING]), str(result))

    def test_change_after_a_stop_signal(self):
        "A change of an input that waits for the daemon beside SIGTERM is no longer looked at once the daemon ends."
        for number in range(8):  # which of the two comes first is up to GLib
            with Daemon(foreground=True) as daemon:
                daemon.wait_for_record("started")
                halt(daemon)
                install_features(f"a{number}")
                daemon.signal(signal.SIGTERM)
                daemon.signal(signal.SIGCONT)
                result = foreground_result(daemon)
            self.assert_success(result)
            self.assertEqual((result.records[-1].level, result.records[-1].text), TERMINATING, str(result))

    def test_flood_of_signals(self):
        "Three hundred SIGHUPs amid thirty changes neither end the daemon nor spoil a document."
        with Daemon(hook=HOOK) as daemon, DocumentReader():
            for number in range(30):
                install_features(f"f{number}")
                for _ in range(10):
                    daemon.signal(signal.SIGHUP)
            daemon.wait_for_names("f29")
            self.recheck(daemon)
            daemon.stop()
        published = sum(text.startswith("features list updated") for _, text in self.records(daemon.pid))
        self.assertEqual(self.runs(), published)


class TimerTest(WatchTest):
    def wait_for_schedule(self, daemon, at):
        """The record names the time from the document's moment to `at`, and one second more."""
        self.wait_for_record(scheduled(at - seconds_of(daemon.document()["checkDate"]) + 1))

    def test_feature_expires(self):
        "A feature's validUntil arms the timer; when it has passed, a document without the feature is published."
        end = soon(3)
        install_features("stays", {"name": "goes", "validUntil": instant(end)})
        with Daemon(hook=HOOK) as daemon:
            self.assertEqual(daemon.names(), ["goes", "stays"])
            self.wait_for_schedule(daemon, end)
            daemon.wait_for_names("stays")
            self.assertGreaterEqual(seconds_of(daemon.document()["checkDate"]), end)
            daemon.stop()
        records = self.records(daemon.pid)
        self.assertEqual(records[-2:], [updated("stays"), TERMINATING])
        self.assertRegex(records[-3][1], "scheduled")
        self.assertEqual(len(records), 6)
        self.assertEqual(self.runs(), 2)

    def test_future_feature_arms_the_timer(self):
        "A file that brings only a future feature is published at once, which arms the timer for the feature."
        with Daemon(hook=HOOK) as daemon:
            start = soon(3)
            install_features({"name": "later", "validFrom": instant(start), "validUntil": instant(start + 4000)})
            self.wait_for_record(updated(), 2)
            wait_for(lambda: any("scheduled in" in text for _, text in self.records()), "the schedule")
            self.wait_for_schedule(daemon, start)
            self.assertEqual(daemon.names(), [])
            daemon.wait_for_names("later")
            self.assertGreaterEqual(seconds_of(daemon.document()["checkDate"]), start)
            self.wait_for_schedule(daemon, start + 4000)
            daemon.stop()
        self.assertEqual(self.runs(), 3)

    def test_new_publication_replaces_the_timer(self):
        "A publication sets the timer again: the moment of the features that were replaced passes unnoticed."
        install_features({"name": "short", "validUntil": instant(soon(2))})
        with Daemon(hook=HOOK) as daemon:
            self.change(daemon, {"name": "longer", "validUntil": instant(soon(3))})
            daemon.wait_for_names()
            daemon.stop()
        records = self.records(daemon.pid)
        self.assertEqual(len(records), 9, records)
        self.assertEqual([records[4], records[-2]], [updated("longer"), updated()], records)
        self.assertEqual(self.runs(), 3)

    def test_no_timer_without_an_instant(self):
        "With no feature that comes or goes, or only instants in the past, nothing is scheduled."
        now = int(time.time())
        install_features(
            "a", {"name": "b", "validFrom": instant(now - 9)}, {"name": "c", "validUntil": instant(now - 5)}
        )
        with Daemon() as daemon:
            self.assertEqual(daemon.names(), ["a", "b"])
            daemon.stop()
        self.assertEqual(self.records(daemon.pid), [updated("a", "b"), started(daemon.pid), TERMINATING])

    def test_far_instant_is_cut_to_32_bits(self):
        "The seconds to a very far instant are cut to 32 bits."
        far = "9999-12-31T23:59:59Z"
        install_features({"name": "a", "validUntil": far})
        with Daemon() as daemon:
            distance = seconds_of(far) - seconds_of(daemon.document()["checkDate"])
            self.assertGreater(distance, 1 << 32)
            self.wait_for_record(scheduled((distance & 0xFFFFFFFF) + 1))
            daemon.stop()

    def test_timer_without_a_change(self):
        "A scheduled check that finds nothing new publishes nothing and schedules nothing; later changes still do."
        with Daemon(hook=HOOK) as daemon:
            self.wait_for_record(started(daemon.pid))
            end = soon(4) + (1 << 32)  # the seconds to it are cut to 32 bits
            self.change(daemon, {"name": "a", "validUntil": instant(end)})
            before = daemon.document_bytes()
            self.wait_for_record(UNCHANGED)
            self.assertEqual(daemon.document_bytes(), before)
            self.change(daemon, "b")
            daemon.stop()
        interval = end - (1 << 32) - seconds_of(json.loads(before)["checkDate"]) + 1
        texts = [text for _, text in self.records(daemon.pid)[2:]]
        self.assertRegex(texts.pop(3), "^scheduled .*check")
        publications = [modified(), updated("a"), scheduled(interval), UNCHANGED, modified(), updated("b"), TERMINATING]
        self.assertEqual(texts, [text for _, text in publications])
        self.assertEqual(self.plain_lines(), [])
        self.assertEqual(self.runs(), 3)

    def test_two_timers_due_at_once(self):
        "A periodic check that is due together with a scheduled one that fails is not made: the failure is the last word."
        end = int(time.time()) + 4
        install_features({"name": "a", "validUntil": instant(end)})
        folder = open_folder("folder")
        environment = preload(TEST_PERIOD="5")
        with Daemon(document=folder + "/doc.json", foreground=True, env=environment) as daemon:
            daemon.wait_for_record("started")
            halt(daemon)
            shutil.rmtree(folder)
            wait_for(lambda: time.time() > end + 3, "the moment at which both are due")
            daemon.signal(signal.SIGCONT)
            result = foreground_result(daemon)
        self.assertEqual(result.status, 1, str(result))
        texts = [record.text for record in result.records]
        self.assertEqual(texts[-4], "scheduled features check", str(result))
        self.assertEqual(texts[-1], FAILED[1], str(result))
        self.assertEqual(texts.count(FAILED[1]), 1, str(result))

    def test_periodic_check(self):
        "The hourly timer, made short, repeats: without a change it writes nothing, and it finds what no event reported."
        install_features("a")
        with Daemon(hook=HOOK, env=preload(TEST_PERIOD="1")) as daemon:
            before = daemon.document_bytes()
            self.wait_for_record(UNCHANGED, 2)
            self.assertEqual(daemon.document_bytes(), before)
            replace_unnoticed("b")
            daemon.wait_for_names("b")
            self.stop_and_wait(daemon)
        texts = [text for _, text in self.records(daemon.pid)[2:-1]]
        self.assertEqual(len(set(texts[0::2])), 1, texts)
        self.assertRegex(texts[0], "periodic")
        self.assertLessEqual(set(texts[1::2]), {UNCHANGED[1], updated("b")[1]})
        self.assertEqual(self.runs(), 2)


class BadInputTest(WatchTest):
    def assert_counts_as_empty(self, make, undo=lambda: os.unlink(INSTALLED_FEATURES)):
        """From good features to the bad thing and back: one ERROR with the path, an empty list, a living daemon."""
        install_features("good")
        with Daemon() as daemon:
            os.unlink(INSTALLED_FEATURES)
            daemon.wait_for_names()
            self.syslog.clear()
            make()
            wait_for(lambda: any(level == "ERROR" for level, _ in self.records()), "an ERROR")
            self.recheck(daemon)
            daemon.wait_for_names()
            undo()
            self.change(daemon, "again")
            daemon.stop()
        errors = [text for level, text in self.records() if level not in ("INFO", "DEBUG")]
        self.assertLessEqual({INSTALLED_FEATURES in text for text in errors}, {True}, errors)
        return errors

    def test_broken_json(self):
        "Broken JSON is an ERROR that names the file and nothing of its content."
        errors = self.assert_counts_as_empty(lambda: write_file(INSTALLED_FEATURES, '{"features": [{"name":"secret"}]'))
        self.assertNotIn("secret", "".join(errors))

    def test_folder(self):
        "A folder in an input's place is an ERROR."
        self.assert_counts_as_empty(lambda: os.mkdir(INSTALLED_FEATURES), lambda: os.rmdir(INSTALLED_FEATURES))

    def test_fifo(self):
        "A FIFO in an input's place is an ERROR and holds up nobody."
        self.assert_counts_as_empty(lambda: os.mkfifo(INSTALLED_FEATURES))

    def test_dangling_link(self):
        "A link to itself in an input's place is an ERROR."
        self.assert_counts_as_empty(lambda: os.symlink(INSTALLED_FEATURES, INSTALLED_FEATURES))

    def test_one_byte_too_many(self):
        "A file of one byte more than 1 MiB is an ERROR."
        self.assert_counts_as_empty(lambda: write_file(INSTALLED_FEATURES, features("big").ljust(MEBIBYTE + 1)))

    def test_exactly_one_mebibyte(self):
        "A file of exactly 1 MiB is read."
        with Daemon() as daemon:
            write_file(INSTALLED_FEATURES, features("big").ljust(MEBIBYTE))
            daemon.wait_for_names("big")
            daemon.stop()

    def test_input_that_may_be_read_later(self):
        "An input that the daemon's user may not read is looked at again: what made it readable needs no SIGHUP."
        self.require_user_switch()
        install_features("a")
        os.chmod(INSTALLED_FEATURES, 0o600)
        with Daemon(env=preload(TEST_PERIOD="1")) as daemon:
            self.assertEqual(daemon.names(), [])
            self.wait_for_record(UNCHANGED, 2)
            os.chmod(INSTALLED_FEATURES, 0o644)
            daemon.wait_for_names("a")
            daemon.stop()
        errors = [text for level, text in self.records() if level == "ERROR"]
        reason = os.strerror(errno.EACCES)
        self.assertEqual(errors, [f"features input {INSTALLED_FEATURES} counts as empty: {reason}"])

    def test_bad_input_at_the_start(self):
        "A daemon starts with a bad input, publishes an empty list and takes the good one that follows."
        os.mkfifo(INSTALLED_FEATURES)
        with Daemon() as daemon:
            self.assertEqual(daemon.names(), [])
            self.change(daemon, "a")
            daemon.stop()
        self.assertEqual([level for level, _ in self.records()].count("ERROR"), 1)

    def test_one_error_for_each_bad_file(self):
        "A bad file has its one ERROR when it is read, and no further one at rechecks that find it unchanged."
        with Daemon() as daemon:
            self.wait_for_record(started(daemon.pid))
            write_file(INSTALLED_FEATURES, "bad")
            wait_for(lambda: any(level == "ERROR" for level, _ in self.records()), "an ERROR")
            self.change(daemon, "a")
            daemon.stop()
        self.assertEqual([level for level, _ in self.records()].count("ERROR"), 1)

    def test_mutated_inputs(self):
        "Three hundred damaged inputs in a row leave the daemon alive and each document whole, and it stops in order."
        generator = random.Random(20)
        good = as_bytes(
            {
                "serial": "0000abcd",
                "features": [
                    {"name": "a", "validFrom": "2026-01-01T00:00:00Z", "params": {"x": [1, -2.5e3, "\u00fc\n"]}},
                    {"name": "b", "validUntil": "2036-01-01T00:00:00Z"},
                ],
            }
        )
        with Daemon() as daemon, DocumentReader():
            for _ in range(300):
                damaged = bytearray(good)
                for _ in range(generator.randint(1, 4)):
                    damaged[generator.randrange(len(damaged))] = generator.randrange(256)
                write_file(INSTALLED_FEATURES, bytes(damaged[: generator.choice([len(good), len(good) // 2])]))
                json.loads(daemon.document_bytes())
            self.change(daemon, "last")
            self.assertTrue(daemon.is_running())
            daemon.stop()
        self.assertEqual(self.records(daemon.pid)[-1], TERMINATING)


class FailedPublicationTest(WatchTest):
    """A publication that fails after the start ends the daemon and leaves the old document."""

    def fail_in_foreground(self, document, spoil, error):
        """Spoils the place of the document, then changes the input; the daemon must end with `error`."""
        with Daemon(hook=HOOK, document=document, foreground=True) as daemon:
            daemon.wait_for_record("started")
            spoil()
            install_features("a")
            result = foreground_result(daemon)
        self.assertEqual(result.status, 1, str(result))
        self.assert_records(result, updated(), started(daemon.pid), modified(), updated("a"), ("ERROR", error), FAILED)
        self.assertEqual(self.runs(), 1)

    def test_folder_is_gone(self):
        "When the document's folder is gone, a change ends the daemon with status 1; the hook does not run."
        folder = open_folder("folder")
        document = folder + "/doc.json"
        error = f"failed to open {document}.tmp: {os.strerror(errno.ENOENT)}"
        self.fail_in_foreground(document, lambda: shutil.rmtree(folder), error)

    def test_path_with_line_feeds(self):
        "A document's path can't make records of its own: its control bytes are shown as numbers."
        document = open_folder("folder") + "/doc\n12:00:00.000 FATAL: forged\x1b"
        folder = os.path.dirname(document)
        shown = document.replace("\n", "\\x0a").replace("\x1b", "\\x1b")
        error = f"failed to open {shown}.tmp: {os.strerror(errno.ENOENT)}"
        self.fail_in_foreground(document, lambda: shutil.rmtree(folder), error)

    def test_disk_is_full(self):
        "When the disk is full, a change ends the daemon with status 1; the old document stays, no other file does."
        disk = small_disk("disk")
        document = disk + "/doc.json"
        old = []

        def spoil():
            fill_disk(disk)
            old.append(read_file(document))

        self.fail_in_foreground(document, spoil, f"failed to write {document}.tmp: {os.strerror(errno.ENOSPC)}")
        self.assertEqual(read_file(document), old[0])
        check_features_document(old[0])
        self.assertEqual(sorted(os.listdir(disk)), ["doc.json", "filler"])

    def test_rename_fails(self):
        "When a folder has taken the document's place, a change ends the daemon with status 1."
        folder = open_folder("folder")
        document = folder + "/doc.json"

        def spoil():
            os.unlink(document)
            os.mkdir(document)

        self.fail_in_foreground(document, spoil, f"failed to update features file: {os.strerror(errno.EISDIR)}")
        self.assertEqual(os.listdir(folder), ["doc.json"])

    def test_timer_is_armed_all_the_same(self):
        "A publication that fails in its last step still schedules the next check before the daemon ends."
        document = open_folder("folder") + "/doc.json"
        with Daemon(document=document, foreground=True) as daemon:
            daemon.wait_for_record("started")
            os.unlink(document)
            os.mkdir(document)
            install_features({"name": "a", "validUntil": instant(int(time.time()) + 5000)})
            result = foreground_result(daemon)
        self.assertEqual(result.status, 1, str(result))
        self.assertEqual([record.level for record in result.records[-3:]], ["ERROR", "INFO", "FATAL"], str(result))
        self.assertRegex(result.records[-2].text, r"^features check scheduled in (4999|500\d) seconds$")

    def test_recheck_fails(self):
        "A failed publication on SIGHUP ends the daemon like one on a file event."
        install_features("a")
        folder = open_folder("folder")
        with Daemon(hook=HOOK, document=folder + "/doc.json", foreground=True) as daemon:
            daemon.wait_for_record("started")
            shutil.rmtree(folder)
            replace_unnoticed("b")
            daemon.signal(signal.SIGHUP)
            result = foreground_result(daemon)
        self.assertEqual(result.status, 1, str(result))
        self.assertEqual(result.records[2].text, REQUESTED[1])
        self.assertEqual((result.records[-1].level, result.records[-1].text), FAILED)

    def test_timer_fails(self):
        "A failed publication at a scheduled check ends the daemon too."
        install_features({"name": "a", "validUntil": instant(soon(2))})
        folder = open_folder("folder")
        with Daemon(hook=HOOK, document=folder + "/doc.json", foreground=True) as daemon:
            daemon.wait_for_record("started")
            shutil.rmtree(folder)
            result = foreground_result(daemon)
        self.assertEqual(result.status, 1, str(result))
        self.assertEqual((result.records[-1].level, result.records[-1].text), FAILED)
        self.assertEqual(self.runs(), 1)

    def test_background_daemon_leaves_nothing_running(self):
        "In daemon mode a failed publication ends daemon and launcher and removes the PID file."
        folder = open_folder("folder")
        with Daemon(hook=HOOK, document=folder + "/doc.json") as daemon:
            self.wait_for_record(started(daemon.pid))
            shutil.rmtree(folder)
            install_features("a")
            daemon.wait_until_gone()
        self.assertFalse(os.path.exists(PID_FILE))
        self.assertEqual(self.records(daemon.pid)[-1], FAILED)
        self.assertEqual(self.runs(), 1)


class IdleTest(WatchTest):
    def switches(self, daemon):
        """How often the daemon's threads have gone to sleep."""
        folder = f"/proc/{daemon.pid}/task"
        total = 0
        for thread in os.listdir(folder):
            for line in read_file(f"{folder}/{thread}/status").decode().splitlines():
                if line.startswith("voluntary_ctxt_switches"):
                    total += int(line.split()[1])
        return total

    def test_idle_daemon_sleeps(self):
        "A daemon with nothing to do wakes up for nothing: no thread of it runs within two seconds."
        install_features("a")
        with Daemon() as daemon:
            self.wait_for_record(started(daemon.pid))
            self.recheck(daemon)
            settled = [self.switches(daemon), time.monotonic()]

            def is_settled():
                now = self.switches(daemon)
                if now != settled[0]:
                    settled[:] = [now, time.monotonic()]
                return time.monotonic() - settled[1] > 0.3

            wait_for(is_settled, "the end of the start's work")
            before = self.switches(daemon)
            assert_never(lambda: self.switches(daemon) != before, 2.0, "a wake-up of an idle daemon")
            daemon.stop()
