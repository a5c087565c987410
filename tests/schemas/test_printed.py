"""What the agent and the tools print fits its schema, and no change of it does that a reader could not understand."""

import itertools
import json

from harness import DEFAULT_SERIAL, IDENTIFIERS, SandboxTest, read_file, run_agent, write_file
from schema_support import OF_EACH_TYPE, accepts, fits, mutations, run_tool, shown_path, type_name

FEATURES = [
    {"name": "wall", "validFrom": "2020-02-29T00:00:00Z", "params": {"outputs": 4, "list": [{"a": "b"}]}},
    {"name": "zönes", "validUntil": "9999-12-31T23:59:59Z", "params": {}},
]
IDENTIFIER_LINES = "ORV_USER_SN=lobby left\nORV_BOARD_SN=b/17\nORV_SYSTEM_SN=s\nORV_CHASSIS_SN=c-ü\n"


def changes(whats, *paths):
    return {f"{what} {path}" for what in whats for path in paths}


def or_null(*paths):
    return changes(["make null"], *paths)


def free_text(*paths):
    return changes(["end line"], *paths)


def lines(data):
    return [json.loads(line) for line in data.splitlines()]


class PrintedTest(SandboxTest):
    def assert_schema(self, name, document, taken=(), open_below=()):
        """The document fits, and of its changes just these do; below some paths anything may be."""
        self.assertTrue(fits(name, document), document)
        found = set()
        for what, path, changed in mutations(document):
            shown = shown_path(path)
            is_open = any((shown + "/").startswith(base + "/") and shown != base for base in open_below)
            is_open |= what in ("add", "repeat last of") and shown in open_below
            if is_open:
                self.assertTrue(fits(name, changed), (what, shown))
            elif fits(name, changed):
                found.add(f"{what} {shown}")
        self.assertEqual(found, set(taken))

    def assert_apart(self, name, documents, members):
        """Each of these members has its value with the others of its own document only."""
        for one, other in itertools.permutations(documents, 2):
            for member in members:
                if one[member] != other[member]:
                    self.assertFalse(fits(name, {**one, member: other[member]}), (member, one, other))

    def assert_printed(self, name, data, *exceptions, **keywords):
        """The same for bytes, which must be strict JSON."""
        self.assertTrue(accepts(name, data), data)
        self.assert_schema(name, json.loads(data), *exceptions, **keywords)


class AgentTest(PrintedTest):
    def print_features(self):
        result = run_agent()
        self.assert_success(result)
        self.assert_no_records(result)
        return result.stdout

    def test_features_document(self):
        "A features document fits; only an entry's optional members may go, and what is within params may be anything."
        write_file("/etc/orvanta/features.json", {"features": FEATURES})
        taken = changes(["drop"], *(f"features/*/{name}" for name in ("params", "validFrom", "validUntil")))
        taken |= (
            free_text("features/*/name") | changes(["drop"], "features/*") | changes(["repeat last of"], "features")
        )
        data = self.print_features()
        self.assertEqual(len(json.loads(data)["features"]), 2)
        self.assert_printed("features-document", data, taken, ["features/*/params"])

    def test_empty_features_document(self):
        "The document without features fits, and none of its changes."
        self.assert_printed("features-document", self.print_features())

    def test_sources(self):
        "An entry's source is one of the two."
        document = json.loads(self.print_features())
        for source, expected in (("installed", True), ("granted", True), ("Granted", False), ("installed\n", False)):
            document["features"] = [{"name": "a", "source": source}]
            self.assertEqual(fits("features-document", document), expected, source)


class DeviceTest(PrintedTest):
    """DeviceTest has a device with a software TPM, whose answers it keeps in files."""

    def device(self, *arguments, output):
        result = run_agent("-d", *arguments)
        self.assert_success(result)
        write_file(self.work_path(output), result.stdout)
        return result.stdout


