"""The unit: its start at boot, its rights, reload, changes, stop, records."""

import os
import re
import signal
import stat

from boot_harness import (
    ETC,
    GRANTS,
    HOOKS,
    RUN,
    SOURCE,
    UNIT,
    BootTest,
    add_hook,
    change,
    command,
    document,
    entries,
    is_active,
    launcher_pid,
    lines_of,
    main_pid,
    messages,
    mode_of,
    names,
    processes,
    record,
    systemctl,
    unit,
    user_id,
    wait_until_active,
    write,
)
from daemon_harness import status_of
from harness import FEATURES_DOCUMENT, PID_FILE, USER, assert_never, install_features, read_file, wait_for

SETGID, SETUID = 6, 7  # the numbers of the capabilities


class BootedTest(BootTest):
    def test_runs_at_boot(self):
        "After the installation and a boot the daemon runs, without having been restarted, and its document is there."
        self.assertEqual((unit("ActiveState"), unit("UnitFileState"), unit("NRestarts")), ("active", "enabled", "0"))
        self.assertEqual(names(), [])
        self.assertEqual(read_file(PID_FILE).decode().strip(), str(main_pid()))
        self.assertEqual(sorted(processes()), sorted([main_pid(), launcher_pid()]))

    def test_folders(self):
        "The folders belong to root; only the one of the document is open to the daemon, and sticky."
        user = user_id()
        self.assertEqual(mode_of(RUN), (0o1775, 0, user))
        for folder in (ETC, HOOKS, GRANTS):
            self.assertEqual(mode_of(folder), (0o755, 0, 0))
        self.assertEqual(os.listdir(HOOKS), ["README"])
        self.assertFalse(os.stat(f"{HOOKS}/README").st_mode & 0o111)
        self.assertEqual(mode_of(FEATURES_DOCUMENT)[1], user)
        self.assertEqual(os.stat(PID_FILE).st_uid, 0)

    def test_account(self):
        "The daemon's user may not log in, has no password and is a member of its own group alone."
        entry = command("getent", "passwd", USER).strip().split(":")
        self.assertEqual((entry[5], entry[6]), (RUN, "/usr/sbin/nologin"))
        self.assertRegex(command("getent", "shadow", USER).split(":")[1], r"\A[!*]+\Z")
        self.assertEqual(command("id", "--groups", "--name", USER).split(), [USER])

    def test_no_faults_are_told(self):
        "The start leaves no record above INFO, though the hook's folder holds a README."
        self.assertEqual([text for text in messages() if not text.startswith("INFO ")], [])

    def test_score(self):
        "systemd rates the exposure of the unit at 1.5 or less."
        rating = command("systemd-analyze", "security", "--no-pager", "--threshold=15", UNIT)
        self.assertRegex(rating, r"Overall exposure level for featurewatch\.service: [01]\.\d OK")


class RightsTest(BootTest):
    def test_daemon(self):
        "The daemon has its user, its group, no capability and no way to gain one."
        daemon, user = main_pid(), str(user_id())
        self.assertEqual((status_of(daemon, "Uid"), status_of(daemon, "Gid")), ([user] * 4, [user] * 4))
        self.assertIn(status_of(daemon, "Groups"), ([], [user]))
        for kind in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
            self.assertEqual(int(status_of(daemon, kind)[0], 16), 0, kind)
        self.assertEqual(status_of(daemon, "NoNewPrivs"), ["1"])
        self.assertEqual(status_of(daemon, "Seccomp"), ["2"])

    def test_launcher(self):
        "The launcher of the hook stays root, with the capabilities to change user and group only."
        launcher = launcher_pid()
        self.assertEqual(status_of(launcher, "Uid"), ["0"] * 4)
        for kind in ("CapEff", "CapBnd"):
            self.assertEqual(int(status_of(launcher, kind)[0], 16), 1 << SETGID | 1 << SETUID, kind)


class StartTest(BootTest):
    def test_document_is_there_when_the_start_returns(self):
        "Each time that `systemctl start` returns, the document is there and lists what is installed."
        for number in range(5):
            systemctl("stop", UNIT)
            os.unlink(FEATURES_DOCUMENT)
            install_features(f"f{number}")
            systemctl("start", UNIT)
            self.assertEqual(names(), [f"f{number}"])

    def test_second_start_by_hand(self):
        "While the unit runs, a start by hand is refused with the process id of the daemon, which goes on."
        daemon = main_pid()
        text = command("featurewatch", "-w", "-x", "true", status=1)
        self.assertIn(f"daemon already running with PID {daemon}", text)
        self.assertEqual(main_pid(), daemon)


