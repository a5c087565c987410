"""tools/grant: keys, grants that the agent takes, what it won't sign, what it shows, and files that are none."""

import base64
import json
import os
import stat
import subprocess
import sys

from daemon_harness import open_folder
from forked_command import TOOLS, load_command, run_forked
from harness import (
    DEFAULT_SERIAL,
    ETC,
    SandboxTest,
    check_features_document,
    read_file,
    run_agent,
    write_file,
)

GRANT = os.path.join(TOOLS, "grant")
INSTALLED_GRANT, INSTALLED_KEY = "/var/lib/orvanta/features.jws", ETC + "/features.pem"
ALGORITHMS = ("ES256", "ES384", "RS256")
BEGIN, END = "2026-01-01T00:00:00Z", "2099-12-31T23:59:59Z"


grant_command = load_command("grant", "batches", "grants")


def run_grant(*arguments, **keywords):
    """Runs the command to its end: in a process made from this one, or with keywords for subprocess.run as a program.
    None may end with a traceback, and one that fails says why in one line."""
    if keywords:
        command = [sys.executable, GRANT, *arguments]
        streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        result = subprocess.run(command, timeout=60, **{**streams, **keywords})
    else:
        result = run_forked(grant_command.main, arguments)
    if b"Traceback" in result.stderr or result.returncode not in (0, 1, 2):
        raise AssertionError(f"grant {arguments}: {result}")
    return result


def openssl(*arguments):
    return subprocess.run(["openssl", *arguments], check=True, capture_output=True).stdout


def segment(value):
    data = value if isinstance(value, bytes) else json.dumps(value).encode()
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def decoded(text):
    return base64.urlsafe_b64decode(text + "=" * (-len(text) % 4))


def nested(depth, value="1"):
    """As many objects around a value."""
    return '{"a":' * depth + value + "}" * depth


class GrantToolTest(SandboxTest):
    """GrantToolTest has a key pair; it works in the work folder."""

    def setUp(self):
        super().setUp()
        self.make_keys("maker")

    def make_keys(self, name, *options):
        self.succeed("keys", "--private", f"{name}.pem", "--public", f"{name}.pub", *options)

    def succeed(self, *arguments, **keywords):
        result = run_grant(*arguments, **keywords)
        self.assertEqual((result.returncode, result.stderr), (0, b""), result)
        return result.stdout

    def assert_fault(self, *arguments, part=""):
        """Exit status 2, nothing on standard output, one line on standard error."""
        with self.subTest(arguments=str(arguments)[:300]):
            result = run_grant(*arguments)
            self.assertEqual((result.returncode, result.stdout), (2, b""), result)
            self.assertRegex(result.stderr, rb"^grant: [^\n]+\n$")
            self.assertIn(part.encode(), result.stderr)

    def sign(self, *arguments, key="maker", serial=DEFAULT_SERIAL):
        return self.succeed("sign", "--key", f"{key}.pem", "--serial", serial, *arguments)

    def assert_not_signed(self, *arguments, part=""):
        self.assert_fault("sign", "--key", "maker.pem", "--serial", DEFAULT_SERIAL, *arguments, part=part)

    def features_on_device(self, grant, key="maker"):
        """What the agent lists with this grant and key, without any record."""
        write_file(INSTALLED_GRANT, grant)
        write_file(INSTALLED_KEY, read_file(f"{key}.pub"))
        result = run_agent()
        self.assert_success(result)
        self.assert_no_records(result)
        return check_features_document(result.stdout)["features"]

    def write(self, name, content):
        return write_file(self.work_path(name), content)

    def shown(self, content, key=None):
        """Exit status of `show` and its last line."""
        options = ["--public", f"{key}.pub"] if key else []
        result = run_grant("show", *options, self.write("shown.jws", content))
        return result.returncode, result.stdout.decode().splitlines()[-1] if result.stdout else ""


