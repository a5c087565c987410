#!/usr/bin/python3
"""Records what a software TPM answers to the agent, as seeds for the fuzz targets that replay a TPM.

    scripts/sandbox -- tests/fuzz/record_tpm_answers.py build/release/src/main/featurewatch tests/fuzz

It writes seeds of tpm_answers and attestation_context, and to recorded/ what the targets need beside their input: two
attestation contexts and the answers for them. The form of the answers is told in replayed_tpm.h.
"""

import os
import shutil
import socket
import struct
import subprocess
import sys
import threading

sys.path.append(os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "system"))

from harness import run_agent, set_cpuinfo, write_file
from tpm_harness import context, flush_all, make_challenge, parse_report, TPM_PORT

REAL_PORT = 2421
NONCE = bytes(range(100, 120))
SECRET = b"what only this TPM can tell"
WITH_SESSIONS = 0x8002
ANSWERED_WITH_HANDLE = (0x131, 0x157, 0x176)  # CreatePrimary, Load, StartAuthSession


def without_hmacs(code, answer):
    """The answer with zeros for its HMACs, as the targets compute them."""
    if struct.unpack(">H", answer[:2])[0] != WITH_SESSIONS:
        return answer
    at = 14 if code in ANSWERED_WITH_HANDLE else 10
    at += 4 + struct.unpack(">I", answer[at : at + 4])[0]
    result = answer[:at]
    while at < len(answer):
        nonce_end = at + 2 + struct.unpack(">H", answer[at : at + 2])[0]
        size = struct.unpack(">H", answer[nonce_end + 1 : nonce_end + 3])[0]
        result += answer[at : nonce_end + 3] + bytes(size)
        at = nonce_end + 3 + size
    return result


class Recorder:
    """Recorder passes commands on to the TPM, one a connection as the TSS library has it, and keeps the answers."""

    def __init__(self):
        self._answers = []
        self._listener = socket.create_server(("127.0.0.1", TPM_PORT), backlog=16)
        threading.Thread(target=self._serve, daemon=True).start()

    def take(self):
        """What was answered since the last call, as one input."""
        answers, self._answers = self._answers, []
        return b"".join(struct.pack(">BH", code & 0xFF, len(answer)) + answer for code, answer in answers)

    def _serve(self):
        while True:
            client, _ = self._listener.accept()
            with client, socket.create_connection(("127.0.0.1", REAL_PORT)) as tpm:
                while command := self._message(client):
                    tpm.sendall(command)
                    answer = self._message(tpm)
                    code = struct.unpack(">I", command[6:10])[0]
                    self._answers.append((code, without_hmacs(code, answer)))
                    client.sendall(answer)

    @staticmethod
    def _message(peer):
        message = b""
        while len(message) < 10 or len(message) < struct.unpack(">I", message[2:6])[0]:
            part = peer.recv(4096)
            if not part:
                return b""
            message += part
        return message


def start_tpm(state):
    os.makedirs(state)
    command = ["swtpm", "socket", "--tpm2", "--tpmstate", f"dir={state}", "--flags", "not-need-init,startup-clear"]
    for option, port in (("--server", REAL_PORT), ("--ctrl", TPM_PORT + 1)):
        command += [option, f"type=tcp,port={port},bindaddr=127.0.0.1"]
    subprocess.run([*command, "--daemon"], check=True)


def report(*arguments):
    result = run_agent(*arguments)
    if result.status != 0:
        raise SystemExit(f"no report:\n{result}")
    return parse_report(result.stdout)


def main(agent, target):
    os.environ["FEATUREWATCH"] = os.path.abspath(agent)
    set_cpuinfo("Serial\t\t: 0000abcd\n")
    start_tpm("/run/recorded-tpm")
    recorder = Recorder()
    seeds = {}

    def record(name, flow, *arguments):
        recorder.take()
        result = report(*arguments)
        seeds[name] = bytes([flow]) + recorder.take()
        flush_all()
        return result

    nonce = write_file("/run/nonce.json", context(NONCE))
    first = record("first_report", 0, "-d")
    record("report", 0, "-d")
    record("certified", 1, "-d", "-A", nonce)
    challenge = make_challenge(first.ek, first.ak_public, SECRET)
    whole = write_file("/run/whole.json", context(NONCE, first.key, challenge, cbData="call back"))
    record("answered", 2, "-d", "-A", whole)
    record("incremented", 3, "-R")

    for name, content in seeds.items():
        write_file(os.path.join(target, "corpus", "tpm_answers", name), content)
    for path in (nonce, whole):
        shutil.copy(path, os.path.join(target, "recorded"))
        shutil.copy(path, os.path.join(target, "corpus", "attestation_context"))
    write_file(os.path.join(target, "recorded", "answers"), seeds["answered"][1:] + seeds["certified"][1:])


if __name__ == "__main__":
    main(*sys.argv[1:])