class ChangeTest(BootTest):
    def test_change_by_rename(self):
        "A file that is renamed over the installed features is published, and the hook runs once for it."
        add_hook("count", f"echo run >> {RUN}/runs")
        change("a")
        wait_for(lambda: len(lines_of(RUN + "/runs")) == 1, "the run of the hook")
        self.assertEqual(messages().count(record("INFO", "features list updated: a")), 1)

    def test_grant(self):
        "A grant that was signed for the device's serial number is taken by the daemon within the limits of its unit."
        write(f"{ETC}/identifiers", "ORV_SN=boot-1\n")
        grant = [SOURCE + "/tools/grant"]
        command(*grant, "keys", "--private", "/root/maker.pem", "--public", f"{ETC}/features.pem")
        signed = command(*grant, "sign", "--key", "/root/maker.pem", "--serial", "boot-1", "--feature", "video-wall")
        write(f"{GRANTS}/new", signed)
        os.rename(f"{GRANTS}/new", f"{GRANTS}/features.jws")
        wait_for(lambda: names() == ["video-wall"], "the granted feature")
        self.assertEqual(document()["features"][0]["source"], "granted")

    def test_reload(self):
        "`systemctl reload` has the daemon, the same process, look at its inputs, and keeps the unit active."
        daemon = main_pid()
        systemctl("reload", UNIT)
        wait_for(lambda: record("INFO", "requested to recheck all features") in messages(), "the recheck")
        wait_for(lambda: messages()[-1] == record("INFO", "features list unchanged"), "its end")
        self.assertEqual((main_pid(), is_active()), (daemon, True))


class RecordsTest(BootTest):
    def test_each_record_is_in_the_journal_once(self):
        "Each record of start, change, reload and stop is in the journal once, with the daemon's process id."
        daemon = main_pid()
        change("once")
        systemctl("reload", UNIT)
        unchanged = record("INFO", "features list unchanged")
        wait_for(lambda: unchanged in messages(), "the recheck")
        systemctl("stop", UNIT)
        found = [entry["MESSAGE"] for entry in entries(_PID=daemon)]
        expected = [
            "features list updated: ",
            f"featurewatch started with PID {daemon}",
            f"features input {ETC}/features.json was modified",
            "features list updated: once",
            "requested to recheck all features",
            "features list unchanged",
            "terminating on signal",
        ]
        wanted = [record("INFO", text).rstrip() for text in expected]
        self.assertEqual([text.rstrip() for text in found], wanted)
        everywhere = [entry["MESSAGE"].rstrip() for entry in entries() if isinstance(entry.get("MESSAGE"), str)]
        for text, whole in zip(expected, wanted):
            self.assertEqual([other for other in everywhere if other.endswith(text.rstrip())], [whole])

    def test_records_carry_their_level(self):
        "Records in the journal have priority, facility and identifier of their own, so that they can be filtered."
        write(f"{ETC}/features.json", "no JSON")
        wait_for(lambda: any("ERROR" in text for text in messages()), "the record of the broken file")
        entry = entries(_SYSTEMD_UNIT=UNIT, PRIORITY="3")[-1]
        self.assertEqual((entry["SYSLOG_FACILITY"], entry["SYSLOG_IDENTIFIER"]), ("3", "featurewatch"))
        self.assertIn(f"{ETC}/features.json", entry["MESSAGE"])


class StopTest(BootTest):
    def test_stop_leaves_no_pid_file(self):
        "After `systemctl stop` neither a process nor the PID file is left, the document stays, and a start works."
        systemctl("stop", UNIT)
        self.assertEqual((unit("ActiveState"), unit("Result")), ("inactive", "success"))
        self.assertEqual(processes(), [])
        self.assertFalse(os.path.lexists(PID_FILE))
        self.assertTrue(stat.S_ISREG(os.lstat(FEATURES_DOCUMENT).st_mode))
        self.assertEqual(os.listdir(RUN), [os.path.basename(FEATURES_DOCUMENT)])
        systemctl("start", UNIT)
        self.assertTrue(is_active())

    def test_stop_by_the_command_stays(self):
        "A daemon ended by `featurewatch -k` stays down, as a planned end, and a later start works."
        command("featurewatch", "-k")
        self.assertEqual(processes(), [])
        assert_never(processes, 3, "a restart")
        self.assertEqual((unit("ActiveState"), unit("Result")), ("inactive", "success"))
        self.assertFalse(os.path.lexists(PID_FILE))
        systemctl("start", UNIT)
        self.assertTrue(is_active())

    def test_stop_signals_stay(self):
        "A daemon that was ended by SIGTERM or SIGINT stays down."
        for number in (signal.SIGTERM, signal.SIGINT):
            daemon = wait_until_active()
            os.kill(daemon, number)
            wait_for(lambda: not processes(), "the end of the daemon")
            assert_never(processes, 2, "a restart")
            self.assertEqual(unit("Result"), "success")
            systemctl("start", UNIT)

    def test_restart(self):
        "`systemctl restart` leaves another daemon running, and no moment without the document."
        daemon = main_pid()
        systemctl("restart", UNIT)
        self.assertNotEqual(main_pid(), daemon)
        self.assertTrue(re.fullmatch(r"\d+\n", read_file(PID_FILE).decode()))
