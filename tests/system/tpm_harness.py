"""Helpers for tests with the software TPM of `scripts/sandbox --tpm`, beyond `harness`.

The TPM
    `handles("transient")` (or persistent, nv-index, loaded-session, saved-session) lists what is there, `counter()`
    reads the tally counter, `nv_public(index)` returns what an index is; `nv_define`, `nv_increment`, `nv_undefine`,
    `persist_*` and `tool("changeauth", ...)` prepare it. All of these are tpm2-tools, so they judge the agent
    independently. `restart_tpm()` starts it again on the same state, `restart_tpm(folder)` on another; `stop_tpm()`
    leaves no TPM.

A report
    `parse_report(bytes)` fails unless the document ends with a `tpm2` member in exactly the agent's form, and gives it
    as a `Report`, decoded. `without_tpm_section(bytes)` gives the rest of the document as it would look alone.

An attestation context
    `context(nonce=..., key=(public, private), challenge=...)` gives the object to write to the file of -A,
    `make_challenge(ek, ak, secret)` the challenge, made outside of any TPM.

Verification
    `verify_attestation(report, nonce)` checks signature, signer, nonce and the digest over the counter's value with
    hashlib and openssl alone.

Tests
    Derive from `TpmTest` for a fresh TPM, from `PreparedTpmTest` for one that has made a report before. `assert_failed`
    and `assert_reported` check status, exact records, that nothing else was printed, and that the run left nothing
    loaded in the TPM.
"""

import base64
import contextlib
import ctypes
import hashlib
import json
import os
import re
import signal
import struct
import subprocess
import tempfile
from dataclasses import dataclass

from harness import SandboxTest, document_bytes, document_text, is_alive, read_file, run_agent, wait_for, write_file

EK_HANDLE = 0x8101000A
COUNTER = 0x018C811F
TEMPORARY = 0x018C8120
EK_NONCE = 0x01C0000B
EK_TEMPLATE = 0x01C0000C

COUNTER_ATTRIBUTES = 0x02040014
WRITTEN = 0x20000000
COUNTER_NAME = bytes.fromhex("000B2154E1C69F9CC07749A88F9835AD835426AEDB46AA9D6C41D6764AC380734878")
EK_POLICY = bytes.fromhex("837197674484B3F81A90CC8D46A5D724FD52D76E06520B64F2A1DA1B331469AA")
EK_ATTRIBUTES = 0x000300B2
AK_ATTRIBUTES = 0x00050072

COUNTER_CREATED = ("INFO", "tally counter NV index does not exist, creating")
NO_REPORT = ("FATAL", "failed collecting device information")
NO_INCREMENT = ("FATAL", "failed incrementing the tally counter")
NO_SESSION = ("ERROR", "cannot establish a session")

TPM_STATE = "/run/sandbox/tpm"
TPM_PID_FILE = TPM_STATE + "/pid"
TPM_PORT = 2321


# --- the TPM ----------------------------------------------------------------------------------------------------------


def tool(name, *arguments, data=None):
    """Runs the tpm2-tools program `tpm2_NAME` and gives its standard output; fails when it fails."""
    environment = {**os.environ, "TPM2TOOLS_TCTI": f"swtpm:port={TPM_PORT}", "TSS2_LOG": "all+NONE"}
    command = ["tpm2_" + name, *arguments]
    result = subprocess.run(command, input=data, capture_output=True, env=environment, timeout=20)
    if result.returncode != 0:
        raise AssertionError(f"{command}: {result.stderr.decode(errors='replace')}")
    return result.stdout


def start_tpm(state=TPM_STATE):
    """Starts the software TPM on a state folder; a folder that is not there yet makes a TPM of its own."""
    os.makedirs(state, exist_ok=True)
    command = ["swtpm", "socket", "--tpm2", "--tpmstate", f"dir={state}", "--flags", "not-need-init,startup-clear"]
    for option, port in (("--server", TPM_PORT), ("--ctrl", TPM_PORT + 1)):
        command += [option, f"type=tcp,port={port},bindaddr=127.0.0.1"]
    command += ["--pid", f"file={TPM_PID_FILE}", "--daemon"]
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, timeout=20)


