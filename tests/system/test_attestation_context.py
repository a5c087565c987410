"""The attestation context file of -A: what is accepted, what is refused, and with which records."""

import base64
import json
import os
import pwd

from harness import USER, document_bytes, quoted, run_agent, write_file
from tpm_harness import NO_REPORT, PreparedTpmTest, parse_report, tss_failure, verify_attestation, without_tpm_section

REFUSED, NOT_JSON = "incomplete or invalida data in %s", "failed parsing %s as JSON"
BAD_KEY = tss_failure("failed de-serializing AK areas", 0x90006)
NO_KEY = ("ERROR", "cannot activate attestation key if none is loaded")


class ContextTest(PreparedTpmTest):
    def setUp(self):
        super().setUp()
        self.path = self.work_path("context.json")

    def report(self, content, **keywords):
        write_file(self.path, content)
        return run_agent("-d", "-A", self.path, **keywords)

    def assert_refused(self, result, text):
        self.assert_failure(result, ("ERROR", text % self.path), NO_REPORT)

    def assert_accepted(self, result, cb_data=None, nonce=b""):
        """A report with this text, certified with this nonce."""
        self.assert_success(result)
        self.assertEqual(result.stderr, b"", str(result))
        self.assertEqual(json.loads(result.stdout.decode("utf-8", "surrogateescape")).get("cbData"), cb_data)
        verify_attestation(parse_report(result.stdout), nonce)


