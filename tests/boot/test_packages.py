"""The package's life on a device: upgrade, removal, purge, and what each leaves; the manual."""

import glob
import os
import pwd
import re
import shutil

from boot_harness import (
    ETC,
    GRANTS,
    HOOKS,
    PACKAGES,
    RUN,
    UNIT,
    UNITS,
    BootTest,
    add_hook,
    change,
    command,
    is_active,
    lines_of,
    main_pid,
    names,
    processes,
    systemctl,
    unit,
    write,
)
from daemon_harness import DocumentReader
from harness import PID_FILE, USER, read_file, wait_for

README = f"{HOOKS}/README"
UNIT_STATE = "/var/lib/systemd/deb-systemd-helper-*"


def package():
    [path] = glob.glob(f"{PACKAGES}/featurewatch_*.deb")
    return path


def apt(*arguments):
    environment = {**os.environ, "DEBIAN_FRONTEND": "noninteractive"}
    return command("apt-get", "--quiet", "--yes", *arguments, env=environment)


def version_before():
    """The package as an older version of it, which differs in its unit and its conffile too; returns its path."""
    folder, result = "/root/before", "/root/before.deb"
    command("dpkg-deb", "--raw-extract", package(), folder)
    control = read_file(f"{folder}/DEBIAN/control").decode()
    write(f"{folder}/DEBIAN/control", re.sub(r"(?m)^(Version: .*)$", r"\1~before", control))
    write(f"{folder}{README}", "An older text.\n")
    unit_file = f"{folder}/lib/systemd/system/{UNIT}"
    write(unit_file, read_file(unit_file).decode().replace("Description=", "Description=Before: "))
    command("dpkg-deb", "--root-owner-group", "--build", folder, result)
    return result


class UpgradeTest(BootTest):
    def setUp(self):
        super().setUp()
        apt("install", "--allow-downgrades", version_before())
        self.assertTrue(unit("Description").startswith("Before: "))
        self.assertTrue(is_active())

    def upgrade(self):
        return apt("install", package())

    def test_upgrade_keeps_it_running(self):
        "An upgrade leaves the new daemon running, by the new unit, and readers a whole document at every moment."
        change("a")
        daemon = main_pid()
        with DocumentReader() as reader:
            self.upgrade()
        self.assertEqual(reader.versions, [["a"]])
        self.assertTrue(is_active())
        self.assertNotEqual(main_pid(), daemon)
        self.assertFalse(unit("Description").startswith("Before: "))
        self.assertEqual(unit("NeedDaemonReload"), "no")
        change("b")

    def test_upgrade_keeps_what_is_the_administrators(self):
        "An upgrade keeps the inputs, the hooks and an edited README, and renews one that was left alone."
        add_hook("mine", "true")
        change("a")
        self.upgrade()
        self.assertNotEqual(lines_of(README), ["An older text."])
        self.assertTrue(os.access(f"{HOOKS}/mine", os.X_OK))
        self.assertEqual(names(), ["a"])
        write(README, "mine\n")
        apt("install", "--allow-downgrades", "--option", "Dpkg::Options::=--force-confold", "/root/before.deb")
        self.assertEqual(lines_of(README), ["mine"])

    def test_upgrade_leaves_a_disabled_unit_alone(self):
        "A unit that was disabled or masked stays so, and stopped, through an upgrade."
        systemctl("disable", "--now", UNIT)
        self.upgrade()
        self.assertEqual((unit("UnitFileState"), unit("ActiveState")), ("disabled", "inactive"))
        self.assertEqual(processes(), [])

    def test_upgrade_during_a_run(self):
        "An upgrade during a run of the hook waits for its end; the new start has a run of its own."
        runs = RUN + "/runs"
        add_hook("slow", f"echo begin >>{runs}; sleep 1; echo end >>{runs}")
        change("a")
        wait_for(lambda: lines_of(runs) == ["begin"], "the begin of the run")
        self.upgrade()
        wait_for(lambda: lines_of(runs) == ["begin", "end"] * 2, "both runs")


class RemovalTest(BootTest):
    def setUp(self):
        super().setUp()
        self.daemon = main_pid()

    def assert_gone(self):
        self.assertEqual(unit("LoadState"), "not-found")
        self.assertEqual(unit("ActiveState"), "inactive")
        self.assertFalse(os.path.exists(f"/proc/{self.daemon}"))
        self.assertFalse(os.path.lexists(PID_FILE))
        self.assertIsNone(shutil.which("featurewatch"))
        self.assertTrue(pwd.getpwnam(USER))

    def test_removal(self):
        "A removal stops the daemon and leaves the conffile and what the administrator put there; the user stays."
        change("a")
        add_hook("mine", "true")
        apt("remove", "featurewatch")
        self.assert_gone()
        for path in (README, f"{HOOKS}/mine", f"{ETC}/features.json"):
            self.assertTrue(os.path.exists(path), path)

    def test_installation_after_a_removal(self):
        "A package that is installed again runs with the inputs that were left."
        change("a")
        apt("remove", "featurewatch")
        apt("install", package())
        self.assertTrue(is_active())
        self.assertEqual((names(), unit("UnitFileState")), (["a"], "enabled"))

    def test_purge_of_an_untouched_device(self):
        "A purge leaves nothing but the user: no conffile, folder, run-time file, link or state of the unit."
        apt("purge", "featurewatch")
        self.assert_gone()
        for path in (ETC, GRANTS, RUN, "/usr/share/doc/featurewatch", "/usr/share/featurewatch"):
            self.assertFalse(os.path.lexists(path), path)
        left = command("find", "/etc", "/usr", "/var", "/lib/systemd", "-xdev", "-name", "*featurewatch*")
        self.assertEqual(left, "")
        self.assertEqual(glob.glob(f"{UNIT_STATE}/**/*featurewatch*", recursive=True), [])
        self.assertEqual(command("find", UNITS, "-lname", "*featurewatch*"), "")

    def test_purge_keeps_the_administrators_files(self):
        "A purge keeps inputs, keys, grants and hooks of the administrator, and takes the README."
        mine = [f"{ETC}/features.json", f"{ETC}/features.pem", f"{GRANTS}/features.jws", f"{HOOKS}/mine"]
        for path in mine:
            write(path, "{}")
        apt("purge", "featurewatch")
        self.assert_gone()
        for path in mine:
            self.assertEqual(lines_of(path), ["{}"], path)
        self.assertFalse(os.path.exists(README))
        self.assertFalse(os.path.exists(RUN))


class ManualTest(BootTest):
    def test_pages(self):
        "Each manual page of the package is found by its name and printed without a complaint."
        files = command("dpkg", "--listfiles", "featurewatch").splitlines()
        pages = [re.fullmatch(r"/usr/share/man/man(\d)/(.+)\.\1\.gz", path) for path in files]
        pages = [(match[1], match[2]) for match in pages if match]
        self.assertIn(("1", "featurewatch-check"), pages)
        environment = {**os.environ, "MAN_KEEP_STDERR": "1", "MANWIDTH": "80"}
        for section, name in pages:
            with self.subTest(name):
                text = command("man", "--warnings", section, name, env=environment)
                self.assertIn("NAME", text)
                self.assertNotIn("warning", text)