def stop_tpm():
    """Stops it in order: an unclean stop would count as a failed authorisation."""
    tool("shutdown", "-c")
    pid = int(read_file(TPM_PID_FILE))
    os.kill(pid, signal.SIGTERM)
    wait_for(lambda: not is_alive(pid), "the end of the TPM")


def restart_tpm(state=TPM_STATE):
    stop_tpm()
    start_tpm(state)


def handles(kind):
    """The handles of one kind, as `tpm2_getcap handles-KIND` lists them."""
    lines = tool("getcap", "handles-" + kind).decode().splitlines()
    return [int(line.removeprefix("- "), 16) for line in lines]


def flush_all():
    """Removes all objects and sessions from the TPM's memory."""
    for option in ("-t", "-l", "-s"):
        tool("flushcontext", option)


@dataclass(frozen=True)
class NvPublic:
    name: bytes
    attributes: int
    size: int


def nv_public(index):
    text = tool("nvreadpublic", hex(index)).decode()
    match = re.search(r"name: (\w+).*attributes:.*value: (\w+)\n  size: (\d+)", text, re.DOTALL)
    return NvPublic(bytes.fromhex(match[1]), int(match[2], 16), int(match[3]))


def nv_define(index, attributes=COUNTER_ATTRIBUTES, size=8, *options):
    tool("nvdefine", hex(index), "-C", "o", "-s", str(size), "-a", hex(attributes), *options)


def nv_undefine(index):
    tool("nvundefine", "-C", "o", hex(index))


def nv_increment(index, password=""):
    tool("nvincrement", "-C", hex(index), "-P", password, hex(index))


def nv_write(index, data):
    tool("nvwrite", "-C", hex(index), "-i", "-", hex(index), data=data)


def counter(index=COUNTER, password=""):
    """The value of a counter that was written."""
    return int.from_bytes(tool("nvread", "-C", hex(index), "-P", password, "-s", "8", hex(index)), "big")


@contextlib.contextmanager
def scratch():
    """A folder for the files through which the tools take and give their data.

    Entering gives a function: of a name alone it gives the path of that file, of a name and bytes it writes them first.
    """
    with tempfile.TemporaryDirectory(prefix="tpm-") as folder:

        def path_of(name, data=None):
            path = os.path.join(folder, name)
            return path if data is None else write_file(path, data)

        yield path_of


def default_ek():
    """The public area of the EK that the default template makes on this TPM, made by tpm2_createek."""
    with scratch() as path:
        tool("createek", "-Q", "-G", "ecc", "-c", path("context"), "-u", path("public"))
        tool("flushcontext", "-t")
        return read_file(path("public"))


def persist_primary(*options, hierarchy="e"):
    """Makes a primary key with these options of tpm2_createprimary and puts it where the EK belongs."""
    with scratch() as path:
        tool("createprimary", "-Q", "-C", hierarchy, "-c", path("context"), *options)
        tool("evictcontrol", "-Q", "-C", "o", "-c", path("context"), hex(EK_HANDLE))
        tool("flushcontext", "-t")


def persist_ek_with_unique(unique):
    """Puts an EK there that differs from the default one in `unique` alone, whose x these 32 bytes are."""
    with scratch() as path:
        tool_form = struct.pack("<H32sH32s", 32, unique, 32, bytes(32))
        files = ["-L", path("policy", EK_POLICY), "-u", path("unique", tool_form)]
        persist_primary("-g", "sha256", "-G", "ecc:aes128cfb", "-a", hex(EK_ATTRIBUTES), *files)


