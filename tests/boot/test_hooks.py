"""The hooks in /etc/orvanta/changed.d: their order, rights and limits in the unit, the examples, and the stop."""

import contextlib
import os

from boot_harness import (
    DROP_INS,
    HOOKS,
    RUN,
    UNIT,
    UNITS,
    BootTest,
    add_hook,
    change,
    command,
    copy_example,
    is_active,
    lines_of,
    main_pid,
    messages,
    names,
    record,
    systemctl,
    unit,
    wait_until_inactive,
    write,
)
from daemon_harness import status_of
from harness import assert_never, read_file, wait_for

RUNS = RUN + "/runs"
GATE = RUN + "/gate"
FAILED = record("ERROR", "script exited with status 1")

# Each probe is a line "name status" of the file.
PROBE = f"""
probe() {{ "${{@:2}}" 2>/dev/null; echo "$1 $?" >>{RUN}/probes; }}
probe root test "$(id -u)" = 0
probe log logger --tag probe here
probe folder touch {RUN}/touched
probe systemctl systemctl --no-block start probed.service
probe etc touch /etc/touched
probe var touch /var/lib/orvanta/touched
probe mount mount -t tmpfs probe {RUN}/mnt
probe network bash -c 'exec 3<>/dev/udp/127.0.0.1/9'
probe signal kill -HUP "$(cat {RUN}/featurewatch.pid)"
probe owner chown 1 {RUN}/touched
echo end 0 >>{RUN}/probes
"""
INSIDE = ("root", "log", "folder", "systemctl")
TRACES = ("/etc/touched", "/var/lib/orvanta/touched", "/root/probed")
BEYOND = ("etc", "var", "mount", "network", "signal", "owner")


def unlink_if_there(path):
    with contextlib.suppress(FileNotFoundError):
        os.unlink(path)


class RunTest(BootTest):
    def test_order(self):
        "The hooks run one after the other by their names; what is not executable or has a dot in its name does not."
        for name in ("b", "10", "a", "9", "A-c_d", "x.sh", "y~", "z.dpkg-old"):
            add_hook(name, f"echo begin {name} >>{RUNS}; sleep 0.05; echo end {name} >>{RUNS}")
        write(f"{HOOKS}/plain", f"#!/bin/sh\necho plain >>{RUNS}\n")
        change("a")
        expected = [f"{what} {name}" for name in ("10", "9", "A-c_d", "a", "b") for what in ("begin", "end")]
        wait_for(lambda: len(lines_of(RUNS)) >= len(expected), "the runs")
        systemctl("stop", UNIT)
        self.assertEqual(lines_of(RUNS), expected)

    def test_a_failed_hook_stops_no_other(self):
        "A hook that fails leaves one record, the hooks after it run, and so does the next change."
        add_hook("1-fails", "exit 7")
        add_hook("2-runs", f"echo run >>{RUNS}")
        for number in (1, 2):
            change(f"f{number}")
            wait_for(lambda: messages().count(FAILED) == number, "the record")
            self.assertEqual(len(lines_of(RUNS)), number)
        self.assertTrue(is_active())

    def test_surroundings(self):
        "A hook has the path of systemd's services, the folder / and no input; what it prints goes nowhere."
        add_hook("tell", f'echo noise; echo noise >&2; {{ echo "$PATH"; pwd; readlink /proc/$$/fd/0; umask; }} >{RUNS}')
        change("a")
        wait_for(lambda: len(lines_of(RUNS)) == 4, "the run")
        path = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
        self.assertEqual(lines_of(RUNS), [path, "/", "/dev/null", "0022"])
        self.assertNotIn("noise", "\n".join(messages()))