class CommandLineTest(GrantToolTest):
    def test_help(self):
        "Help for the program and each command goes to standard output, names all options, and is a success."
        for words, wanted in (
            (["--help"], ["keys", "sign", "show", "docs/grants.md"]),
            (["keys", "--help"], ["--private", "--public", "--algorithm", "exit status"]),
            (
                ["sign", "--help"],
                [
                    "--key",
                    "--signer",
                    "--public",
                    "--serial",
                    "--serials",
                    "--output-folder",
                    "--replace",
                    "--feature",
                    "--features",
                    "exit status",
                ],
            ),
            (["show", "--help"], ["--public", "--json", "exit status"]),
        ):
            for columns in ("20", "80", "200"):
                text = self.succeed(*words, env={**os.environ, "COLUMNS": columns}).decode()
                for word in wanted:
                    self.assertIn(word, text)

    def test_wrong_usage(self):
        "Wrong usage ends with 2 and one line on standard error."
        sign = ["sign", "--key", "maker.pem", "--serial", "1"]
        self.write("list.json", [])
        for words in (
            [],
            ["judge"],
            ["keys"],
            ["keys", "--private", "a.pem"],
            ["keys", "--public", "a.pub"],
            ["keys", "--private", "a.pem", "--public", "a.pub", "--algorithm", "ES512"],
            ["keys", "--private", "a.pem", "--public", "a.pub", "extra"],
            ["sign"],
            sign,
            [*sign, "--feat", "a"],
            [*sign, "--feature", "a", "--features", "list.json"],
            [*sign[:3], "--feature", "a"],
            ["sign", "--serial", "1", "--feature", "a"],
            [*sign[:3], "--serial", "", "--feature", "a"],
            [*sign[:3], "--serial", " ", "--feature", "a"],
            [*sign[:3], "--serial", b"\xff", "--feature", "a"],
            ["show"],
            ["show", "a", "b"],
        ):
            self.assert_fault(*words, part="--help")
        self.assertFalse(os.path.exists("a.pem"))

    def test_standard_output_that_takes_nothing(self):
        "A grant that can't be written out is a fault."
        with open("/dev/full", "wb") as full:
            result = run_grant("sign", "--key", "maker.pem", "--serial", "1", "--feature", "a", stdout=full)
        self.assertEqual(result.returncode, 2)
        self.assertRegex(result.stderr, rb"^grant: standard output: [^\n]+\n$")

    def test_no_program_is_needed(self):
        "Keys, grants and verdicts are made without any other program."
        alone = {"env": {"PATH": open_folder("empty")}}
        self.succeed("keys", "--private", "a.pem", "--public", "a.pub", **alone)
        words = ("sign", "--key", "a.pem", "--serial", "1", "--feature", "a")
        self.write("a.jws", self.succeed(*words, **alone))
        self.assertIn(b"signature: good", self.succeed("show", "--public", "a.pub", "a.jws", **alone))


class KeysTest(GrantToolTest):
    def test_each_algorithm(self):
        "The pair fits, is of the kind asked for, and only its owner can read the private key."
        kinds = {"ES256": "NIST CURVE: P-256", "ES384": "NIST CURVE: P-384", "RS256": "Public-Key: (2048 bit)"}
        for algorithm, kind in kinds.items():
            self.make_keys(algorithm, "--algorithm", algorithm)
            public = read_file(f"{algorithm}.pub")
            self.assertEqual(public, openssl("pkey", "-in", f"{algorithm}.pem", "-pubout"))
            self.assertIn(kind, openssl("pkey", "-pubin", "-in", f"{algorithm}.pub", "-noout", "-text").decode())
            self.assertEqual(stat.S_IMODE(os.stat(f"{algorithm}.pem").st_mode), 0o600)
            self.assertEqual(stat.S_IMODE(os.stat(f"{algorithm}.pub").st_mode), 0o644)
        self.assertIn(kinds["ES256"], openssl("pkey", "-in", "maker.pem", "-noout", "-text").decode())

    def test_files_that_are_there_stay(self):
        "No file is overwritten, and none is left behind by half a success."
        before = read_file("maker.pem"), read_file("maker.pub")
        os.symlink("nowhere", "link")
        self.assert_fault("keys", "--private", "maker.pem", "--public", "new.pub", part="maker.pem: File exists")
        self.assert_fault("keys", "--private", "new.pem", "--public", "maker.pub", part="maker.pub: File exists")
        self.assert_fault("keys", "--private", "link", "--public", "new.pub", part="link: File exists")
        self.assert_fault("keys", "--private", "same", "--public", "same", part="same: File exists")
        self.assert_fault("keys", "--private", "gone/a", "--public", "new.pub", part="gone/a: No such file")
        self.assert_fault("keys", "--private", "new.pem", "--public", "gone/a", part="gone/a: No such file")
        self.assertEqual((read_file("maker.pem"), read_file("maker.pub")), before)
        self.assertFalse({"new.pem", "new.pub", "same", "nowhere"} & set(os.listdir(".")))


