#!/usr/bin/env python3
"""What ten thousand granted features cost: the plain mode, the daemon's answer to a new grant, and memory; and how fast
ten thousand grants are signed.

    scripts/sandbox bench/grants.py FEATUREWATCH [OPTION ...]

The options go to the daemon beside -w and -x. Three inputs are measured: "granted" is a signed document with ten thousand
features (names and ends chosen so that the file stays below the limit of 1 MiB), "installed" the same list as the
installed features, so that the difference is what the signature and its text form cost, and "none" no input at all, so
that the difference is what the features cost.

- Plain mode: from the start to the exit, with the document read from a pipe.
- Daemon: from the rename of the input into place to that of the document, as bench/latency.py sees it. Two lists take
  turns, which differ in one name.
- Memory: of the plain mode while it hands the document out, which doesn't fit into the pipe; of the daemon after its
  start and again after all reloads. It grows with the first reloads, as two lists are there for a moment, and no more.
- Signing: ten thousand grants with a key file, in one run of tools/grant, and as a loop of runs with one grant each.

Each document is checked: all features must be there, from that input. Exit status 1 if one isn't, or if anything did not
happen in time. Needed: tools/grant.
"""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

import latency
from latency import DOCUMENT, LIMIT_S, PID_FILE, Failure, Observer

COUNT = 10000
PLAIN_ROUNDS = 40
RELOAD_ROUNDS = 40
SIGNED = 10000
SINGLE_RUNS = 20

FILE_LIMIT = 1 << 20
SERIAL = "0000abcd"  # the sandbox's
INPUTS = {"installed": "/etc/orvanta/features.json", "granted": "/var/lib/orvanta/features.jws"}
PUBLIC_KEY = "/etc/orvanta/features.pem"
GRANT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools", "grant")


# Inputs


def feature_list(marker):
    """COUNT features, of which the last one is called as the marker tells."""
    names = [f"feature-{number:05}" for number in range(COUNT - 1)] + [marker]
    return [{"name": name, "validUntil": "2099-01-01T00:00:00Z"} for name in names]


class Inputs:
    """Makes the input files, each once, in a folder of its own."""

    def __init__(self, folder):
        self.folder = folder
        self.key = self._path("maker.pem")
        subprocess.run([GRANT, "keys", "--private", self.key, "--public", PUBLIC_KEY], check=True)

    def _path(self, name):
        return os.path.join(self.folder, name)

    def make(self, source, marker):
        """The path of a file with the features of this marker, in the form of that input."""
        features = feature_list(marker)
        path = self._path(f"{source}-{marker}")
        if source == "installed":
            text = json.dumps({"serial": SERIAL, "features": features}, separators=(",", ":")).encode()
        else:
            text = self._sign(features)
        if len(text) > FILE_LIMIT:
            raise Failure(f"the {source} features take {len(text)} bytes")
        with open(path, "wb") as file:
            file.write(text)
        return path

    def _sign(self, features):
        path = self._path("features")
        with open(path, "w") as file:
            json.dump(features, file)
        return subprocess.run(
            [GRANT, "sign", "--key", self.key, "--serial", SERIAL, "--features", path],
            check=True,
            stdout=subprocess.PIPE,
        ).stdout


def remove_inputs():
    for path in INPUTS.values():
        if os.path.exists(path):
            os.remove(path)


def install(source, path):
    """Puts a copy of the file at `path` into place in one step and returns the time just before that step, in ns."""
    aside = INPUTS[source] + ".new"
    shutil.copyfile(path, aside)
    start = time.monotonic_ns()
    os.rename(aside, INPUTS[source])
    return start


# Documents


def read_document():
    with open(DOCUMENT, "rb") as file:
        return file.read()


def check_document(text, source, marker):
    features = json.loads(text)["features"]
    if source is None:
        if features:
            raise Failure("features without an input")
        return
    if len(features) != COUNT or {feature["source"] for feature in features} != {source}:
        raise Failure(f"the document has {len(features)} features, not {COUNT} {source} ones")
    if marker not in {feature["name"] for feature in features}:
        raise Failure(f"the document has no feature {marker}")


# Plain mode


def run_plain(binary):
    """Returns the time from start to exit, in ns, and the document."""
    start = time.monotonic_ns()
    result = subprocess.run([binary], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=True, timeout=LIMIT_S)
    return time.monotonic_ns() - start, result.stdout


def plain_memory_kb(binary):
    """Resident memory, now and at most so far, of the plain mode while it waits for a reader. A short document does not
    make it wait: then there is nothing to tell."""
    with subprocess.Popen([binary], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE) as process:
        first = process.stdout.read1(1)  # the document is complete before any of it is written
        status = latency.fields(f"/proc/{process.pid}/status")
        rest = process.stdout.read()
    if process.returncode != 0 or not first:
        raise Failure(f"the plain mode ended with status {process.returncode}")
    if "VmRSS" not in status or len(rest) < 1 << 17:
        return None
    return latency.number(status["VmRSS"]), latency.number(status["VmHWM"])