class ShapeTest(ContextTest):
    def test_accepted_without_key(self):
        "These contexts are accepted, and the report echoes a cbData that is not empty."
        rows = [
            ("{}", None),
            (" \t\r\n{ \n} \n", None),
            ('{"cbData":"x"}', "x"),
            ('{"cbData":""}', None),
            ('{"cbData":"a","cbData":"b"}', "b"),
            ('{"tpm2":{}}', None),
            ('{"tpm2":{"ak":{}}}', None),
            ('{"tpm2":{"other":1,"ak":{"other":null}}}', None),
            ('{"other":1}', None),
            ('{"cbdata":5,"NONCE":[],"Tpm2":7,"cbData ":1}', None),
            ('{"other":[[],{},null,true,-1e5,"\\u00fc"],"cbData":"x"}', "x"),
            ('{"cbData":"x"}\0garbage', "x"),
            ('{"cbData":"cut\\ud84d\\u0000off"}', "cut"),
        ]
        for content, cb_data in rows:
            with self.subTest(content):
                self.assert_accepted(self.report(content), cb_data)

    def test_nonce_is_what_its_base64_decodes_to(self):
        "The nonce is what the base64 decodes to, with or without padding, whatever other characters are between."
        for text in ("QQ==", "QQ", "Q Q\\n==", "=Q=Q="):
            with self.subTest(text):
                self.assert_accepted(self.report('{"nonce":"%s"}' % text), nonce=b"A")
        longest = bytes(range(192, 256))
        self.assert_accepted(self.report({"nonce": base64.b64encode(longest).decode()}), nonce=longest)

    def test_accepted_with_key_or_challenge(self):
        "A pair of key areas, a challenge, or both reach the TPM's part, which finds no sense in these."
        pub, priv, challenge = '"pubTpm2B":"QQ=="', '"privTpm2B":"QQ"', '"actChall":"QUJD"'
        rows = [
            ((pub, priv), BAD_KEY),
            ((challenge,), NO_KEY),
            ((pub, priv, challenge), BAD_KEY),
            ((priv, '"x":1', pub), BAD_KEY),
        ]
        for members, record in rows:
            content = '{"tpm2":{"ak":{' + ",".join(members) + "}}}"
            with self.subTest(content):
                self.assert_failure(self.report(content), record, NO_REPORT)

    def test_document_of_another_shape_is_refused(self):
        "These documents are no context: a wrong root, a wrong type, an empty decoding, half a pair."
        rows = ["[]", "null", "true", "5", '"text"', '""', "[{}]", '{"tpm2":1}']
        for value in ("null", "5", "true", "[]", "{}"):
            rows.append('{"cbData":%s}' % value)
        for value in ("null", "5", "false", "[]", "{}", '""', '"!!!!"', '"Q"', '"===="', '"-_-_"', '" \\n"', '"ü"'):
            rows.append('{"nonce":%s}' % value)
            rows.append('{"tpm2":{"ak":{"actChall":%s}}}' % value)
            rows.append('{"tpm2":{"ak":{"pubTpm2B":%s,"privTpm2B":"QQ=="}}}' % value)
            rows.append('{"tpm2":{"ak":{"pubTpm2B":"QQ==","privTpm2B":%s}}}' % value)
        for value in ("null", "5", "false", "[]", '""', '"x"'):
            rows.append('{"tpm2":%s}' % value)
            rows.append('{"tpm2":{"ak":%s}}' % value)
        rows += [
            '{"tpm2":{"ak":{"pubTpm2B":"QQ=="}}}',
            '{"tpm2":{"ak":{"privTpm2B":"QQ=="}}}',
            '{"tpm2":{"ak":{"pubTpm2B":"QQ==","actChall":"QQ=="}}}',
            '{"tpm2":{"ak":{"pubTpm2B":null,"privTpm2B":null}}}',
            '{"tpm2":{"ak":{"pubTpm2B":null}}}',
            '{"cbData":"good","nonce":""}',
            '{"nonce":"QQ==","nonce":""}',
            '{"cbData":"good","nonce":"QQ==","tpm2":{"ak":{"pubTpm2B":"QQ==","privTpm2B":"QQ==","actChall":""}}}',
        ]
        for content in rows:
            with self.subTest(content):
                self.assert_refused(self.report(content), REFUSED)

    def test_text_that_is_not_json_is_refused(self):
        "Text that is not JSON is refused with the record on parsing."
        rows = [" ", "\n", "x", "nul", "[1,]", "{}{}", "{}x", '{"cbData":"x"} y', "\ufeff{}", "\0{}"]
        rows += ['{"a"', '{"cbData":"x"', '{"a":', '{"a":1', '{"a":1,}', '{"":1}', "{a:1}", "{'a':1}"]
        rows += ['{"cbData":"\\u0000"}', '{"cbData":"\\x"}', '{"cbData":"a\nb"}', '{"cbData":"a\0b"}']
        for content in rows:
            with self.subTest(content):
                self.assert_refused(self.report(content), NOT_JSON)

    def test_text_is_echoed_unchanged(self):
        "cbData comes back as the same text, with the shortest escapes."
        values = ['"\\/\b\f\n\r\t', "\x01\x1f\x7f", "ü日本😀", "a" * 600, "%s%n", " x ", "</script>"]
        for value in values:
            with self.subTest(value[:20]):
                result = self.report({"cbData": value})
                self.assert_accepted(result, value)
                self.assertIn(b'\n\t"cbData": ' + quoted(value).encode() + b",\n", result.stdout)
        self.assert_accepted(self.report('{"cbData":"\\uD83D\\uDE00\\/"}'), "😀/")

    def test_bytes_that_are_no_text_are_echoed(self):
        "Bytes that are no UTF-8 pass through unchanged."
        result = self.report(b'{"cbData":"\xff\xc3("}')
        self.assert_accepted(result, "\udcff\udcc3(")
        expected = {"altSerial": {}, "cbData": "\udcff\udcc3(", "serial": "0000abcd"}
        self.assertEqual(without_tpm_section(result.stdout), document_bytes(expected))


class FileTest(ContextTest):
    def test_missing_file_cannot_be_opened(self):
        "A file that is not there gives the record on opening."
        self.assert_refused(run_agent("-d", "-A", self.path), "failed to open %s")
        self.path = "/nonexistent/für/%s%n"
        result = run_agent("-d", "-A", self.path)
        self.assert_failure(result, ("ERROR", "failed to open " + self.path), NO_REPORT)

    def test_empty_file_fails_without_a_record(self):
        "An empty file fails without a record of its own."
        self.assert_failure(self.report(""), NO_REPORT)

    def test_folder_cannot_be_read(self):
        "A folder in place of the file gives the record on reading."
        os.mkdir(self.path)
        self.assert_refused(run_agent("-d", "-A", self.path), "failed reading from %s")

    def test_file_without_rights_cannot_be_opened(self):
        "A file that the user may not read gives the record on opening."
        self.require_user_switch()
        write_file(self.path, "{}")
        user = pwd.getpwnam(USER)
        rights = {"user": user.pw_uid, "group": user.pw_gid, "extra_groups": []}
        self.assert_accepted(run_agent("-d", "-A", self.path, **rights))
        os.chmod(self.path, 0)
        self.assert_refused(run_agent("-d", "-A", self.path, **rights), "failed to open %s")

    def test_context_may_come_through_a_pipe(self):
        "The context may come through a pipe."
        reader, writer = os.pipe()
        os.write(writer, b'{"cbData":"piped"}')
        os.close(writer)
        with os.fdopen(reader) as stdin:
            self.assert_accepted(run_agent("-d", "-A", "/dev/stdin", stdin=stdin), "piped")

    def test_relative_path_counts_from_the_current_folder(self):
        "A relative path counts from the current folder."
        os.mkdir("sub")
        write_file("sub/context", {"cbData": "near"})
        self.assert_accepted(run_agent("-d", "-A", "context", cwd="sub"), "near")

    def test_silent_failure_shows_only_the_fatal_record(self):
        "With -s only the FATAL record is left."
        write_file(self.path, "[]")
        result = run_agent("-s", "-d", "-A", self.path)
        self.assertEqual((result.status, result.stdout), (1, b""))
        self.assertEqual(result.stderr, b"FATAL: failed collecting device information\n")


