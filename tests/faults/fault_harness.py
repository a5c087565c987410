"""Helpers for runs of the agent on a TPM connection that fails on demand; they build on `harness` and `tpm_harness`.

Where the tests run
    Inside `scripts/sandbox --tpm`. TPM_FAULTS names the folder with the injector (libtss2-tcti-default.so; the manual
    is the head of tpm_fault.cpp) and with libsleep_log.so.

A test
    Derive from `FaultTest`. It has the sandbox's software TPM under its control: `self.start_fresh()` starts it as new,
    `self.start_provisioned()` as it was after a first report. Both start from a copy of a state that was left by an
    orderly shutdown, so a test may do anything to the TPM and start again, as often as it likes. The seeds are the same
    in both, so the endorsement key is, and a key made on the one loads on the other.

        class LostTest(FaultTest):
            def test_lost_at_once(self):
                "A connection that is lost with the first command fails the report."
                self.start_provisioned()
                run = self.run_agent("-d", plan=["#1 lose"])
                self.assert_refused(run)

    `self.run_agent` gives a `FaultRun`: the agent's `result`, and the `commands` that the injector saw.

The TPM itself
    `self.tpm` speaks to it without any TSS library: `handles`, `counter`, `flush_all` and so on.

The context
    `self.context()` is the path of a context file with key, challenge and nonce for this TPM;
    `self.assert_report(run)` checks a whole report against the TPM, with the context also secret and attestation.
"""

import contextlib
import os
import shutil
import signal
import socket
import struct
import sys
from dataclasses import dataclass

sys.path.append(os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "system"))

import harness
from harness import DEFAULT_SERIAL, SandboxTest, document_bytes, is_alive, read_file, wait_for, write_file
from tpm_harness import (
    COUNTER,
    TEMPORARY,
    TPM_PID_FILE,
    TPM_STATE,
    WRITTEN,
    context,
    make_challenge,
    parse_report,
    start_tpm,
    tss_failure,
    verify_attestation,
    without_tpm_section,
)

NV_UNDEFINE_SPACE = 0x122
EVICT_CONTROL = 0x120
NV_DEFINE_SPACE = 0x12A
CREATE_PRIMARY = 0x131
NV_INCREMENT = 0x134
SHUTDOWN = 0x145
ACTIVATE_CREDENTIAL = 0x147
GET_SESSION_AUDIT_DIGEST = 0x14D
NV_READ = 0x14E
POLICY_SECRET = 0x151
CREATE = 0x153
LOAD = 0x157
FLUSH_CONTEXT = 0x165
NV_READ_PUBLIC = 0x169
READ_PUBLIC = 0x173
START_AUTH_SESSION = 0x176
GET_CAPABILITY = 0x17A

RC_EXCLUSIVE = 0x121
RC_NV_DEFINED = 0x14C
RC_RETRY = 0x922
CONNECTION_FAILED = 0xA000A  # of the TCTI

FIRST_TRANSIENT, FIRST_LOADED_SESSION, FIRST_SAVED_SESSION = 0x80000000, 0x02000000, 0x03000000

NONCE = bytes(range(100, 120))
SECRET = b"what only this TPM can tell"
CB_DATA = "call back"


def failed(text, code):
    """The text of a record that ends in a response code."""
    return tss_failure(text, code)[1]


def faults_folder():
    folder = os.environ.get("TPM_FAULTS")
    if not folder:
        raise AssertionError("TPM_FAULTS does not name the folder of the injector")
    return os.path.abspath(folder)


# --- the software TPM -------------------------------------------------------------------------------------------------


