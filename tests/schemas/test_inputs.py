"""Of what it reads the agent says the same as the schema: good is what it takes without a WARN or ERROR.

`compare_judgements.py` does that for as many generated files as are wanted; here are a few hundred of them, and all
differences that are known, each with its reason.
"""

import base64
import itertools
import json

from compare_judgements import ContextJudge, GrantJudge, InstalledJudge, compare
from harness import DEFAULT_SERIAL, SandboxTest, run_agent, write_file
from schema_support import accepts, mutated_bytes, mutations, nodes, shown_path, value_at, with_value

SAMPLE = 300
MEBIBYTE = 1 << 20
FEATURES = {
    "serial": DEFAULT_SERIAL,
    "features": [
        {"name": "wall", "validFrom": "2020-02-29T00:00:00Z", "params": {"outputs": 4, "list": [{"a": "b"}]}},
        {"name": "zones", "validUntil": "9999-12-31T23:59:59Z", "other": {"a": 1}},
    ],
}
CONTEXT = {
    "cbData": "x",
    "nonce": "QUJD",
    "tpm2": {"ak": {"pubTpm2B": "QUJD", "privTpm2B": "QUI=", "actChall": "QQ=="}},
}


def nested(depth):
    """A file with parameters of this depth."""
    params = '{"p":' + "[" * (depth - 1) + "0" + "]" * (depth - 1) + "}"
    return f'{{"serial":"{DEFAULT_SERIAL}","features":[{{"name":"a","params":{params}}}]}}'.encode()


def features(text):
    """A file of one feature with these members."""
    return f'{{"serial":"{DEFAULT_SERIAL}","features":[{{{text}}}]}}'.encode()


FOR_ANOTHER = json.dumps({"serial": "other", "features": []}).encode()
TOO_LARGE = json.dumps({"serial": DEFAULT_SERIAL, "features": []}).encode().ljust(MEBIBYTE + 1)

# What no schema can say: the agent refuses these.
BEYOND_SCHEMAS = [
    ("whose serial number it is", FOR_ANOTHER),
    ("how large the file is", TOO_LARGE),
    ("how deep parameters nest", nested(101)),
]

# What strict readers of JSON refuse: the agent takes these.
LENIENT = [
    ("of two members of one name the last counts", features('"name":"","name":"a"')),
    ("half a character", features(r'"name":"a\ud800"')),
    ("the end is missing after a comma", features('"name":"a"')[:-1] + b","),
    ("what comes after a zero byte is ignored", features('"name":"a"') + b"\0rest"),
    ("zeros may lead", features('"name":"a","params":{"p":007}')),
    ("digits may be missing after the point", features('"name":"a","params":{"p":1.}')),
]
LENIENT_CONTEXTS = [
    ("of two members of one name the last counts", b'{"cbData":5,"cbData":"x"}'),
    ("half a character", rb'{"cbData":"\ud800"}'),
    ("the end is missing after a comma", b'{"cbData":"x",'),
    ("what comes after a zero byte is ignored", b"{}\0rest"),
    ("bytes that are not UTF-8 pass through", b'{"cbData":"\xff"}'),
]


