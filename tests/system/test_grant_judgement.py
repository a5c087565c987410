"""The device judges keys and grants as the maker's own tool does: the table that both share."""

import os
import sys

from harness import ETC, SandboxTest, check_features_document, feature_names, run_agent, write_file

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))

from grant_cases import FEATURE, cases  # noqa: E402, found through the line above

GRANT, KEY = "/var/lib/orvanta/features.jws", ETC + "/features.pem"


class CommonCasesTest(SandboxTest):
    def test_device_judges_as_told(self):
        "A good grant's feature is listed without a record; a bad one counts as empty, with one ERROR."
        judged = 0
        for case in cases():
            with self.subTest(case.name):
                write_file(KEY, case.public)
                write_file(GRANT, case.grant)
                result = run_agent()
                self.assert_success(result)
                names = feature_names(check_features_document(result.stdout))
                levels = [record.level for record in result.records]
                self.assertEqual((names, levels), ([FEATURE], []) if case.good else ([], ["ERROR"]), str(result))
                judged += 1
        self.assertGreater(judged, 70)
