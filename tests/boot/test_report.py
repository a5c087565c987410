"""The device report on the booted device: as root, as a member of the group tss, and each day by the example units."""

import grp
import json
import os
import pwd
import shutil
import time

from boot_harness import ETC, UNITS, BootTest, add_drop_in, command, copy_example, lines_of, systemctl, unit, write
from harness import read_file, run_agent, wait_for
from tpm_harness import parse_report

SERVICE = "featurewatch-report.service"
TIMER = "featurewatch-report.timer"
REPORT = "/var/lib/featurewatch-report/report.json"

# The software TPM is no device: a network address instead of /dev/tpmrm0, as the kernel of a container has none.
FOR_SOFTWARE_TPM = """
[Unit]
ConditionPathExists=
[Service]
PrivateNetwork=no
RestrictAddressFamilies=AF_INET
ExecStartPre=/bin/sh -c 'id --groups >who'
"""


def start_tpm():
    state = "/run/software-tpm"
    os.makedirs(state, exist_ok=True)
    options = ["--server", "type=tcp,port=2321,bindaddr=127.0.0.1", "--ctrl", "type=tcp,port=2322,bindaddr=127.0.0.1"]
    flags = ["--flags", "not-need-init,startup-clear", "--pid", f"file={state}/pid", "--daemon"]
    command("swtpm", "socket", "--tpm2", "--tpmstate", f"dir={state}", *options, *flags)


def stop_tpm():
    os.kill(int(read_file("/run/software-tpm/pid")), 15)


class DeviceTest(BootTest):
    def setUp(self):
        super().setUp()
        write(f"{ETC}/identifiers", "ORV_SN=boot-1\n")

    def with_tpm(self):
        start_tpm()
        self.addCleanup(stop_tpm)

    def check(self, data):
        """Fails unless it is a whole report of this device; returns the endorsement key."""
        parse_report(data)
        report = json.loads(data)
        self.assertEqual(report["serial"], "boot-1")
        return report["tpm2"]["ekEccNistP256PubTpm2B"]


class ReportTest(DeviceTest):
    def test_as_root(self):
        "Root gets a whole report."
        self.with_tpm()
        result = run_agent("-d")
        self.assertEqual(result.status, 0, str(result))
        self.check(result.stdout)

    def test_as_a_member_of_tss(self):
        "An ordinary user in the group tss gets a report of the same TPM."
        self.with_tpm()
        nobody = pwd.getpwnam("nobody")
        user = {"user": nobody.pw_uid, "group": nobody.pw_gid, "extra_groups": [grp.getgrnam("tss").gr_gid]}
        result = run_agent("-d", **user)
        self.assertEqual(result.status, 0, str(result))
        self.assertEqual(self.check(result.stdout), self.check(run_agent("-d").stdout))

    def test_access_to_the_device(self):
        "The rules of udev that come with the package's dependencies open /dev/tpmrm0 to the group tss, and tag it."
        rules = "\n".join(lines_of("/usr/lib/udev/rules.d/60-tpm-udev.rules"))
        self.assertRegex(rules, r'KERNEL=="tpmrm\[0-9\]\*".* TAG\+="systemd".* MODE="0660".* GROUP="tss"')


class ExampleTest(DeviceTest):
    def setUp(self):
        super().setUp()
        shutil.rmtree("/var/lib/private/featurewatch-report", ignore_errors=True)
        for name in (SERVICE, TIMER):
            path = copy_example(name, UNITS)
            self.addCleanup(os.unlink, path)
        systemctl("daemon-reload")

    def test_units_are_sound(self):
        "systemd finds no fault in the example units, which are hardened as well as the daemon's."
        self.assertEqual(command("systemd-analyze", "verify", f"{UNITS}/{SERVICE}", f"{UNITS}/{TIMER}"), "")
        command("systemd-analyze", "security", "--no-pager", "--threshold=20", SERVICE)

    def test_without_a_tpm(self):
        "Where there is no TPM nothing hangs or fails: the timer waits for its device, and the service is skipped."
        begin = time.monotonic()
        systemctl("enable", TIMER)
        self.assertTrue(os.path.islink(f"{UNITS}/dev-tpmrm0.device.wants/{TIMER}"))
        systemctl("start", SERVICE)
        self.assertLess(time.monotonic() - begin, 10)
        self.assertEqual((unit("ConditionResult", SERVICE), unit("ActiveState", SERVICE)), ("no", "inactive"))
        self.assertEqual(unit("ActiveState", TIMER), "inactive")
        self.assertEqual(systemctl("list-jobs", "--no-legend").count("tpmrm0"), 0)
        self.assertFalse(os.path.exists(REPORT))
        systemctl("disable", TIMER)

    def test_report_of_the_service(self):
        "The service writes the report as a user of its own, who is in the group tss and not root."
        self.with_tpm()
        add_drop_in(FOR_SOFTWARE_TPM, SERVICE)
        systemctl("start", SERVICE)
        self.check(read_file(REPORT))
        self.assertGreater(os.stat(REPORT).st_uid, 60000)
        [groups] = lines_of(os.path.dirname(REPORT) + "/who")
        self.assertIn(str(grp.getgrnam("tss").gr_gid), groups.split())
        self.assertNotIn("0", groups.split())
        self.assertEqual(sorted(os.listdir(os.path.dirname(REPORT))), ["report.json", "who"])

    def test_failed_report_keeps_the_last_one(self):
        "A report that fails leaves the last one as it is, and the service fails."
        self.with_tpm()
        add_drop_in(FOR_SOFTWARE_TPM, SERVICE)
        systemctl("start", SERVICE)
        before = read_file(REPORT)
        os.unlink(f"{ETC}/identifiers")
        systemctl("start", SERVICE, status=1)
        self.assertEqual(read_file(REPORT), before)

    def test_timer(self):
        "The timer starts the service."
        self.with_tpm()
        add_drop_in(FOR_SOFTWARE_TPM, SERVICE)
        add_drop_in("[Timer]\nOnCalendar=\nRandomizedDelaySec=0\nOnActiveSec=0\n", TIMER)
        systemctl("start", TIMER)
        wait_for(lambda: os.path.exists(REPORT), "the report", 20)
        systemctl("stop", TIMER)

    def test_timer_runs_each_day(self):
        "The timer as it is shipped elapses within a day and six hours, and makes up for what it missed."
        systemctl("start", TIMER)
        self.assertNotEqual(unit("NextElapseUSecRealtime", TIMER), "")
        self.assertEqual((unit("Persistent", TIMER), unit("RandomizedDelayUSec", TIMER)), ("yes", "6h"))
        self.assertIn("OnCalendar=*-*-* 00:00:00", unit("TimersCalendar", TIMER))
        systemctl("stop", TIMER)