def persist_sealed_object():
    """Puts an object there that is not a key at all."""
    with scratch() as path:
        tool("createprimary", "-Q", "-C", "o", "-c", path("parent"))
        tool("create", "-Q", "-C", path("parent"), "-i", "-", "-u", path("u"), "-r", path("r"), data=b"sealed")
        tool("flushcontext", "-t")
        tool("load", "-Q", "-C", path("parent"), "-u", path("u"), "-r", path("r"), "-c", path("object"))
        tool("flushcontext", "-t")
        tool("evictcontrol", "-Q", "-C", "o", "-c", path("object"), hex(EK_HANDLE))
        tool("flushcontext", "-t")


def evict_ek():
    tool("evictcontrol", "-Q", "-C", "o", "-c", hex(EK_HANDLE))


def persistent_public():
    """The public area of the object where the EK belongs."""
    with scratch() as path:
        tool("readpublic", "-Q", "-c", hex(EK_HANDLE), "-f", "tss", "-o", path("public"))
        return read_file(path("public"))


def prepare_tpm():
    """Has the agent make a first report, so that the EK and the counter are there, and nothing is loaded."""
    result = run_agent("-d")
    if result.status != 0:
        raise AssertionError(f"the first report failed:\n{result}")
    flush_all()


# --- structures -------------------------------------------------------------------------------------------------------


class Reader:
    """Reader takes big-endian integers and sized byte strings from a marshalled structure, one after the other."""

    def __init__(self, data):
        self.data = data

    def take(self, length):
        if length > len(self.data):
            raise AssertionError(f"{length} bytes wanted of {self.data!r}")
        taken, self.data = self.data[:length], self.data[length:]
        return taken

    def integer(self, length):
        return int.from_bytes(self.take(length), "big")

    def sized(self):
        return self.take(self.integer(2))

    def end(self):
        if self.data:
            raise AssertionError(f"bytes behind the structure: {self.data!r}")


ECC, SHA256, AES, CFB, NULL, ECDSA, NIST_P256 = 0x23, 0x0B, 0x06, 0x43, 0x10, 0x18, 3


@dataclass(frozen=True)
class EccPublic:
    """EccPublic is a TPM2B_PUBLIC of an ECC key with name algorithm SHA-256 on NIST P-256 without a KDF."""

    attributes: int
    policy: bytes
    symmetric: tuple
    scheme: tuple
    x: bytes
    y: bytes


def parse_public(blob):
    outer = Reader(blob)
    area = Reader(outer.sized())
    outer.end()
    expect(area.integer(2), ECC, "type")
    expect(area.integer(2), SHA256, "name algorithm")
    attributes, policy = area.integer(4), area.sized()
    symmetric = (area.integer(2),)
    if symmetric[0] != NULL:
        symmetric += (area.integer(2), area.integer(2))
    scheme = (area.integer(2),)
    if scheme[0] != NULL:
        scheme += (area.integer(2),)
    expect(area.integer(2), NIST_P256, "curve")
    expect(area.integer(2), NULL, "KDF")
    x, y = area.sized(), area.sized()
    area.end()
    return EccPublic(attributes, policy, symmetric, scheme, x, y)


def with_attributes(public, attributes):
    """A public area with other attributes."""
    return public[:6] + attributes.to_bytes(4, "big") + public[10:]


def name_of(public):
    """The TPM name of a public area: the algorithm and the digest of the area without its size."""
    return SHA256.to_bytes(2, "big") + hashlib.sha256(public[2:]).digest()


def spki(public):
    """The key as SubjectPublicKeyInfo in DER, for openssl."""
    key = parse_public(public)
    head = bytes.fromhex("3059301306072a8648ce3d020106082a8648ce3d030107034200")
    return head + b"\x04" + key.x.rjust(32, b"\0") + key.y.rjust(32, b"\0")


def expect(actual, expected, what):
    if actual != expected:
        raise AssertionError(f"{what}: {actual!r} instead of {expected!r}")


# --- records ----------------------------------------------------------------------------------------------------------