class InputTest(SandboxTest):
    def assert_same_judgement(self, judge, data, what):
        self.assertEqual(judge.takes(data), accepts(judge.schema, data), (what, data))

    def assert_sample(self, judge):
        result = compare(judge, SAMPLE, seed=0)
        self.assertEqual(result.differences, [])
        self.assertGreater(result.taken, SAMPLE / 5)
        self.assertGreater(SAMPLE - result.taken - result.for_others, SAMPLE / 5)

    def assert_mutations(self, judge, document):
        """The document and each change of one place are judged alike; of these a part is good and a part is not."""
        self.assertTrue(judge.takes(mutated_bytes(document)) and accepts(judge.schema, mutated_bytes(document)))
        found = {True: 0, False: 0}
        for what, path, changed in mutations(document):
            data = mutated_bytes(changed)
            if shown_path(path) == "serial" and what == "end line":
                continue  # that of another device
            self.assert_same_judgement(judge, data, (what, shown_path(path)))
            found[accepts(judge.schema, data)] += 1
        self.assertGreater(min(found.values()), 10)

    def assert_differences(self, judge, rows, is_taken):
        for reason, data in rows:
            with self.subTest(reason):
                self.assertEqual((judge.takes(data), accepts(judge.schema, data)), (is_taken, not is_taken), data[:200])

    # --- features

    def test_installed_features(self):
        "Generated installed features are judged as the schema says."
        self.assert_sample(InstalledJudge())

    def test_granted_features(self):
        "Generated payloads of grants are judged as the schema says."
        self.assert_sample(GrantJudge())

    def test_changed_installed_features(self):
        "Each change of one place of installed features is judged as the schema says."
        self.assert_mutations(InstalledJudge(), FEATURES)

    def test_changed_grant(self):
        "Each change of one place of a grant's payload is judged as the schema says."
        self.assert_mutations(GrantJudge(), FEATURES)

    def test_differences_of_installed_features(self):
        "These are the differences between the agent and the schema of installed features."
        self.assert_differences(InstalledJudge(), BEYOND_SCHEMAS, is_taken=False)
        self.assert_differences(InstalledJudge(), LENIENT, is_taken=True)
        self.assert_same_judgement(InstalledJudge(), nested(100), "the last depth that is taken")

    def test_differences_of_grants(self):
        "The same are the differences between the agent and the schema of a grant's payload."
        judge = GrantJudge()
        self.assert_differences(judge, BEYOND_SCHEMAS, is_taken=False)
        self.assert_differences(judge, LENIENT, is_taken=True)
        self.assert_same_judgement(judge, nested(100), "the last depth that is taken")

    def test_unreadable_names(self):
        "A member without a name, or with the character NUL in it, is refused wherever it is, by agent and schema."
        for judge, document in ((InstalledJudge(), FEATURES), (GrantJudge(), FEATURES), (ContextJudge(), CONTEXT)):
            objects = [path for path in nodes(document) if isinstance(value_at(document, path), dict)]
            self.assertGreater(len(objects), 2)
            for path, name in itertools.product(objects, ("", "a\0b")):
                data = mutated_bytes(with_value(document, path, {**value_at(document, path), name: 1}))
                self.assertEqual((judge.takes(data), accepts(judge.schema, data)), (False, False), data)

    # --- contexts

    def test_contexts(self):
        "Generated contexts are judged as the schema says."
        self.assert_sample(ContextJudge())

    def test_changed_context(self):
        "Each change of one place of a context is judged as the schema says."
        self.assert_mutations(ContextJudge(), CONTEXT)

    def test_differences_of_contexts(self):
        "These are the differences between the agent and the schema of contexts."
        self.assert_differences(ContextJudge(), LENIENT_CONTEXTS, is_taken=True)

    def test_tpm_judges_keys(self):
        "Whether bytes are a key of this TPM only the TPM says."
        write_file(self.work_path("context.json"), CONTEXT)
        self.assertTrue(accepts("attestation-context", json.dumps(CONTEXT).encode()))
        texts = [record.text for record in run_agent("-d", "-A", "context.json").records]
        self.assertTrue(any("failed de-serializing AK areas" in text for text in texts), texts)

    def test_longest_nonce(self):
        "A nonce of 64 bytes is taken, one of 65 is not, by the schema and by a whole run."
        for size, expected in ((64, True), (65, False)):
            data = json.dumps({"nonce": base64.b64encode(bytes(size)).decode()})
            write_file(self.work_path("context.json"), data)
            self.assertEqual(accepts("attestation-context", data.encode()), expected)
            self.assertEqual(run_agent("-d", "-A", "context.json").status == 0, expected)