class SoftwareTPM:
    """SoftwareTPM is the swtpm at 127.0.0.1:2321: the sandbox's own at first, later one of ours."""

    FOLDER = "/run/sandbox/tpm-of-test"
    ADDRESS = ("127.0.0.1", 2321)

    def __init__(self):
        self._folder = TPM_STATE

    def stop(self, state):
        """Shuts it down in order, and copies what it keeps to the folder `state`."""
        self._done(SHUTDOWN, struct.pack(">H", 0))
        self.kill()
        os.makedirs(state)
        for name in os.listdir(self._folder):
            if name.endswith("permall"):
                shutil.copy(os.path.join(self._folder, name), state)

    def kill(self):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            pid = int(read_file(TPM_PID_FILE))
            os.kill(pid, signal.SIGKILL)
            wait_for(lambda: not is_alive(pid), "the end of swtpm")
            os.unlink(TPM_PID_FILE)

    def start(self, state):
        """Starts it with a copy of `state`."""
        self.kill()
        self._folder = self.FOLDER
        shutil.rmtree(self._folder, ignore_errors=True)
        shutil.copytree(state, self._folder)
        start_tpm(self._folder)

    def send(self, command):
        """One command and its response, as bytes."""
        with socket.create_connection(self.ADDRESS, timeout=10) as connection:
            connection.sendall(command)
            with connection.makefile("rb") as stream:
                header = stream.read(10)
                return header + stream.read(struct.unpack(">I", header[2:6])[0] - 10)

    def call(self, code, body, password=False):
        """Returns the response code and what follows the header. `password`: with the empty one, once."""
        handles, parameters = body if password else (body, b"")
        authorisation = struct.pack(">IIHBH", 9, 0x40000009, 0, 0, 0) if password else b""
        payload = handles + authorisation + parameters
        response = self.send(struct.pack(">HII", 0x8002 if password else 0x8001, 10 + len(payload), code) + payload)
        return struct.unpack(">I", response[6:10])[0], response[10:]

    def _done(self, *arguments, **keywords):
        code, body = self.call(*arguments, **keywords)
        if code:
            raise AssertionError(f"the TPM answers 0x{code:x}")
        return body

    def handles(self, first):
        """The handles that exist, from `first` on, of its kind."""
        body = self._done(GET_CAPABILITY, struct.pack(">III", 1, first, 64))
        count = struct.unpack(">I", body[5:9])[0]
        return list(struct.unpack(f">{count}I", body[9 : 9 + 4 * count]))

    def exists(self, handle):
        return handle in self.handles(handle)

    def transients(self):
        return self.handles(FIRST_TRANSIENT)

    def sessions(self):
        return self.handles(FIRST_LOADED_SESSION) + self.handles(FIRST_SAVED_SESSION)

    def flush_all(self):
        """Drops all sessions and transient objects, as a resource manager does for a dead client."""
        for handle in self.sessions() + self.transients():
            self._done(FLUSH_CONTEXT, struct.pack(">I", handle))

    def is_written(self, index):
        """Whether a counter index was ever incremented."""
        body = self._done(NV_READ_PUBLIC, struct.pack(">I", index))
        return bool(struct.unpack(">I", body[8:12])[0] & WRITTEN)

    def counter(self):
        """The tally counter's value; None when it does not exist or has none."""
        if not self.exists(COUNTER) or not self.is_written(COUNTER):
            return None
        body = self._done(NV_READ, (struct.pack(">II", COUNTER, COUNTER), struct.pack(">HH", 8, 0)), password=True)
        return struct.unpack(">Q", body[6:14])[0]


# --- what the injector saw --------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Command:
    """Command is one line of the injector's log. `rc` and `size` are None when the caller got no response."""

    number: int
    code: int
    rc: int | None
    microseconds: int
    size: int | None
    action: str | None
    data: bytes

    @property
    def operand(self):
        """What it is about: the handle looked for or the NV index; otherwise None."""
        if self.code in (GET_CAPABILITY, NV_INCREMENT, NV_READ, NV_UNDEFINE_SPACE):
            return struct.unpack(">I", self.data[14:18])[0]
        if self.code == NV_READ_PUBLIC:
            return struct.unpack(">I", self.data[10:14])[0]
        if self.code == NV_DEFINE_SPACE:
            at = 18 + struct.unpack(">I", self.data[14:18])[0]
            at += 2 + struct.unpack(">H", self.data[at : at + 2])[0] + 2
            return struct.unpack(">I", self.data[at : at + 4])[0]
        return None

    def __str__(self):
        about = "" if self.operand is None else f" 0x{self.operand:x}"
        rc = "-" if self.rc is None else f"0x{self.rc:x}"
        return f"#{self.number} 0x{self.code:x}{about} -> {rc} {self.action or ''}"


def parse_log(data):
    def number(word, base=10):
        return None if word == "-" else int(word, base)

    commands = []
    for line in data.decode().splitlines():
        place, code, rc, microseconds, size, action, content = line.split(" ")
        commands.append(
            Command(
                int(place),
                int(code, 16),
                number(rc, 16),
                int(microseconds),
                number(size),
                None if action == "-" else action,
                bytes.fromhex(content),
            )
        )
    return commands


@dataclass
class FaultRun:
    """FaultRun is one run of the agent with the injector."""

    result: harness.Result
    commands: list
    plan: list

    @property
    def status(self):
        return self.result.status

    def of(self, code, operand=None):
        """The commands with this code, and with this operand if one is given."""
        return [c for c in self.commands if c.code == code and operand in (None, c.operand)]

    def __str__(self):
        return f"{self.result}\n  plan {self.plan}\n  " + "\n  ".join(str(command) for command in self.commands)


# --- tests ------------------------------------------------------------------------------------------------------------


