"""What the tests of tools/fleet share: devices that answer any number of challenges, and the program, run quickly.

A `FleetDevice` finds a challenge's secret out as a TPM does, by formulas of the TPM 2.0 Library (Architecture,
"Credential Protection") that are written down here once more, on hashlib alone.
"""

import contextlib
import hashlib
import hmac
import json
import os
import secrets
import shutil
import sqlite3
import tempfile
import unittest
from typing import NamedTuple

from attest_support import AK_HEAD, EK_HEAD, SoftwareDevice, decoded, name_of, report_text, sha256, sized
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes
from forked_command import TOOLS, load_command, run_forked

FLEET = os.path.join(TOOLS, "fleet")
PLACES = (serialization.Encoding.DER, serialization.PublicFormat.SubjectPublicKeyInfo)


PARTS = ("challenges", "import", "streams", "verdicts", "views")
fleet = load_command("fleet", *(f"fleet_{part}" for part in PARTS))


# --- devices ----------------------------------------------------------------------------------------------------------


class MemoryKey:
    """A MemoryKey is a P-256 key pair, and its public area, which begins with `head`."""

    def __init__(self, head):
        self.private = ec.generate_private_key(ec.SECP256R1())
        self.spki = self.private.public_key().public_bytes(*PLACES)
        self.area = head + sized(self.spki[-64:-32]) + sized(self.spki[-32:])
        self.whole = sized(self.area)
        self.name = name_of(self.area)

    def sign(self, data):
        return self.private.sign(data, ec.ECDSA(hashes.SHA256()))


class FleetDevice(SoftwareDevice):
    """A FleetDevice is a SoftwareDevice with keys in memory, which need no files and no programs."""

    def __init__(self, serial):
        self.serial, self.alt_serial = serial, {"boardSerial": f"board of {serial}"}
        self.ek = MemoryKey(EK_HEAD)
        self.counter = 7
        self.renew_ak()

    def renew_ak(self):
        self.ak = MemoryKey(AK_HEAD)
        self.ak_private = sized(secrets.token_bytes(126))

    @property
    def ek_digest(self):
        return hashlib.sha256(self.ek.spki).hexdigest()

    def answer_to(self, context, **changes):
        """The attested report with the secret that the context's challenge holds for this device."""
        return self.answer(context, activate(self.ek, self.ak, decoded(context["tpm2"]["ak"]["actChall"])), **changes)


def activate(ek, ak, challenge):
    id_object, rest = split(challenge)
    point, nothing = split(rest)
    (x, coordinates), integrity_and_secret = split(point), split(id_object)
    y, _ = split(coordinates)
    integrity, encrypted = integrity_and_secret
    public = ec.EllipticCurvePublicNumbers(int.from_bytes(x, "big"), int.from_bytes(y, "big"), ec.SECP256R1())
    shared = ek.private.exchange(ec.ECDH(), public.public_key())
    seed = sha256(bytes([0, 0, 0, 1]) + shared + b"IDENTITY\0" + x + ek.spki[-64:-32])
    if nothing or hmac.digest(kdfa(seed, b"INTEGRITY", b"", 256), encrypted + ak.name, "sha256") != integrity:
        raise AssertionError("a challenge for another TPM")
    decryptor = Cipher(algorithms.AES(kdfa(seed, b"STORAGE", ak.name, 128)), modes.CFB(bytes(16))).decryptor()
    secret, _ = split(decryptor.update(encrypted))
    return secret


def split(data):
    end = 2 + int.from_bytes(data[:2], "big")
    return data[2:end], data[end:]