class SignTest(GrantToolTest):
    def test_agent_takes_each_algorithm(self):
        "The agent takes what is signed with a key of each algorithm, time after time."
        for algorithm in ALGORITHMS:
            self.make_keys(algorithm, "--algorithm", algorithm)
            for count in range(1 if algorithm == "RS256" else 8):  # r and s differ in length
                name = f"{algorithm}-{count}"
                grant = self.sign("--feature", name, key=algorithm)
                self.assertEqual(
                    self.features_on_device(grant, algorithm), [{"name": name, "source": "granted"}], grant
                )
                self.assertEqual(self.shown(grant, algorithm), (0, "signature: good"))

    def test_form(self):
        "A grant is one line: header with the key's algorithm, payload with serial number and features, signature."
        for algorithm, size in zip(ALGORITHMS, (64, 96, 256)):
            self.make_keys(algorithm, "--algorithm", algorithm)
            grant = self.sign("--feature", "a", key=algorithm).decode()
            self.assertRegex(grant, r"\A[\w-]+\.[\w-]+\.[\w-]+\n\Z")
            header, payload, signature = map(decoded, grant.rstrip("\n").split("."))
            self.assertEqual(json.loads(header), {"alg": algorithm})
            self.assertEqual(json.loads(payload), {"serial": DEFAULT_SERIAL, "features": [{"name": "a"}]})
            self.assertEqual(len(signature), size)

    def test_features_of_the_command_line(self):
        "Each feature has what was said of it, in the order given."
        params = {"outputs": 4, "list": [True, None, -1.5, "ü,€\U0001f600"], "deep": {"x": {}}}
        grant = self.sign(
            "--feature", "wall",
            "--feature", f"from,from={BEGIN}",
            "--feature", f"until,until={END}",
            "--feature", f"all of it,from={BEGIN},until={END},params={json.dumps(params)}",
            "--feature", 'escaped,params={"a":"\\u00fc\\ud83d\\ude00\\n"}',
            "--feature", "grün=5",
        )  # fmt: skip
        wanted = [
            {"name": "all of it", "validFrom": BEGIN, "validUntil": END, "params": params},
            {"name": "escaped", "params": {"a": "ü\U0001f600\n"}},
            {"name": "from", "validFrom": BEGIN},
            {"name": "grün=5"},
            {"name": "until", "validUntil": END},
            {"name": "wall"},
        ]
        listed = self.features_on_device(grant)
        self.assertEqual(listed, [{**entry, "source": "granted"} for entry in wanted])

    def test_features_of_a_file(self):
        "The list of a file is signed as it is; it may be empty."
        features = [{"name": "b, c", "params": {"n": 0.1}, "validFrom": BEGIN}, {"name": "a", "validUntil": END}]
        self.write("list.json", features)
        listed = self.features_on_device(self.sign("--features", "list.json"))
        self.assertEqual(listed, [{**entry, "source": "granted"} for entry in reversed(features)])
        self.write("list.json", " [] ")
        self.assertEqual(self.features_on_device(self.sign("--features", "list.json")), [])

    def test_limits_are_those_of_the_agent(self):
        "What is just within the limits is signed and taken."
        for value in ("1", "{}", "[]"):
            deep = self.sign("--feature", f"deep,params={nested(100, value)}")
            self.assertEqual([entry["name"] for entry in self.features_on_device(deep)], ["deep"], value)
        for number in ("9007199254740992", "-0.1", "1e300", "1.5E-300", "123456789012345.6", "-0", "1e22"):
            grant = self.sign("--feature", f'n,params={{"n":{number}}}')
            self.assertEqual(self.features_on_device(grant)[0]["params"], {"n": float(number)}, number)
        self.write("list.json", [{"name": f"feature-{number}"} for number in range(20000)])
        self.assertEqual(len(self.features_on_device(self.sign("--features", "list.json"))), 20000)

    def test_serial_number_with_any_letters(self):
        "The serial number is taken as it is given."
        grant = self.sign("--feature", "a", serial='Ä "7"')
        self.assertEqual(json.loads(decoded(grant.decode().split(".")[1]))["serial"], 'Ä "7"')

    def test_wrong_features_are_not_signed(self):
        "What a device would leave out, change or never list is not signed."
        for feature in (
            "",
            ",from=" + BEGIN,
            b"\xff",
            "a,",
            "a,b",
            "a,to=5",
            f"a,until={END},from={BEGIN}",
            f"a,from={END},until={BEGIN}",
            f"a,from={BEGIN},until={BEGIN}",
            f"a,from={BEGIN},from={BEGIN}",
            "a,from=",
            "a,from=2026-01-01",
            "a,from=2026-01-01T00:00:00",
            "a,from=2026-01-01 00:00:00Z",
            "a,from=2026-01-01T00:00:00z",
            "a,from=2026-01-01T00:00:00.0Z",
            "a,from=2026-01-01T00:00:00+00:00",
            "a,from=2026-02-29T00:00:00Z",
            "a,from=2026-13-01T00:00:00Z",
            "a,from=2026-01-01T24:00:00Z",
            "a,until=2026-01-01T00:60:00Z",
            "a,until=2026-12-31T23:59:60Z",
            "a,until=0000-01-01T00:00:00Z",
            "a,until=+026-01-01T00:00:00Z",
            "a,until= 026-01-01T00:00:00Z",
            "a,until=２０２６-01-01T00:00:00Z",
            "a,until=2026-01-01T00:00:00Z\n",
            "a,until=2026-01-01T00:00:00Z,params=",
            "a,params=5",
            "a,params=[]",
            "a,params=null",
            "a,params={",
            "a,params={}}",
            'a,params={"a":1,"a":2}',
            'a,params={"":1}',
            'a,params={"a":"\\u0000"}',
            'a,params={"a":[{"\\u0000":1}]}',
            'a,params={"a":"\\ud800"}',
            'a,params={"a":NaN}',
            'a,params={"a":-Infinity}',
            'a,params={"a":1e400}',
            'a,params={"a":1e-400}',
            'a,params={"a":1e-99999999999999999999}',
            'a,params={"a":1e99999999999999999999}',
            'a,params={"a":9007199254740993}',
            'a,params={"a":0.12345678901234567}',
            'a,params={"a":' + "9" * 5000 + "}",
            f"a,params={nested(101)}",
            f"a,params={nested(100, '[[]]')}",
            f"a,params={nested(5000)}",
        ):
            self.assert_not_signed("--feature", "good", "--feature", feature, part="--feature")

    def test_wrong_lists_are_not_signed(self):
        "A list with one wrong entry is not signed, and the entry is named by its index."
        for entry in (
            None,
            "a",
            [],
            {},
            {"name": ""},
            {"name": 5},
            {"name": None},
            {"name": "a\0"},
            {"Name": "a"},
            {"name": "a", "validfrom": BEGIN},
            {"name": "a", "source": "granted"},
            {"name": "a", "validFrom": None},
            {"name": "a", "validFrom": 5},
            {"name": "a", "validUntil": "tomorrow"},
            {"name": "a", "validFrom": END, "validUntil": BEGIN},
            {"name": "a", "params": None},
            {"name": "a", "params": []},
            {"name": "a", "params": {"": 1}},
            {"name": "a", "params": {"x": ["\0"]}},
        ):
            self.write("list.json", [{"name": "good"}, entry])
            self.assert_not_signed("--features", "list.json", part="list.json: feature 1")

    def test_files_that_are_no_list(self):
        "A file that is no JSON list is a fault."
        for content in (
            b"",
            b"{}",
            b"5",
            b"null",
            b"[",
            b"[]]",
            b'{"features":[]}',
            b'[{"name":"\xff"}]',
            b'[{"name":"a","name":"b"}]',
            b'[{"name":"\\udc00"}]',
            b"[" * 100000,
            b"[]".ljust((1 << 20) + 1),
        ):
            self.write("list.json", content)
            self.assert_not_signed("--features", "list.json", part="list.json")
        self.assert_not_signed("--features", "gone.json", part="gone.json: No such file")
        self.assert_not_signed("--features", ".", part="Is a directory")

    def test_too_large_for_a_device(self):
        "A grant that is larger than a device reads is not signed."
        self.write("list.json", [{"name": "x" * 1000} for _ in range(800)])
        self.assert_not_signed("--features", "list.json", part="the grant has")

    def test_keys_that_are_none(self):
        "Without a private key of the right kind nothing is signed."
        kinds = {
            "p521": ("EC", "ec_paramgen_curve:P-521"),
            "secp256k1": ("EC", "ec_paramgen_curve:secp256k1"),
            "rsa1024": ("RSA", "rsa_keygen_bits:1024"),
            "rsa3072": ("RSA", "rsa_keygen_bits:3072"),
        }
        for name, (kind, option) in kinds.items():
            openssl("genpkey", "-algorithm", kind, "-pkeyopt", option, "-out", name)
        openssl("genpkey", "-algorithm", "ED25519", "-out", "ed25519")
        openssl("pkey", "-in", "maker.pem", "-aes128", "-passout", "pass:word", "-out", "encrypted")
        self.write("empty", b"")
        self.write("garbage", b"\xff" * 1000)
        for name in (*kinds, "ed25519", "encrypted", "empty", "garbage", "maker.pub", "gone", "."):
            self.assert_fault("sign", "--key", name, "--serial", "1", "--feature", "a", part=f"grant: {name}: ")

    def test_private_key_of_other_makes(self):
        "Keys that openssl made in its older forms sign as well."
        openssl("ecparam", "-name", "prime256v1", "-genkey", "-out", "old.pem")
        write_file(self.work_path("old.pub"), openssl("pkey", "-in", "old.pem", "-pubout"))
        openssl("genrsa", "-traditional", "-out", "rsa.pem", "2048")
        write_file(self.work_path("rsa.pub"), openssl("pkey", "-in", "rsa.pem", "-pubout"))
        for key in ("old", "rsa"):
            self.assertEqual(len(self.features_on_device(self.sign("--feature", "a", key=key), key)), 1)