class SizeTest(ContextTest):
    LIMIT = 100
    DEPTH = 2_000_000  # with one stack frame a level, 8 MB of stack end before a tenth of it

    def test_deeply_nested_lists_are_ignored(self):
        "Two million nested lists in an unknown member are read, ignored and released again."
        content = b'{"cbData":"x","other":' + b"[" * self.DEPTH + b"]" * self.DEPTH + b"}"
        self.assert_accepted(self.report(content, limit=self.LIMIT), "x")

    def test_deeply_nested_root_is_no_context(self):
        "Two million nested lists as the whole file are a list and no context."
        content = b"[" * self.DEPTH + b"]" * self.DEPTH
        self.assert_refused(self.report(content, limit=self.LIMIT), REFUSED)

    def test_deep_text_that_breaks_off_is_not_json(self):
        "Two million opened lists that are never closed are not JSON."
        self.assert_refused(self.report(b"[" * self.DEPTH, limit=self.LIMIT), NOT_JSON)
        self.assert_refused(self.report(b"[" * self.DEPTH + b"x", limit=self.LIMIT), NOT_JSON)

    def test_deeply_nested_objects_are_ignored(self):
        "A million nested objects are read, ignored and released again, and refused when broken off."
        depth = self.DEPTH // 2
        opened = b'{"a":' * depth
        self.assert_accepted(self.report(b'{"a":' + opened + b"1" + b"}" * depth + b"}", limit=self.LIMIT))
        self.assert_refused(self.report(opened, limit=self.LIMIT), NOT_JSON)

    def test_huge_text_is_echoed(self):
        "A cbData of 20 MB comes back whole."
        value = "0123456789" * 2_000_000
        self.assert_accepted(self.report({"cbData": value}, limit=self.LIMIT), value)

    def test_huge_nonce_is_found_too_long(self):
        "A nonce of 20 MB is decoded and then found too long, and one of 20 MB without a letter is refused."
        nonce = base64.b64encode(b"x" * 15_000_000).decode()
        too_long = ("ERROR", "qualifying data exceed maximum size (15000000 > 64)")
        self.assert_failure(self.report({"nonce": nonce}, limit=self.LIMIT), too_long, NO_REPORT)
        self.assert_refused(self.report({"nonce": "!" * 20_000_000}, limit=self.LIMIT), REFUSED)

    def test_million_unknown_members_are_ignored(self):
        "A million unknown members are ignored."
        members = ",".join(f'"m{number}":{number}' for number in range(1_000_000))
        self.assert_accepted(self.report('{"cbData":"x",' + members + "}", limit=self.LIMIT), "x")

    def test_every_beginning_of_a_context_counts_or_is_refused(self):
        "A context cut off right after its opening brace or a comma counts up to there; cut elsewhere it is refused."
        content = '{"cbData":"ü\\u00fc","nonce":"QQ==","tpm2":{"ak":{"other":[1,-2.5e3,true,null,"\\""]}}}'
        data = content.encode()
        cut_behind = lambda part: data.index(part.encode()) + len(part.encode())
        accepted = {
            1: (None, b""),
            cut_behind('\\u00fc",'): ("üü", b""),
            cut_behind('"QQ==",'): ("üü", b"A"),
            len(data): ("üü", b"A"),
        }
        for length in range(1, len(data) + 1):
            with self.subTest(length):
                result = self.report(data[:length])
                if length in accepted:
                    self.assert_accepted(result, *accepted[length])
                else:
                    self.assert_refused(result, NOT_JSON)