def kdfa(key, label, context, bits):
    data = bytes([0, 0, 0, 1]) + label + b"\0" + context + bits.to_bytes(4, "big")
    return hmac.digest(key, data, "sha256")[: bits // 8]


# --- the program ------------------------------------------------------------------------------------------------------


class Result(NamedTuple):
    status: int
    output: bytes
    errors: bytes

    def lines(self):
        return [json.loads(line) for line in self.output.splitlines()]


def run_fleet(*words, content=b"", prepare=lambda: None):
    """Runs the program to its end, in a process made from this one. `prepare` is called in there before. It may not end
    with a traceback, nor with a status of its own making."""
    run = run_forked(fleet.main, words, content, prepare)
    result = Result(run.returncode, run.stdout, run.stderr)
    if b"Traceback" in result.errors or b"internal error" in result.errors or result.status not in (-9, 0, 1, 2):
        raise AssertionError(f"fleet {words}: {result}")
    return result


def lines_of(objects):
    """JSON Lines; a report's numbers are as the agent prints them."""
    return "".join(line_of(value) + "\n" for value in objects).encode()


def line_of(value):
    return report_text(value).replace("\n", " ") if "tpm2" in value else json.dumps(value)


class FleetTest(unittest.TestCase):
    """A FleetTest has a folder and a registry of its own. With FLEET_TEST_SERVER, the URL of a PostgreSQL server
    without a database's name, the registry is a database there."""

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        server = os.environ.get("FLEET_TEST_SERVER")
        self.is_sqlite = server is None
        self.url = os.path.join(self.folder, "fleet.db") if server is None else self.make_database(server)

    def make_database(self, server):
        import psycopg2

        name = f"test_{secrets.token_hex(8)}"
        with contextlib.closing(psycopg2.connect(server.replace("NAME", "postgres"))) as connection:
            connection.autocommit = True
            connection.cursor().execute(f"CREATE DATABASE {name}")
        return server.replace("NAME", name)

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, content):
        if isinstance(content, dict):
            content = report_text(content)
        with open(self.path(name), "wb") as stream:
            stream.write(content if isinstance(content, bytes) else content.encode())
        return self.path(name)

    def fleet(self, *words, status=0, **keywords):
        """Runs the program on the registry; the exit status must be this one."""
        result = run_fleet("--registry", self.url, *words, **keywords)
        self.assertEqual(result.status, status, result)
        return result

    def refused(self, *words, part, **keywords):
        """Runs what must be refused, for a reason with this part."""
        return self.assert_told(self.fleet(*words, status=1, **keywords), part)

    def fails(self, *words, part, **keywords):
        return self.assert_told(self.fleet(*words, status=2, **keywords), part)

    def assert_told(self, result, part):
        self.assertRegex(result.errors.decode(), r"\A(.*\n)*fleet: .+\n\Z")
        self.assertIn(part, result.errors.decode())
        return result

    def enrolled(self, serial, **fields):
        """A new device that the registry knows."""
        device = FleetDevice(serial)
        vars(device).update(fields)
        self.enrol(device)
        return device

    def enrol(self, device, *options):
        self.fleet("enrol", "--report", self.write("report.json", device.report()), *(options or ["--first-contact"]))

    def enrol_many(self, count, prefix="device"):
        made = [FleetDevice(f"{prefix} {number}") for number in range(count)]
        lines = [{"report": device.report(), "ekDigest": device.ek_digest} for device in made]
        self.fleet("enrol", "-", content=lines_of(lines))
        return made

    def challenge(self, serial, *options):
        return json.loads(self.fleet("challenge", "--serial", serial, *options).output)

    def challenge_all(self, *options):
        return {it["serial"]: it["context"] for it in self.fleet("challenge", "--all", *options).lines()}

    def verify(self, answer):
        """The object that `verify --json` prints; the exit status must agree with it."""
        return self.judged(run_fleet("--registry", self.url, "verify", self.write("answer.json", answer), "--json"))

    def judged(self, result):
        (verdict,) = result.lines()
        self.assertEqual(result.status, 0 if verdict["ok"] else 1, result)
        self.assertEqual(verdict["counter"] is None, not verdict["ok"])
        return verdict

    def failed(self, answer):
        """The names of the checks that fail on this answer."""
        return failed_checks(self.verify(answer))

    def verify_lines(self, objects, **keywords):
        result = run_fleet("--registry", self.url, "verify", "-", content=lines_of(objects), **keywords)
        if result.status >= 0:
            bad = any(not verdict["ok"] for verdict in result.lines())
            self.assertEqual(result.status, 1 if bad else 0, result)
        return result.lines()

    def devices(self):
        return {record["ekDigest"]: record for record in self.fleet("list", "--json").lines()}

    def history(self, serial):
        return self.fleet("history", serial, "--json").lines()

    @contextlib.contextmanager
    def database(self):
        """A cursor of the test's own on the registry's database."""
        with contextlib.closing(self.connect()) as connection:
            yield connection.cursor()
            connection.commit()

    def connect(self):
        if self.is_sqlite:
            return sqlite3.connect(self.url)
        import psycopg2

        return psycopg2.connect(self.url)

    def rows(self, statement):
        with self.database() as cursor:
            cursor.execute(statement)
            return [tuple(bytes(it) if isinstance(it, memoryview) else it for it in row) for row in cursor.fetchall()]

    def change(self, statement):
        with self.database() as cursor:
            cursor.execute(statement)


def failed_checks(verdict):
    return {check["name"] for check in verdict["checks"] if not check["ok"]}