_rc_library = ctypes.CDLL("libtss2-rc.so.0")
_rc_library.Tss2_RC_Decode.restype = ctypes.c_char_p


def tss_failure(text, code, level="ERROR"):
    """The record of a failed TSS call: the text, what the code means in words, and the code."""
    return (level, f"{text}: {_rc_library.Tss2_RC_Decode(ctypes.c_uint32(code)).decode()} (0x{code:x})")


# --- reports ----------------------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Report:
    """Report is the `tpm2` member of a device report, decoded; members that are absent are None."""

    ek: bytes
    ak_public: bytes
    ak_private: bytes
    answer: bytes | None
    attestation: bytes | None
    signature: bytes | None
    value: int

    @property
    def key(self):
        return (self.ak_public, self.ak_private)


def decode_base64(text):
    """The bytes of a padded text in the standard alphabet, which must be the one text for them."""
    data = base64.b64decode(text, validate=True)
    expect(text, base64.b64encode(data).decode(), "base64")
    if not data:
        raise AssertionError("an empty blob")
    return data


def _load(data):
    document = json.loads(data.decode("utf-8", "surrogateescape"))
    expect(data, document_bytes(document), "form of the document")
    expect(list(document)[-1:], ["tpm2"], "last member")
    return document


def parse_report(data):
    """Fails unless the document has its exact form, and its `tpm2` member the members that it must and may have."""
    section = _load(data)["tpm2"]
    key, tally = section["ak"], section["tallyCounter"]
    expect(list(section), ["ak", "ekEccNistP256PubTpm2B", "tallyCounter"], "members of tpm2")
    expect(set(key) - {"actResp"}, {"privTpm2B", "pubTpm2B"}, "members of ak")
    expect(list(tally), ["att", "sig", "val"] if "att" in tally else ["val"], "members of tallyCounter")
    expect(type(tally["val"]), int, "type of val")
    optional = lambda members, name: decode_base64(members[name]) if name in members else None
    report = Report(
        ek=decode_base64(section["ekEccNistP256PubTpm2B"]),
        ak_public=decode_base64(key["pubTpm2B"]),
        ak_private=decode_base64(key["privTpm2B"]),
        answer=optional(key, "actResp"),
        attestation=optional(tally, "att"),
        signature=optional(tally, "sig"),
        value=tally["val"],
    )
    parse_public(report.ek)
    parse_public(report.ak_public)
    private = Reader(report.ak_private)
    private.sized()
    private.end()
    return report


def without_tpm_section(data):
    """Checks the document like `parse_report` and gives it as if it had no `tpm2` member."""
    parse_report(data)
    member = f',\n\t"tpm2": {document_text(_load(data)["tpm2"], 1)}\n}}\n'.encode()
    expect(data[-len(member) :], member, "end of the document")
    return data[: -len(member)] + b"\n}\n"


# --- attestation contexts ---------------------------------------------------------------------------------------------


def context(nonce=None, key=None, challenge=None, **members):
    """The object for the file of -A; `key` is the pair of public and private area."""
    text = lambda data: base64.b64encode(data).decode()
    if nonce is not None:
        members["nonce"] = text(nonce)
    ak = {}
    if key is not None:
        ak.update(pubTpm2B=text(key[0]), privTpm2B=text(key[1]))
    if challenge is not None:
        ak["actChall"] = text(challenge)
    if ak:
        members["tpm2"] = {"ak": ak}
    return members


CREDENTIAL_FILE_HEAD = 8


def make_challenge(ek, ak, secret):
    """A credential challenge that only the TPM with both keys, given as public areas, can answer with the secret."""
    with scratch() as path:
        files = ["-u", path("ek", ek), "-s", path("secret", secret), "-o", path("credential")]
        tool("makecredential", "-Q", "-T", "none", "-n", name_of(ak).hex(), *files)
        return read_file(path("credential"))[CREDENTIAL_FILE_HEAD:]