class ExchangeTest(DeviceTest):
    FREE = free_text("checks/*/detail") | changes(["flip"], "ekKnown")

    def challenge(self):
        secret = ("--report", "report.json", "--secret-out", "secret.bin")
        status, context = run_tool("attest", "challenge", *secret, "--cb-data", "round 1")
        self.assertEqual(status, 0)
        write_file(self.work_path("context.json"), context)
        return context

    def exchange(self):
        write_file(IDENTIFIERS, IDENTIFIER_LINES)
        self.device(output="report.json")
        self.challenge()
        return self.device("-A", "context.json", output="attested.json")

    def verify(self, *options, report="attested.json"):
        files = ("--report", report, "--context", "context.json", "--secret", "secret.bin")
        return run_tool("attest", "verify", *files, *options, "--json")

    NAMES = [f"altSerial/{name}" for name in ("boardSerial", "chassisSerial", "systemSerial", "userSerial")]

    def test_plain_report(self):
        "A plain report fits; it may lack the other identifiers, and the texts are free."
        write_file(IDENTIFIERS, IDENTIFIER_LINES)
        report = self.device(output="report.json")
        taken = changes(["drop", "end line"], *self.NAMES) | free_text("serial")
        self.assert_printed("device-report", report, taken)

    def test_report_without_other_identifiers(self):
        "A report of a device that has only a serial number fits."
        self.assert_printed("device-report", self.device(output="report.json"), free_text("serial"))

    def test_attested_report(self):
        "The answer to a context fits the same schema, with att and sig as long as there is an answer to the challenge."
        report = self.exchange()
        taken = changes(["drop", "end line"], *self.NAMES) | free_text("serial", "cbData")
        taken |= changes(["drop"], "cbData", "tpm2/ak/actResp")
        self.assert_printed("device-report", report, taken)

    def test_answer_to_an_empty_context(self):
        "The answer to a context without text and challenge has att and sig; without both it is a plain report."
        write_file(self.work_path("context.json"), "{}")
        report = json.loads(self.device("-A", "context.json", output="attested.json"))
        self.assert_schema("device-report", report, free_text("serial"))
        for name in ("att", "sig"):
            del report["tpm2"]["tallyCounter"][name]
        self.assertTrue(fits("device-report", report))

    def test_context_of_the_judge(self):
        "A context that attest makes fits the schema of what the device reads."
        write_file(IDENTIFIERS, IDENTIFIER_LINES)
        self.device(output="report.json")
        self.assertTrue(accepts("attestation-context", self.challenge()))

    def test_good_attest_verdict(self):
        "A good verdict fits; only the details are free, and whether the EK is known."
        self.exchange()
        status, verdict = self.verify()
        self.assertEqual(status, 0)
        self.assert_printed("attest-verdict", verdict, self.FREE)
        digest = json.loads(verdict)["ekDigest"]
        status, verdict = self.verify("--ek-digest", digest)
        self.assertTrue(status == 0 and json.loads(verdict)["ekKnown"])
        self.assert_printed("attest-verdict", verdict, self.FREE)

    def test_refusing_attest_verdict(self):
        "A verdict that refuses an answer fits, and has no counter."
        self.exchange()
        write_file(self.work_path("secret.bin"), bytes(32))
        status, verdict = self.verify()
        self.assertEqual(status, 1)
        self.assert_printed("attest-verdict", verdict, self.FREE | changes(["flip"], "checks/*/ok"))

    def test_attest_verdict_on_nothing(self):
        "The verdict where nothing could be checked fits, and says why."
        self.exchange()
        status, verdict = self.verify(report="missing.json")
        self.assertEqual(status, 2)
        self.assert_printed("attest-verdict", verdict, free_text("error"))

    def test_verdicts_do_not_mix(self):
        "No member of one verdict fits into one of another outcome."
        self.exchange()
        verdicts = [json.loads(self.verify(*options)[1]) for options in ((), ("--ek-digest", "0" * 64))]
        verdicts.append(json.loads(self.verify(report="missing.json")[1]))
        self.assert_apart("attest-verdict", verdicts, ("ok", "checks", "counter", "error", "ekDigest", "akDigest"))