class SerialsTest(GrantToolTest):
    """SerialsTest signs for many devices; `batch` runs the command with a list of serial numbers."""

    def setUp(self):
        super().setUp()
        os.mkdir("out")

    def batch(self, serials, *options, folder="out", feature="a"):
        words = ("sign", "--key", "maker.pem", "--serials", self.write("serials", serials), "--output-folder", folder)
        return run_grant(*words, "--feature", feature, *options)

    def names_in(self, path):
        """Serial number and features' names of a good grant."""
        result = json.loads(self.succeed("show", "--json", "--public", "maker.pub", path))
        return result["serial"], [feature["name"] for feature in result["features"]]

    def test_each_device_gets_its_own(self):
        "Each serial number gets a file with a grant of its own, which the agent takes; nothing else is left there."
        serials = ["1", DEFAULT_SERIAL, 'Ä "7"', " 8", "../9", ".", "..", "a/b", "%2F", "CON"]
        result = self.batch("\n".join(serials[:3]) + "\r\n\n\n" + "\n".join(serials[3:]))
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))
        files = {"1.jws", f"{DEFAULT_SERIAL}.jws", "%C3%84%20%227%22.jws", "%208.jws", "%2E.%2F9.jws", "%2E.jws"}
        files |= {"%2E..jws", "a%2Fb.jws", "%252F.jws", "CON.jws"}
        self.assertEqual(set(os.listdir("out")), files)
        self.assertEqual({self.names_in(f"out/{name}")[0] for name in files}, set(serials))
        self.assertEqual(
            self.features_on_device(read_file(f"out/{DEFAULT_SERIAL}.jws")), [{"name": "a", "source": "granted"}]
        )
        self.assertEqual({stat.S_IMODE(os.stat(f"out/{name}").st_mode) for name in files}, {0o644})

    def test_existing_files_stay(self):
        "A grant that is there stays, whatever it is, and is told, until --replace is given."
        self.batch("1\n2\n")
        before = read_file("out/1.jws"), read_file("out/2.jws")
        os.symlink("nowhere", "out/4.jws")
        result = self.batch("1\n2\n3\n4\n", feature="b")
        self.assertEqual((result.returncode, result.stdout), (0, b""))
        self.assertEqual(result.stderr, b"grant: out: 3 of 4 were there and stay (no --replace)\n")
        self.assertEqual((read_file("out/1.jws"), read_file("out/2.jws")), before)
        self.assertEqual(self.names_in("out/3.jws"), ("3", ["b"]))
        result = self.batch("1\n2\n3\n", "--replace", feature="c")
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertEqual([self.names_in(f"out/{name}.jws")[1] for name in "123"], [["c"]] * 3)
        result = self.batch("4\n", "--replace")
        self.assertEqual((result.returncode, result.stderr), (2, b"grant: out/4.jws: not a plain file\n"))
        self.assertEqual(os.readlink("out/4.jws"), "nowhere")

    def test_wrong_lists_make_nothing(self):
        "A line that is no serial number, or repeats one, is named, and no grant is made at all."
        for content, part in (
            ("1\n2\n1\n", "line 3 repeats line 1"),
            ("1\n \t\n", "line 2 has nothing but blanks"),
            ("1\na\0b\n", "line 2 is no serial number"),
            ("1\n" + "x" * 252, "line 2 is no serial number"),
            (b"1\n\xff", "not UTF-8"),
            ("\n\r\n", "no serial number"),
        ):
            result = self.batch(content)
            self.assertEqual((result.returncode, result.stdout), (2, b""))
            self.assertIn(f"serials: {part}".encode(), result.stderr)
        self.assertEqual(self.batch("1\n" + "x" * 251).returncode, 0)
        self.assertEqual(sorted(os.listdir("out")), ["1.jws", "x" * 251 + ".jws"])

    def test_wrong_usage(self):
        "Serial numbers need a folder and exclude a single one; only they take a folder and --replace."
        self.write("serials", "1")
        sign, feature = ("sign", "--key", "maker.pem"), ("--feature", "a")
        many, folder = ("--serials", "serials"), ("--output-folder", "out")
        for words in (
            many,
            ("--serial", "1", *many, *folder),
            ("--serial", "1", *folder),
            ("--serial", "1", "--replace"),
            folder,
        ):
            self.assert_fault(*sign, *feature, *words, part="--help")
        self.assert_fault(*sign, *feature, *many, "--output-folder", "gone", part="gone: No such file")
        self.assert_fault(*sign, *feature, *many, "--output-folder", "maker.pem", part="maker.pem: Not a directory")
        self.assert_fault(*sign, *feature, "--serials", "gone", *folder, part="gone: No such file")
        self.assertEqual(os.listdir("out"), [])

    def test_full_disk(self):
        "Where the disk is full the file is named, and no half of a grant is left."
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", "out"], check=True)
        self.addCleanup(subprocess.run, ["umount", self.work_path("out")], check=True)
        result = self.batch("\n".join(map(str, range(100))))
        self.assertEqual(result.returncode, 2)
        self.assertRegex(result.stderr, rb"^grant: out/[0-9]+\.jws: No space left on device\n$")
        self.assertGreater(len(os.listdir("out")), 3)
        for name in os.listdir("out"):
            self.assertEqual(self.names_in(f"out/{name}"), (name.removesuffix(".jws"), ["a"]))

    def test_signer(self):
        "A command signs for many devices as well."
        words = ("sign", "--signer", "openssl dgst -sha256 -sign maker.pem", "--public", "maker.pub")
        self.write("serials", "1\n2\n")
        self.succeed(*words, "--serials", "serials", "--output-folder", "out", "--feature", "a")
        self.assertEqual([self.names_in(f"out/{name}.jws") for name in "12"], [("1", ["a"]), ("2", ["a"])])