def measure_plain(binary, inputs):
    print(
        f"Plain mode, {PLAIN_ROUNDS} runs\n%-10s %12s %12s %12s %12s"
        % ("", "min ms", "median ms", "VmRSS kB", "VmHWM kB")
    )
    times = {source: [] for source in (None, *INPUTS)}
    memory = {}
    files = {source: inputs.make(source, "plain") for source in INPUTS}
    for number_of_round in range(PLAIN_ROUNDS):
        for source, taken in times.items():  # in turns, so that what else the machine does meets all alike
            remove_inputs()
            if source:
                install(source, files[source])
            elapsed, document = run_plain(binary)
            taken.append(elapsed)
            if number_of_round == 0:
                check_document(document, source, "plain")
                memory[source] = plain_memory_kb(binary)
    for source, taken in times.items():
        print(
            "%-10s %12.2f %12.2f %12s %12s"
            % (source or "none", min(taken) / 1e6, latency.quantile(taken, 0.5) / 1e6, *(memory[source] or "--"))
        )


# Daemon


def start_daemon(command, observer, source):
    subprocess.run(
        [command[0], "-w", "-x", observer.hook_command, *command[1:]],
        check=True,
        stdin=subprocess.DEVNULL,
        timeout=LIMIT_S * 2,
    )
    check_document(read_document(), source, "first")
    with open(PID_FILE) as file:
        return int(file.read())


def reload_rounds(observer, source, files):
    times = []
    for number_of_round in range(RELOAD_ROUNDS):
        marker = ("second", "first")[number_of_round % 2]
        observer.drain()
        start = install(source, files[marker])
        document, _ = observer.wait(f'"{marker}"')
        times.append(document - start)
        if number_of_round < len(files):
            check_document(read_document(), source, marker)
    return times


def measure_daemon(command, observer, inputs, source):
    remove_inputs()
    files = {}
    if source:
        files = {marker: inputs.make(source, marker) for marker in ("first", "second")}
        install(source, files["first"])
    pid = start_daemon(command, observer, source)
    try:
        started = latency.memory_kb(pid)
        times = reload_rounds(observer, source, files) if source else []
        after = latency.memory_kb(pid)
    finally:
        subprocess.run([command[0], "-k"], check=True, timeout=LIMIT_S * 2)
        observer.drain()
    spread = ["%.2f" % (latency.quantile(times, share) / 1e6) for share in (0, 0.5, 0.99)] if times else ["-"] * 3
    print(
        "%-10s %10s %10s %10s   %10d %10d   %12d %12d"
        % (source or "none", *spread, started[0], after[0], started[2], after[2])
    )


# Signing


def sign_batch(folder, algorithm):
    """Returns how many grants a second are signed in one run."""
    private, public, output = (os.path.join(folder, f"{algorithm}-{name}") for name in ("private", "public", "grants"))
    subprocess.run([GRANT, "keys", "--algorithm", algorithm, "--private", private, "--public", public], check=True)
    serials = os.path.join(folder, "serials")
    with open(serials, "w") as file:
        file.writelines(f"{number:08x}\n" for number in range(SIGNED))
    os.mkdir(output)
    command = [GRANT, "sign", "--key", private, "--feature", "video-wall,until=2099-01-01T00:00:00Z"]
    start = time.monotonic()
    subprocess.run([*command, "--serials", serials, "--output-folder", output], check=True)
    batch = SIGNED / (time.monotonic() - start)
    start = time.monotonic()
    for number in range(SINGLE_RUNS):
        subprocess.run([*command, "--serial", f"{number:08x}"], check=True, stdout=subprocess.DEVNULL)
    single = SINGLE_RUNS / (time.monotonic() - start)
    check_grants(output, public)
    return batch, single


def check_grants(folder, public):
    """All must be there, and each thousandth good."""
    names = sorted(os.listdir(folder))
    if len(names) != SIGNED:
        raise Failure(f"{len(names)} grants, not {SIGNED}")
    for name in names[::1000]:
        subprocess.run(
            [GRANT, "show", "--public", public, os.path.join(folder, name)], check=True, stdout=subprocess.DEVNULL
        )


def measure_signing(folder):
    print(
        f"\nSigning, {SIGNED} grants with a key file\n%-10s %14s %18s %8s"
        % ("", "one run, 1/s", "a run each, 1/s", "ratio")
    )
    for algorithm in ("ES256", "ES384", "RS256"):
        batch, single = sign_batch(folder, algorithm)
        print("%-10s %14.0f %18.1f %8.1f" % (algorithm, batch, single, batch / single))


def measure_all(command):
    with tempfile.TemporaryDirectory() as folder:
        inputs = Inputs(folder)
        observer = Observer(folder)
        measure_plain(command[0], inputs)
        print(f"\nDaemon, {RELOAD_ROUNDS} reloads: rename to document in ms; memory in kB, after start and reloads")
        print(
            "%-10s %10s %10s %10s   %10s %10s   %12s %12s"
            % ("", "min", "median", "p99", "VmRSS", "then", "Private_Dirty", "then")
        )
        for source in (None, *INPUTS):
            measure_daemon(command, observer, inputs, source)
        print(
            "\n%d features: %s"
            % (COUNT, ", ".join(f"{os.path.getsize(inputs.make(source, 'first'))} bytes {source}" for source in INPUTS))
        )
        measure_signing(folder)


def main():
    if len(sys.argv) < 2 or not os.path.isdir("/run/sandbox"):
        sys.exit("usage: scripts/sandbox bench/grants.py FEATUREWATCH [OPTION ...]")
    try:
        measure_all([os.path.abspath(sys.argv[1]), *sys.argv[2:]])
    except (Failure, OSError, ValueError, subprocess.SubprocessError) as error:
        sys.exit(f"grants: {error}")


if __name__ == "__main__":
    main()
