"""Unplanned ends: whatever kills the daemon or its launcher, the unit brings both back, and no change is lost."""

import os
import signal

from boot_harness import (
    RUN,
    UNIT,
    BootTest,
    add_hook,
    change,
    install_features,
    is_active,
    launcher_pid,
    lines_of,
    main_pid,
    names,
    processes,
    systemctl,
    unit,
    wait_until_active,
    write,
)
from harness import PID_FILE, is_alive, read_file, wait_for

RUNS = RUN + "/runs"
GATE = RUN + "/gate"


class KilledTest(BootTest):
    def kill(self, pid, number=signal.SIGKILL):
        os.kill(pid, number)
        wait_for(lambda: not is_alive(pid), "the end of the process")

    def assert_restarted(self, before):
        daemon = wait_until_active(but=before)
        wait_for(lambda: sorted(processes()) == sorted([daemon, launcher_pid()]), "only the new processes")
        self.assertEqual(read_file(PID_FILE).decode().strip(), str(daemon))

    def test_killed_daemon(self):
        "A daemon that was killed, by whatever signal a fault brings, is started again and takes changes."
        for number in (signal.SIGKILL, signal.SIGSEGV, signal.SIGABRT, signal.SIGPIPE):
            with self.subTest(number):
                daemon = main_pid()
                self.kill(daemon, number)
                self.assert_restarted(daemon)
                change(number.name)

    def test_change_while_it_is_down(self):
        "A change between the end and the restart is in the document after it."
        daemon = main_pid()
        self.kill(daemon)
        install_features("meanwhile")
        self.assert_restarted(daemon)
        self.assertEqual(names(), ["meanwhile"])

    def test_killed_launcher(self):
        "When the launcher was killed, the next change ends the daemon and brings both back; the hook runs for it."
        add_hook("count", f"cp {RUN}/tally-features.json {RUN}/seen; echo run >>{RUNS}")
        daemon = main_pid()
        self.kill(launcher_pid())
        install_features("after")
        self.assert_restarted(daemon)
        wait_for(lambda: lines_of(RUNS) == ["run"], "the run of the hook")
        self.assertEqual(names(), ["after"])
        self.assertIn(b'"after"', read_file(RUN + "/seen"))

    def test_ten_kills_in_a_row(self):
        "Ten kills in a row leave it running."
        for _ in range(10):
            daemon = wait_until_active()
            self.kill(daemon)
            self.assert_restarted(daemon)
        self.assertEqual(unit("NRestarts"), "10")
        change("alive")

    def test_kill_during_a_run(self):
        "When the daemon is killed, so is the hook that runs; the new start runs it again, never two at a time."
        gate = f"until [ -e {GATE} ]; do sleep 0.02; done"
        add_hook("slow", f"echo begin $$ >>{RUNS}; {gate}; echo end $$ >>{RUNS}")
        change("a")
        wait_for(lambda: len(lines_of(RUNS)) == 1, "the begin of the run")
        hook, daemon = int(lines_of(RUNS)[0].split()[1]), main_pid()
        self.kill(daemon)
        self.assert_restarted(daemon)
        self.assertFalse(is_alive(hook))
        wait_for(lambda: len(lines_of(RUNS)) == 2, "the begin of the next run")
        write(GATE, "")
        wait_for(lambda: len(lines_of(RUNS)) == 3, "its end")
        self.assertEqual([line.split()[0] for line in lines_of(RUNS)], ["begin", "begin", "end"])

    def test_failed_start_is_tried_again(self):
        "A start that fails says so and is tried again until its cause is gone."
        systemctl("stop", UNIT)
        os.unlink(RUN + "/tally-features.json")
        os.mkdir(RUN + "/tally-features.json")
        systemctl("start", UNIT, status=1)
        wait_for(lambda: int(unit("NRestarts")) >= 2, "two more starts", 20)
        self.assertFalse(is_active())
        os.rmdir(RUN + "/tally-features.json")
        wait_until_active()