class FleetTest(DeviceTest):
    FREE = free_text("checks/*/detail", "serial") | changes(["blow up"], "line") | changes(["flip"], "repeated")
    ANY_ID = {f"make {name} id" for name in OF_EACH_TYPE}

    def fleet(self, *arguments, status=0, data=b""):
        got, output = run_tool("fleet", "--registry", "fleet.db", *arguments, data=data)
        self.assertEqual(got, status, output)
        return output

    def fleet_exchange(self):
        self.device(output="report.json")
        self.fleet("enrol", "--report", "report.json", "--first-contact")
        write_file(self.work_path("context.json"), self.fleet("challenge", "--serial", DEFAULT_SERIAL))
        self.device("-A", "context.json", output="attested.json")

    def judged(self, data):
        """The verdict on one line that is refused."""
        return lines(self.fleet("verify", "-", status=1, data=data.replace(b"\n", b"")))[0]

    def test_good_fleet_verdict(self):
        "A good verdict fits."
        self.fleet_exchange()
        verdict = self.fleet("verify", "attested.json", "--json")
        self.assert_printed("fleet-verdict", verdict, (self.FREE | self.ANY_ID) - {"make null id"})

    def test_refusing_fleet_verdict(self):
        "A verdict that refuses an answer fits, whatever the line's id is."
        self.fleet_exchange()
        report = json.loads(read_file("attested.json"))
        report["altSerial"]["boardSerial"] = "another"
        verdict = self.judged(json.dumps({"id": {"a": [1]}, "report": report}).encode())
        self.assertTrue(verdict["checks"])
        taken = (self.FREE | self.ANY_ID | changes(["flip"], "checks/*/ok")) - {"make object id"}
        self.assert_schema("fleet-verdict", verdict, taken, ["id"])

    def test_fleet_verdict_without_challenge(self):
        "The verdict on an answer to nobody's challenge fits, and names the device."
        self.fleet_exchange()
        context = {**json.loads(read_file("context.json")), "nonce": "QUJD"}
        self.device("-A", write_file(self.work_path("other.json"), context), output="unasked.json")
        verdict = self.judged(read_file("unasked.json"))
        self.assertEqual((verdict["serial"], verdict["checks"]), (DEFAULT_SERIAL, []))
        taken = (self.FREE | self.ANY_ID | free_text("error")) - {"make null id"} - free_text("checks/*/detail")
        self.assert_schema("fleet-verdict", verdict, taken)

    def test_fleet_verdict_on_nothing(self):
        "The verdict on what is not a report fits, on a line and on a file that is not there."
        self.fleet_exchange()
        taken = self.ANY_ID | free_text("error") | changes(["blow up"], "line") | changes(["flip"], "repeated")
        self.assert_schema("fleet-verdict", self.judged(b"nonsense"), taken - {"make null id"})
        missing = self.fleet("verify", "missing.json", "--json", status=2)
        self.assert_printed("fleet-verdict", missing, taken - {"make null id"})

    def test_fleet_list(self):
        "Lines of the list fit, before and after an accepted answer."
        self.fleet_exchange()
        record = lines(self.fleet("list", "--json"))[0]
        taken = free_text("serial", "label")
        self.assert_schema("fleet-device", record, taken)
        self.fleet("verify", "attested.json")
        record = lines(self.fleet("list", "--json"))[0]
        self.assert_schema("fleet-device", record, taken | or_null("counter", "lastGood"))

    def test_fleet_history(self):
        "Lines of the history fit, for an accepted and for a refused answer."
        self.fleet_exchange()
        self.fleet("verify", "attested.json")
        report = json.loads(read_file("attested.json"))
        report["altSerial"]["boardSerial"] = "another"
        self.fleet("verify", write_file(self.work_path("other.json"), report), status=1)
        good, refused = lines(self.fleet("history", DEFAULT_SERIAL, "--json"))
        self.assertEqual((good["ok"], refused["ok"]), (True, False))
        self.assert_schema("fleet-history", good)
        self.assert_schema("fleet-history", refused, changes(["drop"], "failed/*"))
        self.assert_apart("fleet-history", [good, refused], ("ok", "counter", "failed"))


class GrantVerdictTest(PrintedTest):
    def setUp(self):
        super().setUp()
        run_tool("grant", "keys", "--private", "maker.pem", "--public", "features.pem")
        run_tool("grant", "keys", "--private", "other.pem", "--public", "other-public.pem")
        write_file(self.work_path("features.json"), FEATURES)
        what = ("--serial", DEFAULT_SERIAL, "--features", "features.json")
        status, grant = run_tool("grant", "sign", "--key", "maker.pem", *what)
        self.assertEqual(status, 0)
        write_file(self.work_path("features.jws"), grant)

    # What a grant says is printed, good or not, as far as it has the right type.
    SAYS = or_null("alg", "serial", "features") | free_text("alg", "serial")

    def assert_shown(self, status, taken, *options, file="features.jws"):
        got, verdict = run_tool("grant", "show", "--json", *options, file)
        self.assertEqual(got, status)
        self.assert_printed("grant-verdict", verdict, taken, ["features"])
        return json.loads(verdict)

    def test_grant_verdicts(self):
        "Verdicts on a grant fit: without a key, good and bad."
        self.assert_shown(0, self.SAYS | changes(["make boolean"], "ok"))
        self.assert_shown(0, self.SAYS | or_null("ok"), "--public", "features.pem")
        self.assert_shown(1, self.SAYS | free_text("error"), "--public", "other-public.pem")

    def test_grant_verdict_on_nothing(self):
        "The verdict on a file that can't be read fits, and says why."
        types = changes(["make string"], "alg", "serial") | changes(["make array"], "features") | free_text("error")
        self.assertEqual(type_name(self.assert_shown(2, types, file="missing.jws")["error"]), "string")
