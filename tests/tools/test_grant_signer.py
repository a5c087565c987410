"""tools/grant with a private key in other hands: any command as the signer, and a real HSM library."""

import os
import signal
import subprocess

from harness import write_file
from test_grant import ALGORITHMS, GrantToolTest, decoded, run_grant

MODULE = "/usr/lib/softhsm/libsofthsm2.so"
FROM_FILE = "openssl dgst -sha256 -sign maker.pem"


class GrantSignerTest(GrantToolTest):
    def signer(self, command, public="maker.pub"):
        return ("sign", "--signer", command, "--public", public, "--serial", "1", "--feature", "a")

    def assert_good(self, command, key="maker"):
        grant = self.succeed(*self.signer(command, f"{key}.pub"))
        self.assertEqual(self.shown(grant, key), (0, "signature: good"))
        return grant


class SignerTest(GrantSignerTest):
    def test_either_form(self):
        "A signature in DER is taken as well as a raw one, for each algorithm; the grant has the raw form."
        for algorithm, size in zip(ALGORITHMS, (64, 96, 256)):
            self.make_keys(algorithm, "--algorithm", algorithm)
            command = f"openssl dgst -sha{algorithm[2:]} -sign {algorithm}.pem"
            for _ in range(3):  # r and s differ in length
                grant = self.assert_good(command, algorithm)
                signature = decoded(grant.decode().rstrip("\n").split(".")[2])
                self.assertEqual(len(signature), size)
        text, raw = self.sign("--feature", "a", serial="1").decode().rstrip("\n").rsplit(".", 1)
        self.write("raw", decoded(raw))
        self.write("text", text)
        self.assert_good("cmp - text && cat raw")

    def test_text_on_standard_input(self):
        "The signer gets just the text that is signed, and may read it when it likes, or never."
        grant = self.assert_good(f"tee seen | {FROM_FILE}").decode()
        with open("seen", "rb") as file:
            self.assertEqual(file.read().decode(), grant.rpartition(".")[0])
        self.write("list.json", [{"name": f"feature-{number}"} for number in range(20000)])
        words = self.signer(f"head -c 100000 /dev/zero >&2; {FROM_FILE}")[:-2]
        result = run_grant(*words, "--features", "list.json")
        self.assertEqual((result.returncode, len(result.stderr)), (0, 100000))

    def test_worthless_signatures(self):
        "What the key didn't sign, zeros, another form or another key's signature: nothing is printed, status 2."
        self.make_keys("other")
        for command in (
            "true",
            "head -c 64 /dev/zero",
            "head -c 64 /dev/urandom",
            "printf '\\060\\006\\002\\001\\000\\002\\001\\000'",  # r = s = 0 in DER
            "printf '\\060\\006\\002\\001\\001\\002\\001\\000'",
            "openssl dgst -sha256 -sign other.pem",
            "openssl dgst -sha384 -sign maker.pem",
            f"{FROM_FILE} | base64",
            f"{FROM_FILE}; echo",
            f"tr e f | {FROM_FILE}",
            "cat",
        ):
            self.assert_fault(*self.signer(command), part="what the signer printed is no signature that fits")

    def test_failing_signer(self):
        "A signer that fails or is killed is told with its status, whatever it printed before."
        for command, status in (
            ("exit 3", 3),
            (f"{FROM_FILE}; exit 1", 1),
            ("yes; exit 7", 7),  # more than is read
            ("kill -9 $$", -signal.SIGKILL),
            ("exec 2>/dev/null; no-such-program", 127),
        ):
            self.assert_fault(*self.signer(command), part=f"the signer ended with status {status}")

    def test_wrong_usage(self):
        "A signer needs the public key and replaces the private one; a public key that is none is told before it runs."
        key, other = ["--key", "maker.pem"], ["--serial", "1", "--feature", "a"]
        signer, public = ["--signer", "touch ran"], ["--public", "maker.pub"]
        for words in (signer, [*key, *signer, *public], [*key, *public], public):
            self.assert_fault("sign", *words, *other, part="--help")
        self.assert_fault(*self.signer("touch ran", "maker.pem"), part="maker.pem: no public key")
        self.assertFalse(os.path.exists("ran"))


class HsmTest(GrantSignerTest):
    """HsmTest has a token of SoftHSM with a key for each algorithm; what it runs is what docs/grants.md shows."""

    KINDS = {"ES256": ("EC:prime256v1", "01"), "ES384": ("EC:secp384r1", "02"), "RS256": ("rsa:2048", "03")}
    TOOL = f"pkcs11-tool --module {MODULE} --token-label maker --login --pin 1234"

    def setUp(self):
        super().setUp()
        os.mkdir("tokens")
        write_file(self.work_path("softhsm2.conf"), f"directories.tokendir = {self.work_path('tokens')}\n")
        self.environment = {"SOFTHSM2_CONF": self.work_path("softhsm2.conf"), "PKCS11_MODULE_PATH": MODULE}
        os.environ.update(self.environment)
        self.shell("softhsm2-util --init-token --free --label maker --so-pin 5678 --pin 1234")
        for algorithm, (kind, number) in self.KINDS.items():
            self.shell(f"{self.TOOL} --keypairgen --key-type {kind} --label {algorithm} --id {number}")
            uri = f"pkcs11:token=maker;object={algorithm};type=public"
            public = self.shell(f"openssl pkey -engine pkcs11 -inform engine -pubin -in '{uri}' -pubout")
            write_file(self.work_path(f"{algorithm}.pub"), public)

    def tearDown(self):
        for name in self.environment:
            del os.environ[name]
        super().tearDown()

    def shell(self, command):
        result = subprocess.run(command, shell=True, stdin=subprocess.DEVNULL, capture_output=True, timeout=60)
        self.assertEqual(result.returncode, 0, result)
        return result.stdout

    def assert_good(self, command, key="maker"):
        """As above, but programs of the HSM talk on standard error."""
        result = run_grant(*self.signer(command, f"{key}.pub"))
        self.assertEqual(result.returncode, 0, result)
        self.assertEqual(self.shown(result.stdout, key), (0, "signature: good"))

    def test_pkcs11_tool(self):
        "pkcs11-tool signs with each key in the token."
        for algorithm in ("ES256", "ES384"):
            sign = f"{self.TOOL} --sign --mechanism ECDSA --id {self.KINDS[algorithm][1]}"
            for form in ("rs", "openssl"):
                digest = f"openssl dgst -sha{algorithm[2:]} -binary"
                self.assert_good(f"{digest} | {sign} --signature-format {form}", algorithm)
        self.assert_good(f"{self.TOOL} --sign --mechanism SHA256-RSA-PKCS --id 03", "RS256")

    def test_openssl_engine(self):
        "openssl with the pkcs11 engine signs with each key in the token."
        for algorithm in ALGORITHMS:
            uri = f"pkcs11:token=maker;object={algorithm};type=private;pin-value=1234"
            self.assert_good(
                f"openssl dgst -sha{algorithm[2:]} -engine pkcs11 -keyform engine -sign '{uri}'", algorithm
            )

    def test_another_key_of_the_token(self):
        "A signer that takes another key of the token than the public one's is noticed."
        command = f"openssl dgst -sha256 -binary | {self.TOOL} --sign --mechanism ECDSA --id 02"
        result = run_grant(*self.signer(command, "ES256.pub"))
        self.assertEqual((result.returncode, result.stdout), (2, b""))