class ShowJsonTest(GrantToolTest):
    def json(self, *words, status):
        """The object; the exit status must be this one, and that without --json too."""
        results = [run_grant("show", *words, *option) for option in ((), ("--json",))]
        self.assertEqual([result.returncode for result in results], [status] * 2, results)
        self.assertEqual(results[0].stderr, results[1].stderr)
        content = json.loads(results[1].stdout, parse_constant=self.fail, parse_float=str)
        self.assertEqual(list(content), ["ok", "alg", "serial", "features", "error"])
        return content

    def test_verdicts(self):
        "With a key ok is true or false, without one null; error has the reason."
        features = [{"name": "a", "params": {"x": [1, None, "ü\x1b"]}}]
        self.write("list.json", features)
        self.write("a.jws", self.sign("--features", "list.json"))
        said = {"alg": "ES256", "serial": DEFAULT_SERIAL, "features": features}
        self.assertEqual(self.json("a.jws", status=0), {"ok": None, **said, "error": None})
        good = self.json("--public", "maker.pub", "a.jws", status=0)
        self.assertEqual(good, {"ok": True, **said, "error": None})
        self.make_keys("other")
        bad = self.json("--public", "other.pub", "a.jws", status=1)
        self.assertEqual(bad, {"ok": False, **said, "error": "the key did not sign this"})

    def test_what_cannot_be_judged(self):
        "A file or a key that can't be used, and wrong usage, give an object with the error, and status 2."
        nothing = {"ok": False, "alg": None, "serial": None, "features": None}
        self.write("a.jws", self.sign("--feature", "a"))
        for words in (["gone"], ["maker.pem"], ["--public", "gone", "a.jws"], ["a.jws", "b"], []):
            content = self.json(*words, status=2)
            self.assertTrue(content.pop("error"))
            self.assertEqual(content, nothing)

    def test_foreign_content(self):
        "What has not the type that a device expects is null, and numbers of any size come out as they were written."
        for header, payload, said in (
            ({"alg": 5}, b"5", (None, None, None)),
            ({}, b"[]", (None, None, None)),
            ({"alg": None}, b'{"serial":5,"features":{}}', (None, None, None)),
            ({"alg": "x"}, b'{"serial":"","features":[]}', ("x", "", [])),
            ({"alg": "ES256"}, b'{"features":[1e999,-0.10,1E5]}', ("ES256", None, ["1e999", "-0.10", "1E5"])),
        ):
            path = self.write("a.jws", f"{segment(header)}.{segment(payload)}.AA")
            content = self.json(path, status=0)
            self.assertEqual((content["alg"], content["serial"], content["features"]), said)
            self.json("--public", "maker.pub", path, status=1)
        for depth in (100, 300, 900):
            payload = f'{{"features":{"[" * depth + "]" * depth}}}'.encode()
            path = self.write("a.jws", f"{segment({})}.{segment(payload)}.AA")
            self.assertIn(run_grant("show", "--json", path).returncode, (0, 2))