class StopTest(BootTest):
    def test_stop_waits_for_the_hook(self):
        "`systemctl stop` during a run of the hook returns after its end; neither daemon nor hook is killed."
        add_hook("slow", f"echo begin >>{RUNS}; until [ -e {GATE} ]; do sleep 0.02; done; echo end >>{RUNS}")
        change("a")
        wait_for(lambda: lines_of(RUNS) == ["begin"], "the begin of the run")
        daemon = main_pid()
        systemctl("stop", "--no-block", UNIT)
        wait_for(lambda: unit("ActiveState") == "deactivating", "the stop")
        assert_never(lambda: not os.path.exists(f"/proc/{daemon}"), 2, "the daemon's end")
        write(GATE, "")
        wait_until_inactive()
        self.assertEqual((lines_of(RUNS), unit("Result")), (["begin", "end"], "success"))


class LimitsTest(BootTest):
    def setUp(self):
        super().setUp()
        os.makedirs(RUN + "/mnt", exist_ok=True)
        self.addCleanup(command, "umount", "--quiet", RUN + "/mnt", status=None)
        write(f"{UNITS}/probed.service", "[Service]\nExecStart=touch /root/probed\n")
        systemctl("daemon-reload")
        for path in (f"{UNITS}/probed.service", *TRACES):
            self.addCleanup(unlink_if_there, path)

    def probes(self):
        """Has the hook probe what it may do; returns the names of what it could, in order."""
        add_hook("probe", PROBE)
        change("probed")
        wait_for(lambda: "end 0" in lines_of(RUN + "/probes"), "the end of the probes")
        return [line.split()[0] for line in lines_of(RUN + "/probes")[:-1] if line.endswith(" 0")]

    def test_within_the_unit(self):
        "A hook is root, may log, start units and write /run/featurewatch, and nothing beyond that."
        self.assertEqual(self.probes(), list(INSIDE))
        wait_for(lambda: os.path.exists("/root/probed"), "the unit that the hook has started")
        self.assertFalse(os.path.exists("/etc/touched"))
        self.assertIn("here", command("journalctl", "--identifier=probe"))

    def test_with_rights(self):
        "With the example drop-in a hook may do what root may; the daemon has still no capability, nor root's user."
        copy_example("hook-with-rights.conf", DROP_INS)
        systemctl("daemon-reload")
        systemctl("restart", UNIT)
        self.assertEqual(self.probes(), list(INSIDE + BEYOND))
        for kind in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
            self.assertEqual(int(status_of(main_pid(), kind)[0], 16), 0, kind)
        self.assertNotEqual(status_of(main_pid(), "Uid")[0], "0")
        self.assertEqual([text for text in messages() if "Unknown key" in text], [])
        command("systemd-analyze", "verify", f"/lib/systemd/system/{UNIT}")


class ExampleTest(BootTest):
    def test_prometheus_hook(self):
        "The hook for Prometheus works as it was shipped, within the limits of the unit."
        copy_example("prometheus-textfile", HOOKS)
        change("video-wall")
        metrics = RUN + "/featurewatch.prom"
        line = 'featurewatch_feature_info{name="video-wall",source="installed"} 1'
        wait_for(lambda: line in lines_of(metrics), "the metrics")
        self.assertEqual(os.stat(metrics).st_mode & 0o777, 0o644)
        self.assertEqual(messages().count(FAILED), 0)

    def test_merged_runs(self):
        "A hook that starts a unit without waiting, as its README shows, has it started."
        readme = read_file(f"{HOOKS}/README").decode()
        [line] = [text.strip() for text in readme.splitlines() if "systemctl" in text]
        write(f"{UNITS}/{line.split()[-1]}", f"[Service]\nType=oneshot\nExecStart=touch {RUN}/set-up\n")
        self.addCleanup(lambda: os.unlink(f"{UNITS}/{line.split()[-1]}"))
        systemctl("daemon-reload")
        add_hook("set-up", line + "\n")
        change("a")
        wait_for(lambda: os.path.exists(RUN + "/set-up"), "the run of the unit")
        self.assertEqual(names(), ["a"])