class FaultTest(SandboxTest):
    """FaultTest is the base of all runs with the injector; the module's head says how to use it."""

    def setUp(self):
        super().setUp()
        self.tpm = SoftwareTPM()
        self.addCleanup(self.tpm.kill)
        self._fresh = self.work_path("fresh")
        self._provisioned = self.work_path("provisioned")
        self._key = None
        self._challenge = None
        self.ek = None
        self.tpm.stop(self._fresh)

    def start_fresh(self):
        self._provision()
        self.tpm.start(self._fresh)

    def start_provisioned(self):
        self._provision()
        self.tpm.start(self._provisioned)

    def _provision(self):
        """Makes the state after a first report, and the challenge that a verifier would send next."""
        if self.ek:
            return
        self.tpm.start(self._fresh)
        run = self.run_agent("-d")
        self.assert_success(run.result)
        report = parse_report(run.result.stdout)
        self.ek, self._key = report.ek, report.key
        self._challenge = make_challenge(report.ek, report.ak_public, SECRET)
        self.tpm.stop(self._provisioned)

    def context(self, key=True):
        """A context file; without `key` neither the key nor the challenge for it."""
        members = context(NONCE, cbData=CB_DATA)
        if key:
            members = context(NONCE, self._key, self._challenge, cbData=CB_DATA)
        return write_file(self.work_path(f"context-{int(key)}.json"), members)

    def run_agent(self, *arguments, plan=(), env=None, **keywords):
        """Runs the agent with the injector. Fails if a plan was given and none of its rules was ever used."""
        plan_file = write_file(self.work_path("plan"), "".join(rule + "\n" for rule in plan))
        log = self.work_path("log")
        with contextlib.suppress(FileNotFoundError):
            os.unlink(log)
        environment = {
            "LD_LIBRARY_PATH": faults_folder(),
            "TPM_FAULT_PLAN": plan_file,
            "TPM_FAULT_LOG": log,
            "TSS2_LOG": "all+NONE",
            **(env or {}),
        }
        result = harness.run_agent(*arguments, env=environment, **keywords)
        self.assertTrue(os.path.exists(log), f"no TPM command went through the injector\n{result}")
        run = FaultRun(result, parse_log(read_file(log)), list(plan))
        if plan:
            self.assertTrue(any(command.action for command in run.commands), f"the fault did not happen\n{run}")
        return run

    def start_for(self, mode):
        """Starts the TPM in the state that a `steps.Mode` needs."""
        if mode.fresh:
            self.start_fresh()
        elif not mode.left_over:
            self.start_provisioned()
        else:
            self.tpm.start(self._state_with_left_over(mode.left_over))

    def _state_with_left_over(self, kind):
        """The provisioned state with the temporary index in it, as a killed run leaves it: written or unwritten."""
        state = self.work_path(kind)
        if not os.path.exists(state):
            self.start_provisioned()
            last = {"unwritten": NV_DEFINE_SPACE, "written": NV_INCREMENT}[kind]
            self.run_agent("-R", plan=[f"0x{last:x} kill-after"], may_die=True)
            self.tpm.flush_all()
            self.assertEqual(self.tpm.is_written(TEMPORARY), kind == "written")
            self.tpm.stop(state)
        return state

    def run_mode(self, mode, **keywords):
        """Runs the agent as a `steps.Mode` says."""
        context = ["-A", self.context(key=mode.context == "with key")] if mode.context else []
        return self.run_agent(mode.option, *context, **keywords)

    # --- what a run must be ---

    def assert_order(self, run, steps):
        """The TPM commands were those of these steps, in their order."""
        found = [(command.code, command.operand) for command in run.commands]
        wanted = [(step.code, step.operand) for step in steps]
        self.assertEqual(found, wanted, str(run))

    def assert_refused(self, run):
        """Status 1, nothing on standard output, a reason, and a FATAL record at the end."""
        levels = [record.level for record in run.result.records]
        self.assertEqual((run.status, run.result.stdout), (1, b""), str(run))
        self.assertEqual(levels.count("FATAL"), 1, str(run))
        self.assertEqual(levels[-1], "FATAL", str(run))
        self.assertIn("ERROR", levels[:-1], str(run))

    def assert_sound(self, run):
        """Either refused, or a report that is right in every respect. Returns whether there is one."""
        if run.status != 0:
            self.assert_refused(run)
            return False
        self.assert_report(run)
        return True

    def assert_report(self, run):
        """Status 0 and a report that shows what this TPM holds and, with a context, answers to it."""
        self.assert_success(run.result)
        attested = "-A" in run.result.arguments
        answering = attested and self.context(key=True) in run.result.arguments
        report = parse_report(run.result.stdout)
        self.assertEqual((report.ek, report.value), (self.ek, self.tpm.counter()), str(run))
        self.assertEqual(report.answer, SECRET if answering else None, str(run))
        self.assertEqual((report.attestation is not None, report.signature is not None), (attested, attested), str(run))
        if answering:
            self.assertEqual(report.key, self._key, str(run))
        if attested:
            verify_attestation(report, NONCE)
        others = {"serial": DEFAULT_SERIAL, "altSerial": {}, **({"cbData": CB_DATA} if attested else {})}
        self.assertEqual(without_tpm_section(run.result.stdout), document_bytes(others), str(run))

    def assert_key_works(self, run):
        """The AK in the report of this run can be used for another report."""
        self.tpm.flush_all()
        key = parse_report(run.result.stdout).key
        path = write_file(self.work_path("key.json"), context(NONCE, key))
        again = self.run_agent("-d", "-A", path)
        self.assert_success(again.result)
        report = parse_report(again.result.stdout)
        self.assertEqual(report.key, key, str(run))
        verify_attestation(report, NONCE)

    def assert_nothing_left(self, run, transients=0, sessions=0):
        """How much the run has left in the TPM."""
        found = (len(self.tpm.transients()), len(self.tpm.sessions()))
        self.assertEqual(found, (transients, sessions), f"transient objects and sessions left\n{run}")