class ShowTest(GrantToolTest):
    def test_content(self):
        "Header and payload are shown in a form that is safe for a terminal, with the verdict behind them."
        grant = self.sign("--feature", 'a,params={"x":"\\u001b[2Jü"}')
        self.write("a.jws", grant)
        payload = {"serial": DEFAULT_SERIAL, "features": [{"name": "a", "params": {"x": "\x1b[2Jü"}}]}
        parts = json.dumps({"alg": "ES256"}, indent=2), json.dumps(payload, indent=2)
        begin = f"header: {parts[0]}\npayload: {parts[1]}\n"
        self.assertEqual(self.succeed("show", "a.jws").decode(), f"{begin}signature: not checked: no key given\n")
        self.assertEqual(self.succeed("show", "--public", "maker.pub", "a.jws").decode(), f"{begin}signature: good\n")

    def test_foreign_content(self):
        "What no device takes is shown all the same, or refused: deep nesting and numbers of any length too."
        header = segment({"alg": "ES256"})
        for payload in (b"5", b"null", b"{}", b"[1e999]", b"9" * 4000, b"-1e-99999999999999999999"):
            self.assertEqual(self.shown(f"{header}.{segment(payload)}.AA")[0], 0, payload)
        for depth in (100, 200, 300, 500, 700, 900, 990, 1100):
            for payload in (b"[" * depth + b"]" * depth, nested(depth).encode()):
                self.assertIn(self.shown(f"{header}.{segment(payload)}.AA")[0], (0, 2), depth)

    def test_bad_signatures(self):
        "Another key, another algorithm and each change make it bad; without a key all of them are only shown."
        self.make_keys("other")
        self.make_keys("rsa", "--algorithm", "RS256")
        grant = self.sign("--feature", "a").decode().rstrip("\n")
        header, payload, signature = grant.split(".")
        other = segment({"serial": DEFAULT_SERIAL, "features": [{"name": "b"}]})
        raw = decoded(signature)
        for text, key in (
            (grant, "other"),
            (grant, "rsa"),
            (self.sign("--feature", "a", key="rsa"), "maker"),
            (f"{header}.{other}.{signature}", "maker"),
            (f"{segment({'alg': 'none'})}.{payload}.", "maker"),
            (f"{segment({'alg': 'none'})}.{payload}.{signature}", "maker"),
            (f"{segment({'alg': None})}.{payload}.{signature}", "maker"),
            (f"{segment({})}.{payload}.{signature}", "maker"),
            (f"{header}.{payload}.", "maker"),
            (f"{header}.{payload}.{signature[:-1]}", "maker"),
            (f"{header}.{payload}.{signature}A", "maker"),
            (f"{header}.{payload}.{signature}==", "maker"),
            (f"{header}.{payload}. {signature}", "maker"),
            (f"{header}.{payload}.{segment(raw[32:] + raw[:32])}", "maker"),
            (f"{header}.{payload}.{segment(bytes(64))}", "maker"),
            (f"{header}.{payload}.{'_' * 85}w", "maker"),
        ):
            status, verdict = self.shown(text, key)
            self.assertEqual((status, verdict[:14]), (1, "signature: BAD"), text)
            self.assertEqual(self.shown(text), (0, "signature: not checked: no key given"))

    def test_each_letter_of_the_signature_counts(self):
        "No letter of the signature can be exchanged for its neighbour."
        letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"
        grant = self.sign("--feature", "a").decode().rstrip("\n")
        for place in (*range(grant.rindex(".") + 1, len(grant), 9), len(grant) - 1):
            other = letters[letters.index(grant[place]) ^ 1]
            self.assertEqual(self.shown(grant[:place] + other + grant[place + 1 :], "maker")[0], 1, place)

    def test_header_without_algorithm(self):
        "As on a device the header need not name the algorithm."
        text = f"{segment({})}.{segment({'serial': '1', 'features': []})}"
        write_file(self.work_path("text"), text)
        openssl("dgst", "-sha256", "-sign", "maker.pem", "-out", "signature", "text")
        der = read_file("signature")
        middle = 4 + der[3]
        r, s = int.from_bytes(der[4:middle], "big"), int.from_bytes(der[middle + 2 :], "big")
        raw = r.to_bytes(32, "big") + s.to_bytes(32, "big")
        self.assertEqual(self.shown(f"{text}.{segment(raw)}", "maker"), (0, "signature: good"))
        self.assertEqual(self.shown(f"{text}.{segment(der)}", "maker")[0], 1)

    def test_files_that_are_none(self):
        "What is no compact form of JSON can't be shown, with a key or without."
        header, payload = segment({"alg": "ES256"}), segment({"serial": "1"})
        for content in (
            b"",
            b"\n",
            b"\xff",
            b"..",
            f"{header}.{payload}",
            f"{header}.{payload}.AA.AA",
            f"{header}=.{payload}.AA",
            f"{header}\n.{payload}.AA",
            f"{header}.{payload}.AA".replace("A", "À"),
            f".{payload}.AA",
            f"{header}..AA",
            f"{segment([])}.{payload}.AA",
            f"{segment(b'x')}.{payload}.AA",
            f"{header}.{segment(b'x')}.AA",
            f"{header}._w.AA",
            f"{header}.{segment(b'[' * 100000)}.AA",
            "A" * ((1 << 20) + 1),
        ):
            path = self.write("bad.jws", content)
            self.assert_fault("show", path, part="bad.jws")
            self.assert_fault("show", "--public", "maker.pub", path, part="bad.jws")
        self.assert_fault("show", "gone.jws", part="gone.jws: No such file")
        self.assert_fault("show", ".", part="Is a directory")

    def test_keys_that_are_none(self):
        "A key that no device would take can't judge."
        self.write("a.jws", self.sign("--feature", "a"))
        openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-521", "-out", "p521.pem")
        openssl("pkey", "-in", "p521.pem", "-pubout", "-out", "p521.pub")
        self.write("empty", b"")
        self.write("broken", b"-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n")
        for name in ("p521.pub", "maker.pem", "empty", "broken", "gone", "."):
            self.assert_fault("show", "--public", name, "a.jws", part=f"grant: {name}: ")
