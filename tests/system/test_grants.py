"""The second input of the feature list: grants, what makes them good, and what comes of bad ones."""

import base64
import json
import os
import random
import subprocess
import time

from daemon_harness import HOOK, UNCHANGED, WatchTest, instant, modified, soon, started, updated
from harness import (
    DEFAULT_CPUINFO,
    DEFAULT_SERIAL,
    ETC,
    IDENTIFIERS,
    INSTALLED_FEATURES,
    Daemon,
    check_features_document,
    feature_names,
    install_features,
    run_agent,
    set_cpuinfo,
    wait_for,
    write_file,
)

GRANT = "/var/lib/orvanta/features.jws"
KEY = ETC + "/features.pem"
NO_SERIAL_NUMBER = (("ERROR", "failed to load serial number"), ("FATAL", "failed collecting device information"))
OTHER_SERIAL = "0000abce"
MEBIBYTE = 1 << 20

# SECRET is in every grant that must be refused, and in no record.
SECRET = "SeCrEt"


def openssl(*arguments, data=b""):
    return subprocess.run(["openssl", *arguments], input=data, check=True, capture_output=True).stdout


def base64url(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def raw_signature(der, size):
    """An ECDSA signature as two integers of `size` bytes each, from its DER form."""
    parts, position = [], 3 if der[1] & 0x80 else 2
    for _ in range(2):
        end = position + 2 + der[position + 1]
        parts.append(int.from_bytes(der[position + 2 : end], "big").to_bytes(size, "big"))
        position = end
    return b"".join(parts)


EC, RSA = ("EC", "-pkeyopt"), ("RSA", "-pkeyopt")


class Signer:
    """Signer has a key of its own in the current folder and signs with it, by means of the openssl command."""

    KINDS = {
        "ES256": ((*EC, "ec_paramgen_curve:P-256"), "-sha256", 32),
        "ES384": ((*EC, "ec_paramgen_curve:P-384"), "-sha384", 48),
        "RS256": ((*RSA, "rsa_keygen_bits:2048"), "-sha256", None),
        # of kinds that are not for grants
        "ES512": ((*EC, "ec_paramgen_curve:P-521"), "-sha512", 66),
        "RS256 of 3072 bits": ((*RSA, "rsa_keygen_bits:3072"), "-sha256", None),
        "ES256 on secp256k1": ((*EC, "ec_paramgen_curve:secp256k1"), "-sha256", 32),
        "ES256 on brainpoolP256r1": ((*EC, "ec_paramgen_curve:brainpoolP256r1"), "-sha256", 32),
        "ES384 on brainpoolP384r1": ((*EC, "ec_paramgen_curve:brainpoolP384r1"), "-sha384", 48),
    }

    def __init__(self, kind="ES256"):
        self.algorithm = kind.split()[0]
        options, self._digest, self._size = self.KINDS[kind]
        self.private_key = openssl("genpkey", "-algorithm", *options)
        self.public_key = openssl("pkey", "-pubout", data=self.private_key)
        self._path = write_file(os.path.abspath(f"signer-{id(self)}.pem"), self.private_key)

    def install_key(self):
        write_file(KEY, self.public_key)

    def sign(self, payload, header=None):
        """The compact form: bytes as they are, anything else as JSON."""
        header = {"alg": self.algorithm} if header is None else header
        parts = [part if isinstance(part, bytes) else json.dumps(part).encode() for part in (header, payload)]
        text = ".".join(map(base64url, parts))
        signature = openssl("dgst", self._digest, "-sign", self._path, data=text.encode())
        if self._size:
            signature = raw_signature(signature, self._size)
        return f"{text}.{base64url(signature)}"

    def grant(self, *features, serial=DEFAULT_SERIAL, header=None):
        """A grant for this device, of dictionaries or names alone."""
        return self.sign(payload(*features, serial=serial), header)


def payload(*features, serial=DEFAULT_SERIAL):
    content = {"features": [{"name": feature} if isinstance(feature, str) else feature for feature in features]}
    return content if serial is None else {"serial": serial, **content}


class GrantTest(WatchTest):
    def setUp(self):
        super().setUp()
        self.signer = Signer()
        self.signer.install_key()

    # --- one run that prints the document

    def features(self, grant=None):
        """The features of one run without any record, after this grant has come."""
        if grant is not None:
            write_file(GRANT, grant)
        result = run_agent()
        self.assert_success(result)
        self.assert_no_records(result)
        return check_features_document(result.stdout)["features"]

    def names(self, grant=None):
        return [feature["name"] for feature in self.features(grant)]

    def assert_refused(self, *reasons):
        """The grant at its place counts as empty, with one ERROR that has the path and these parts, and no content."""
        result = run_agent()
        self.assert_success(result)
        self.assertEqual(feature_names(check_features_document(result.stdout)), [], str(result))
        self.assertEqual([record.level for record in result.records], ["ERROR"], str(result))
        text = result.records[0].text
        self.assertTrue(text.startswith(f"features input {GRANT} counts as empty: "), text)
        for reason in reasons:
            self.assertIn(reason, text)
        self.assertNotIn(SECRET.encode(), result.stderr)

    def assert_grant_refused(self, grant, *reasons):
        write_file(GRANT, grant)
        with self.subTest(grant=grant[:300]):
            self.assert_refused(*reasons)

    def assert_bad_signature(self, grant):
        self.assert_grant_refused(grant, "signature", KEY)

    def assert_key_refused(self, content):
        """With this as the key's file a grant counts as empty, with the key's path in the reason."""
        write_file(GRANT, self.signer.grant(SECRET))
        write_file(KEY, content)
        with self.subTest(key=content[:60]):
            self.assert_refused(KEY)

    # --- the daemon

    def errors(self):
        return [text for level, text in self.records() if level not in ("INFO", "DEBUG")]

    def wait_for_errors(self, count):
        """Waits for this many in all; each must be one on the grant, without content."""
        wait_for(lambda: len(self.errors()) >= count, f"{count} errors")
        self.assertEqual(len(self.errors()), count)
        for text in self.errors():
            self.assertTrue(text.startswith(f"features input {GRANT} counts as empty: "), text)
            self.assertNotIn(SECRET, text)


class GoodGrantTest(GrantTest):
    def test_each_kind_of_key(self):
        "Grants of all three algorithms are taken, and their features have their own source."
        for kind in ("ES256", "ES384", "RS256"):
            signer = Signer(kind)
            signer.install_key()
            self.assertEqual(self.features(signer.grant(kind)), [{"name": kind, "source": "granted"}])

    def test_members_are_handed_on(self):
        "What the grant says of a feature is handed on as from the installed features."
        entry = {
            "name": "wall",
            "params": {"outputs": 4, "list": [True, None, -1.5, "ü\n"], "deep": {"x": {}}},
            "validFrom": "2026-01-01T00:00:00Z",
            "validUntil": "2099-01-01T00:00:00Z",
        }
        self.assertEqual(self.features(self.signer.grant({**entry, "price": 5})), [{**entry, "source": "granted"}])

    def test_header_without_algorithm(self):
        "The key alone decides on the algorithm: the header need not name it."
        self.assertEqual(self.names(self.signer.grant("a", header={})), ["a"])
        self.assertEqual(self.names(self.signer.grant("b", header={"kid": "1", "typ": "JWT"})), ["b"])

    def test_line_feed_at_the_end(self):
        "A line feed after the signature is not a fault."
        self.assertEqual(self.names(self.signer.grant("a") + "\n"), ["a"])

    def test_one_mebibyte(self):
        "A file of one MiB is read, one byte more is too much."
        grant = self.signer.grant(SECRET)
        self.assertEqual(self.names(grant + "\n" * (MEBIBYTE - len(grant))), [SECRET])
        self.assert_grant_refused(grant + "\n" * (MEBIBYTE + 1 - len(grant)), "1 MiB")

    def test_missing_grant(self):
        "Without a grant nothing is said, whatever is the matter with the key."
        for key in (None, b"no key"):
            if key:
                write_file(KEY, key)
            self.assertEqual(self.names(), [])
        os.unlink(KEY)
        self.assertEqual(self.names(), [])

    def test_wrong_entries_are_left_out(self):
        "Each wrong entry gives one WARN with the grant's path and its index; the others are taken."
        write_file(GRANT, self.signer.grant("a", {"name": ""}, "b", {"name": SECRET, "validFrom": "now"}))
        result = run_agent()
        self.assertEqual(feature_names(check_features_document(result.stdout)), ["a", "b"])
        self.assertEqual([record.level for record in result.records], ["WARN"] * 2)
        for record, index in zip(result.records, "13"):
            self.assertRegex(record.text, rf"^{GRANT}: left out feature {index}: ")

    def test_installed_goes_before_granted(self):
        "Of one name in both inputs the installed entry counts while it is active, else the granted one."
        ended, begins = {"validUntil": "2020-01-01T00:00:00Z"}, {"validFrom": "2098-01-01T00:00:00Z"}
        install_features({"name": "b"}, {"name": "d", **ended}, {"name": "e", **begins}, "a")
        features = self.features(self.signer.grant("e", "d", "c", {"name": "b", "params": {"n": 1}}))
        self.assertEqual(
            [(feature["name"], feature["source"]) for feature in features],
            [("a", "installed"), ("b", "installed"), ("c", "granted"), ("d", "granted"), ("e", "granted")],
        )
        self.assertNotIn("params", features[1])

    def test_bad_grant_leaves_the_installed_features(self):
        "A grant that is refused takes nothing away from the installed features."
        install_features("a")
        write_file(GRANT, Signer().grant(SECRET))
        result = run_agent()
        self.assertEqual(feature_names(check_features_document(result.stdout)), ["a"])
        self.assertEqual([record.level for record in result.records], ["ERROR"])


class SignatureTest(GrantTest):
    def test_other_algorithm_in_the_header(self):
        "A header that names another algorithm than the key's is refused, though the key signed it."
        for name in ("none", "HS256", "ES384", "ES512", "RS256", "es256", "", None, 5, ["ES256"], SECRET):
            self.assert_bad_signature(self.signer.grant(SECRET, header={"alg": name}))

    def test_critical_header_members(self):
        "A header with critical members, of which a device knows none, is refused, though the key signed it."
        for critical in (["exp"], ["alg"], [], None, "exp"):
            grant = self.signer.grant(SECRET, header={"alg": "ES256", "exp": 1, "crit": critical})
            self.assert_grant_refused(grant, "critical")

    def test_header_that_is_not_an_object(self):
        "A header that is not an object is refused, though the key signed it."
        for header in (b"", b"[]", b"null", b'"ES256"', b'{"alg":"ES256"', b"\xff"):
            self.assert_bad_signature(self.signer.grant(SECRET, header=header))

    def test_other_keys(self):
        "A grant of somebody else's key is refused, of the same kind or of another."
        for kind in Signer.KINDS:
            other = Signer(kind)
            self.assert_bad_signature(other.grant(SECRET))
            self.assert_bad_signature(other.grant(SECRET, header={"alg": "ES256"}))
            self.assert_bad_signature(other.grant(SECRET, header={}))

    def test_unsigned(self):
        "A grant without signature is refused, whatever its header says."
        for name in ("none", "ES256"):
            text = self.signer.grant(SECRET, header={"alg": name}).rpartition(".")[0]
            for end in ("", ".", ".A", "." + "A" * 86, "." + "_" * 86):
                self.assert_bad_signature(text + end)

    def test_exchanged_parts(self):
        "Header, payload and signature of two good grants can't be exchanged."
        one, other = self.signer.grant(SECRET).split("."), self.signer.grant(SECRET, "b", header={}).split(".")
        for place in range(3):
            mixed = list(one)
            mixed[place] = other[place]
            self.assert_bad_signature(".".join(mixed))
        self.assertEqual(self.names(".".join(one)), [SECRET])

    def test_one_letter_changed(self):
        "One other letter, in any part, makes a grant of each kind worthless."
        picker = random.Random(7)
        for kind in ("ES256", "ES384", "RS256"):
            signer = Signer(kind)
            signer.install_key()
            grant = signer.grant(SECRET)
            dots = [at for at, letter in enumerate(grant) if letter == "."]
            # The last letter is left out: some of its bits mean nothing.
            places = {0, *dots, *(dot + side for dot in dots for side in (-1, 1)), len(grant) - 2}
            places.update(picker.sample(range(len(grant) - 1), 12))
            for place in sorted(places):
                other = picker.choice([letter for letter in "AQgw059-_" if letter != grant[place]])
                self.assert_bad_signature(grant[:place] + other + grant[place + 1 :])
            self.assertEqual(self.names(grant), [SECRET])

    def test_text_around_the_grant(self):
        "Text before the header or between the parts belongs to what is signed, so it breaks the signature."
        header, content, signature = self.signer.grant(SECRET).split(".")
        for text in (
            f"\n{header}.{content}.{signature}",
            f" {header}.{content}.{signature}",
            f"\ufeff{header}.{content}.{signature}",
            f"{header}\n.{content}.{signature}",
            f"{header}.{content}\n.{signature}",
            f"{header}..{content}.{signature}",
            json.dumps(payload(SECRET)),
            SECRET,
            "",
        ):
            self.assert_bad_signature(text)

    def test_signature_in_der(self):
        "An ECDSA signature in DER, as openssl writes it, is refused."
        text = ".".join(base64url(json.dumps(part).encode()) for part in ({"alg": "ES256"}, payload(SECRET)))
        write_file(self.work_path("key.pem"), self.signer.private_key)
        self.assert_bad_signature(
            f"{text}.{base64url(openssl('dgst', '-sha256', '-sign', 'key.pem', data=text.encode()))}"
        )


class DeviceTest(GrantTest):
    def test_other_device(self):
        "A grant is refused unless it names exactly this device."
        for serial in (OTHER_SERIAL, "", DEFAULT_SERIAL.upper(), DEFAULT_SERIAL + " ", 5, True, [DEFAULT_SERIAL]):
            self.assert_grant_refused(self.signer.grant(SECRET, serial=serial), "another device")
        self.assert_grant_refused(self.signer.grant(SECRET, serial=None), "names no serial number")

    def test_device_without_serial_number(self):
        "A device whose serial number is not known takes no grant, whatever it names."
        set_cpuinfo("processor\t: 0\n")
        for serial in ("", "[not defined]", DEFAULT_SERIAL):
            self.assert_grant_refused(self.signer.grant(SECRET, serial=serial), "this device has no serial number")
        self.assert_grant_refused(self.signer.grant(SECRET, serial=None), "names no serial number")

    def test_identifiers_that_never_end(self):
        "A FIFO in place of the identifiers, which can't be read, holds up neither the document nor the report."
        set_cpuinfo("processor\t: 0\n")
        os.mkfifo(IDENTIFIERS)
        self.assert_grant_refused(self.signer.grant(SECRET), "this device has no serial number")
        self.assert_failure(run_agent("-d"), *NO_SERIAL_NUMBER)

    def test_serial_number_of_the_identifiers(self):
        "A serial number in the appliance's own file counts as the device's."
        set_cpuinfo("processor\t: 0\n")
        write_file(IDENTIFIERS, 'ORV_SN="unit 7"\n')
        self.assertEqual(self.names(self.signer.grant("a", serial="unit 7")), ["a"])
        self.assert_grant_refused(self.signer.grant(SECRET), "another device")


class PayloadTest(GrantTest):
    def test_payload_that_is_not_a_grant(self):
        "A signed payload that is not UTF-8, no object or has no list is refused, each with its reason."
        serial = f'{{"serial":"{DEFAULT_SERIAL}",'.encode()
        for content, reason in (
            (b"", "not JSON"),
            (SECRET.encode(), "not JSON"),
            (serial + b'"features":[]', "not JSON"),
            (serial + b'"features":[{"name":"SeCrEt\xff"}]}', "not UTF-8"),
            (serial + b'"features":[{"name":"SeCrEt\xed\xa0\x80"}]}', "not UTF-8"),
            ([payload(SECRET)], "no JSON object"),
            (SECRET, "no JSON object"),
            (None, "no JSON object"),
            ({"serial": DEFAULT_SERIAL}, "no list"),
            ({"serial": DEFAULT_SERIAL, "features": None}, "no list"),
            ({"serial": DEFAULT_SERIAL, "features": {"name": SECRET}}, "no list"),
            ({"serial": DEFAULT_SERIAL, "features": SECRET}, "no list"),
        ):
            self.assert_grant_refused(self.signer.sign(content), reason)

    def test_grant_within_a_grant(self):
        "A grant around a grant is refused."
        self.assert_grant_refused(self.signer.sign(self.signer.grant(SECRET).encode()), "not JSON")


class FileTest(GrantTest):
    def test_no_regular_file(self):
        "A directory or a FIFO in place of the grant is refused at once."
        os.mkdir(GRANT)
        self.assert_refused("regular file")
        os.rmdir(GRANT)
        os.mkfifo(GRANT)
        self.assert_refused("regular file")

    def test_key_that_is_none(self):
        "Without a key, and with anything but a public key in its file, a grant is refused."
        public = self.signer.public_key
        encrypted = openssl("pkey", "-aes128", "-passout", "pass:word", data=self.signer.private_key)
        for content in (
            b"",
            SECRET.encode(),
            public[: len(public) // 2],
            public.replace(b"PUBLIC", b"SECRET"),
            b"-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n",
            b"x" * 100000,
            self.signer.private_key,
            encrypted,
            openssl("pkey", "-pubin", "-pubout", "-outform", "DER", data=public),
        ):
            self.assert_key_refused(content)
        os.unlink(KEY)
        self.assert_refused(KEY)

    def test_keys_of_other_kinds(self):
        "Keys of other curves and sizes are not for grants, not even for their own."
        for kind in [name for name in Signer.KINDS if name not in ("ES256", "ES384", "RS256")]:
            signer = Signer(kind)
            signer.install_key()
            write_file(GRANT, signer.grant(SECRET))
            with self.subTest(kind):
                self.assert_refused(KEY)

    def test_huge_key(self):
        "A key's file of more than 64 KiB is refused without being read."
        self.assert_key_refused(self.signer.public_key.ljust((64 << 10) + 1))
        with open(KEY, "r+b") as stream:
            stream.truncate(3 << 30)
        self.assert_refused(KEY, "64 KiB")

    def test_key_that_is_not_a_regular_file(self):
        "A directory or a FIFO in place of the key is refused at once."
        write_file(GRANT, self.signer.grant(SECRET))
        os.unlink(KEY)
        os.mkdir(KEY)
        self.assert_refused(KEY)
        os.rmdir(KEY)
        os.mkfifo(KEY)
        self.assert_refused(KEY)


class DaemonTest(GrantTest):
    def test_grant_comes_and_goes(self):
        "A grant that comes, is replaced and goes while the daemon runs is published each time."
        with Daemon(hook=HOOK) as daemon:
            self.wait_for_record(started(daemon.pid))
            for names in ("a", "bc"):
                write_file(GRANT, self.signer.grant(*names))
                daemon.wait_for_names(*names)
            os.unlink(GRANT)
            daemon.wait_for_names()
            daemon.stop()
        event = modified(GRANT)
        records = [pair for pair in self.records(daemon.pid)[2:-1] if pair != UNCHANGED]
        self.assertEqual([pair for pair in records if pair != event], [updated("a"), updated("b", "c"), updated()])
        self.assertGreaterEqual(records.count(event), 3)
        self.assertEqual(self.runs(), 4)

    def test_bad_grant_takes_the_good_one_away(self):
        "A bad grant renamed over a good one ends its features with one ERROR, and the good one brings them back."
        good = self.signer.grant("a")
        write_file(GRANT, good)
        with Daemon(hook=HOOK) as daemon:
            self.assertEqual(daemon.names(), ["a"])
            for number, bad in enumerate((Signer().grant(SECRET), self.signer.grant(SECRET, serial=OTHER_SERIAL)), 1):
                write_file(GRANT, bad)
                daemon.wait_for_names()
                self.wait_for_errors(number)
                write_file(GRANT, good)
                daemon.wait_for_names("a")
            daemon.stop()
        self.wait_for_errors(2)
        self.assertEqual(self.runs(), 5)

    def test_bad_grant_at_the_start(self):
        "A daemon that starts with a bad grant runs, with one ERROR."
        write_file(GRANT, Signer().grant(SECRET))
        with Daemon() as daemon:
            self.assertEqual(daemon.names(), [])
            self.wait_for_errors(1)
            self.assertTrue(daemon.is_running())
            daemon.stop()
        self.wait_for_errors(1)

    def test_new_key_counts_from_the_next_recheck_on(self):
        "Another key is found at a recheck: the old grant ends with one ERROR, and one of the new key needs no restart."
        write_file(GRANT, self.signer.grant("a"))
        with Daemon(hook=HOOK) as daemon:
            for number, kind in enumerate(("RS256", "ES384"), 1):
                signer = Signer(kind)
                signer.install_key()
                self.recheck(daemon)
                daemon.wait_for_names()
                self.wait_for_errors(number)
                write_file(GRANT, signer.grant(kind))
                daemon.wait_for_names(kind)
            daemon.stop()
        self.wait_for_errors(2)
        self.assertEqual(self.runs(), 5)

    def test_late_key(self):
        "A grant whose key comes later counts from the next recheck on."
        os.unlink(KEY)
        write_file(GRANT, self.signer.grant("a"))
        with Daemon(hook=HOOK) as daemon:
            self.assertEqual(daemon.names(), [])
            self.wait_for_errors(1)
            self.signer.install_key()
            self.recheck(daemon)
            daemon.wait_for_names("a")
            daemon.stop()
        self.wait_for_errors(1)
        self.assertEqual(self.runs(), 2)

    def test_serial_number_that_comes_later(self):
        "A device whose serial number can't be read at the start takes its grant at the first look after it can."
        set_cpuinfo("processor\t: 0\n")
        write_file(GRANT, self.signer.grant("a"))
        with Daemon(hook=HOOK) as daemon:
            self.assertEqual(daemon.names(), [])
            self.wait_for_errors(1)
            set_cpuinfo(DEFAULT_CPUINFO)
            install_features("b")
            daemon.wait_for_names("a", "b")
            daemon.stop()
        self.wait_for_errors(1)
        self.assertEqual(self.runs(), 2)

    def test_recheck_without_change(self):
        "A recheck with the same grant and key publishes nothing and runs no hook."
        write_file(GRANT, self.signer.grant("a"))
        with Daemon(hook=HOOK) as daemon:
            before = daemon.document_bytes()
            self.recheck(daemon)
            self.assertEqual(daemon.document_bytes(), before)
            self.assertEqual(self.count(UNCHANGED), 1)
            daemon.stop()
        self.assertEqual(self.runs(), 1)

    def test_key_that_only_root_can_read(self):
        "A key that the daemon's user can't read is not a key for it."
        self.require_user_switch()
        write_file(GRANT, self.signer.grant(SECRET))
        os.chmod(KEY, 0o600)
        with Daemon() as daemon:
            self.assertEqual(daemon.names(), [])
            self.wait_for_errors(1)
            daemon.stop()

    def test_windows_open_and_close(self):
        "Granted features begin and end by themselves, each at its instant, and none earlier."
        begins, ends = soon(4), soon(7)
        write_file(
            GRANT,
            self.signer.grant(
                {"name": "always"},
                {"name": "later", "validFrom": instant(begins)},
                {"name": "trial", "validUntil": instant(ends)},
            ),
        )
        with Daemon(hook=HOOK) as daemon:
            self.assertEqual(daemon.names(), ["always", "trial"])
            daemon.wait_for_names("always", "later", "trial", limit=20)
            self.assertGreaterEqual(time.time(), begins)
            daemon.wait_for_names("always", "later", limit=20)
            self.assertGreaterEqual(time.time(), ends)
            daemon.stop()
        self.assertEqual(self.errors(), [])
        self.assertEqual(self.runs(), 3)

    def test_granted_entry_takes_over(self):
        "When the installed entry of a name goes, the granted one is listed, and gives way when it comes back."
        write_file(GRANT, self.signer.grant("a"))
        install_features("a")
        with Daemon(hook=HOOK) as daemon:

            def wait_for_source(source):
                wait_for(lambda: [entry["source"] for entry in daemon.document()["features"]] == [source], source)

            wait_for_source("installed")
            os.unlink(INSTALLED_FEATURES)
            wait_for_source("granted")
            install_features("a")
            wait_for_source("installed")
            daemon.stop()
        self.assertEqual(self.runs(), 3)