# --- verification -----------------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class SessionAttestation:
    """SessionAttestation is a TPMS_ATTEST about an audit session."""

    signer: bytes
    nonce: bytes
    exclusive: int
    digest: bytes


def parse_attestation(data):
    reader = Reader(data)
    expect(reader.take(4), b"\xffTCG", "magic")
    expect(reader.integer(2), 0x8016, "type of attestation")
    signer, nonce = reader.sized(), reader.sized()
    reader.take(17 + 8)  # clock and firmware version
    attestation = SessionAttestation(signer, nonce, reader.integer(1), reader.sized())
    reader.end()
    return attestation


def audit_digest(value):
    """The digest of an audit session that has read the counter at this value, and nothing else."""
    sha256 = lambda *parts: hashlib.sha256(b"".join(parts)).digest()
    success, command = bytes(4), bytes.fromhex("0000014E")  # NV_Read
    command_hash = sha256(command, COUNTER_NAME, COUNTER_NAME, struct.pack(">HH", 8, 0))
    response_hash = sha256(success, command, struct.pack(">HQ", 8, value))
    return sha256(bytes(32), command_hash, response_hash)


def qualified_name(parent, key):
    """The qualified name of a child of a primary key of the endorsement hierarchy; both are given by name."""
    hashed = lambda data: SHA256.to_bytes(2, "big") + hashlib.sha256(data).digest()
    return hashed(hashed(bytes.fromhex("4000000B") + parent) + key)


def openssl_verifies(public, data, signature):
    with scratch() as path:
        files = ["-verify", path("key", spki(public)), "-keyform", "DER", "-signature", path("signature", signature)]
        result = subprocess.run(["openssl", "dgst", "-sha256", *files, path("data", data)], capture_output=True)
        return result.returncode == 0 and result.stdout == b"Verified OK\n"


def verify_attestation(report, nonce=b"", parent=None):
    """Fails unless the report's AK, child of its EK, attests the value with this nonce. `parent` is the name of another
    key that the AK is a child of."""
    if not openssl_verifies(report.ak_public, report.attestation, report.signature):
        raise AssertionError("the signature does not verify")
    attestation = parse_attestation(report.attestation)
    signer = qualified_name(parent or name_of(report.ek), name_of(report.ak_public))
    expect(attestation, SessionAttestation(signer, nonce, 1, audit_digest(report.value)), "attestation")


# --- tests ------------------------------------------------------------------------------------------------------------


class TpmTest(SandboxTest):
    """TpmTest starts with a fresh TPM."""

    def run_with_context(self, members, *options, **keywords):
        """Runs a report with an attestation context: the object `context` gives, or its text."""
        return run_agent(*(options or ("-d",)), "-A", write_file(self.work_path("context.json"), members), **keywords)

    def assert_reported(self, result, *records):
        """Success with exactly these records; gives the `Report`. No session stays in the TPM."""
        self.assert_success(result)
        self.assert_records(result, *records)
        self.assertEqual(result.other_lines, [], str(result))
        self.assert_no_sessions()
        report = parse_report(result.stdout)
        self.assertEqual(report.value, counter())
        return report

    def assert_failed(self, result, *records):
        """Status 1, nothing printed, exactly these records and no other line. No session stays in the TPM."""
        self.assert_failure(result, *records)
        self.assertEqual(result.other_lines, [], str(result))
        self.assert_no_sessions()

    def assert_no_sessions(self):
        self.assertEqual((handles("loaded-session"), handles("saved-session")), ([], []))

    def assert_nothing_loaded(self):
        """Neither objects nor sessions. The run that made the EK leaves a copy of it loaded, no other run anything."""
        self.assertEqual(handles("transient"), [])
        self.assert_no_sessions()


class PreparedTpmTest(TpmTest):
    """PreparedTpmTest starts with a TPM that has made a report before, and an empty syslog."""

    def setUp(self):
        super().setUp()
        prepare_tpm()
        self.syslog.clear()
