"""The endorsement key: found or made, what else is in its place, a maker's own template, passwords, and a full TPM."""

from harness import run_agent
from tpm_harness import (
    COUNTER_CREATED,
    EK_HANDLE,
    EK_NONCE,
    EK_POLICY,
    EK_TEMPLATE,
    NO_INCREMENT,
    NO_REPORT,
    NO_SESSION,
    PreparedTpmTest,
    TpmTest,
    context,
    counter,
    default_ek,
    evict_ek,
    flush_all,
    handles,
    make_challenge,
    name_of,
    nv_define,
    nv_undefine,
    nv_write,
    persist_ek_with_unique,
    persist_primary,
    persist_sealed_object,
    persistent_public,
    restart_tpm,
    scratch,
    tool,
    tss_failure,
    verify_attestation,
)

NONCE = b"nonce"
SECRET = b"secret"
WRONG_PASSWORD = 0x9A2
NO_ROOM = 0x902
PLAIN_DATA = 0x00040004  # attributes of an ordinary NV index: read and written with its own authorisation

SAVE_FAILED = "failed to save endorsement key to persistent handle"
CREATION_FAILED = "failed to create endorsement key"
SESSION_FAILED = "failed to create TPM2 session"
POLICY_FAILED = "failed to set secret on policy session for endorsement hierarchy"
AK_CREATION_FAILED = "failed to create attestation key in endorsement hierarchy"


class KeyTest(TpmTest):
    def attest(self, first, *records, parent=None):
        """A report with the AK of an earlier one, a challenge and a nonce, verified; `parent` is the key below which
        the AK lies, if not the EK in the report."""
        challenge = make_challenge(parent or first.ek, first.ak_public, SECRET)
        result = self.run_with_context(context(NONCE, first.key, challenge))
        report = self.assert_reported(result, *records)
        self.assertEqual((report.ek, report.key, report.answer), (first.ek, first.key, SECRET))
        verify_attestation(report, NONCE, parent and name_of(parent))


class SavedKeyTest(KeyTest):
    def test_made_once(self):
        "The first run makes the EK and saves it; later runs find it, also after a restart, and make none."
        report = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        self.assertEqual(handles("persistent"), [EK_HANDLE])
        self.assertEqual(persistent_public(), report.ek)
        restart_tpm()
        for _ in range(2):
            self.assertEqual(self.assert_reported(run_agent("-d")).ek, report.ek)
            self.assert_nothing_loaded()
        self.attest(report)

    def test_made_again_when_it_is_gone(self):
        "An EK that somebody removed is made again, the same one, and earlier attestation keys are good with it."
        first = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        evict_ek()
        flush_all()
        self.assertEqual(self.assert_reported(run_agent("-d")).ek, first.ek)
        self.assertEqual(handles("persistent"), [EK_HANDLE])
        self.attest(first)

    def test_key_that_was_saved_by_others(self):
        "An EK that another program made of the default template is used as it is."
        public = default_ek()
        with scratch() as path:
            tool("createek", "-Q", "-G", "ecc", "-c", hex(EK_HANDLE), "-u", path("public"))
        flush_all()
        report = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        self.assertEqual(report.ek, public)
        self.assert_nothing_loaded()

    def test_key_with_another_unique_field(self):
        "An EK that is equal to the template in all but its unique field is used, and is the EK of the report."
        persist_ek_with_unique(bytes(range(32)))
        public = persistent_public()
        self.assertNotEqual(public, default_ek())
        report = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        self.assertEqual(report.ek, public)
        self.assert_nothing_loaded()
        self.attest(report)

    def test_after_a_clear(self):
        "After the TPM was cleared the EK is the same; the counter is made again and goes on above its last value."
        first = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        last = self.assert_reported(run_agent("-R"))
        tool("clear", "-c", "p")
        self.assertEqual((handles("persistent"), handles("nv-index")), ([], []))
        report = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        self.assertEqual(report.ek, first.ek)
        self.assertGreater(report.value, last.value)
        self.assertEqual(handles("persistent"), [EK_HANDLE])


class OccupiedSlotTest(KeyTest):
    """OccupiedSlotTest has something else where the EK belongs. It is neither removed nor replaced."""

    def setUp(self):
        super().setUp()
        self.ek = default_ek()

    def tearDown(self):
        self.assertEqual(handles("persistent"), [EK_HANDLE])
        self.assertEqual(persistent_public(), self.occupant)
        self.assert_nothing_loaded()

    def occupy(self, how, *arguments, **keywords):
        how(*arguments, **keywords)
        self.occupant = persistent_public()

    def assert_no_session_with_it(self, code):
        record = tss_failure(SESSION_FAILED, code)
        self.assert_failed(run_agent("-d"), record, NO_REPORT)
        self.assert_failed(run_agent("-R"), record, NO_INCREMENT)
        self.assert_failed(self.run_with_context(context(NONCE)), record, NO_REPORT)
        self.assertEqual(handles("nv-index"), [])

    def test_rsa_endorsement_key(self):
        "An RSA EK stays and does the work, while the report shows the EK of the default template."
        with scratch() as path:
            self.occupy(tool, "createek", "-Q", "-G", "rsa", "-c", hex(EK_HANDLE), "-u", path("public"))
        flush_all()
        report = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        self.assertEqual(report.ek, self.ek)
        self.assert_nothing_loaded()
        self.attest(report, parent=self.occupant)
        self.assertEqual(self.assert_reported(run_agent("-R")).value, report.value + 1)

    def test_storage_key_of_the_owner(self):
        "A storage key with other authorisation serves the session and so the counter, but no attestation key."
        self.occupy(persist_primary, "-G", "ecc", hierarchy="o")
        no_key = tss_failure(AK_CREATION_FAILED, 0x99D)
        self.assert_failed(run_agent("-d"), COUNTER_CREATED, no_key, NO_REPORT)
        self.assertEqual(counter(), 2)
        self.assert_failed(run_agent("-R"), no_key, NO_REPORT)
        self.assertEqual(counter(), 3)
        self.assert_failed(self.run_with_context(context(NONCE)), no_key, NO_REPORT)

    def test_signing_key(self):
        "With an ECC signing key there is no session."
        attributes = "fixedtpm|fixedparent|sensitivedataorigin|userwithauth|sign"
        self.occupy(persist_primary, "-G", "ecc:ecdsa-sha256", "-a", attributes)
        self.assert_no_session_with_it(0x182)

    def test_sealed_object(self):
        "With an object that is not a key there is no session."
        self.occupy(persist_sealed_object)
        self.assert_no_session_with_it(0x70001)

    def test_key_that_differs_in_one_attribute(self):
        "A key that has the template but for one attribute does not match: the report's EK is not the occupant."
        with scratch() as path:
            template = ["-G", "ecc:aes128cfb", "-g", "sha256", "-L", path("policy", EK_POLICY)]
            self.occupy(persist_primary, *template, "-a", hex(0x000300F2))
        report = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        self.assertEqual(report.ek, self.ek)
        self.assertNotEqual(self.occupant, self.ek)
        self.assert_nothing_loaded()
        self.attest(report, parent=self.occupant)


class MakersTemplateTest(PreparedTpmTest):
    """MakersTemplateTest has the NV indices through which a TPM's maker gives the EK another template or nonce."""

    READ_FAILED = [
        tss_failure(
            "failed to restore session attributes after reading tally counter NV index public info", 0x7000B, "WARN"
        ),
        tss_failure("failed reading public info from NV-index", 0x7000B),
        ("ERROR", "failed reading EK non-default template from NV-index"),
        NO_SESSION,
    ]
    NONCE_ALONE = [
        ("ERROR", "EK found non-default nonce but no non-default template, which is fobidden by spec"),
        NO_SESSION,
    ]

    def assert_not_opened(self, records):
        value = counter()
        self.assert_failed(run_agent("-d"), *records, NO_REPORT)
        self.assert_failed(self.run_with_context(context(NONCE)), *records, NO_REPORT)
        self.assert_failed(run_agent("-R"), *records, NO_INCREMENT)
        self.assert_nothing_loaded()
        self.assertEqual(counter(), value)

    def define(self, index, data):
        nv_define(index, PLAIN_DATA, len(data))
        nv_write(index, data)

    def test_foreign_template_fails_the_opening(self):
        "A template of the maker's cannot be read before there is a session, so the TPM is not opened."
        self.define(EK_TEMPLATE, default_ek())
        self.assert_not_opened(self.READ_FAILED)

    def test_template_that_was_never_written(self):
        "The same goes for an index without content."
        nv_define(EK_TEMPLATE, PLAIN_DATA, 124)
        self.assert_not_opened(self.READ_FAILED)

    def test_template_and_nonce(self):
        "With both indices the template is read first, with the same outcome."
        self.define(EK_TEMPLATE, default_ek())
        self.define(EK_NONCE, bytes(32))
        self.assert_not_opened(self.READ_FAILED)

    def test_nonce_alone(self):
        "A nonce without a template is against the profile, though a default template exists."
        self.define(EK_NONCE, bytes(32))
        self.assert_not_opened(self.NONCE_ALONE)

    def test_after_their_removal(self):
        "Without the indices all is as before."
        self.define(EK_TEMPLATE, default_ek())
        run_agent("-d")
        nv_undefine(EK_TEMPLATE)
        self.assert_reported(run_agent("-d"))
        self.assert_nothing_loaded()

    def test_endorsement_key_is_not_made(self):
        "On a TPM without an EK none is made either."
        evict_ek()
        self.define(EK_NONCE, bytes(32))
        self.assert_not_opened(self.NONCE_ALONE)
        self.assertEqual(handles("persistent"), [])


class PasswordTest(KeyTest):
    def test_owner_password_with_a_known_counter(self):
        "With an owner password the EK is not saved, which is a warning; there is a report and nothing stays loaded."
        first = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        evict_ek()
        flush_all()
        tool("changeauth", "-c", "o", "password")
        warning = tss_failure(SAVE_FAILED, WRONG_PASSWORD, "WARN")
        report = self.assert_reported(run_agent("-d"), warning)
        self.assertEqual((report.ek, report.value), (first.ek, first.value))
        self.assertEqual(handles("persistent"), [])
        self.assert_nothing_loaded()
        self.attest(first, warning)
        self.assert_nothing_loaded()

    def test_owner_password_and_increment(self):
        "With an owner password the counter is not incremented, as its cycle needs the owner."
        value = self.assert_reported(run_agent("-d"), COUNTER_CREATED).value
        tool("changeauth", "-c", "o", "password")
        failure = tss_failure("failed to define temporary workaround NV index", WRONG_PASSWORD)
        self.assert_failed(run_agent("-R"), failure, NO_INCREMENT)
        self.assertEqual(self.assert_reported(run_agent("-d")).value, value)
        tool("changeauth", "-c", "o", "-p", "password")
        self.assertEqual(self.assert_reported(run_agent("-R")).value, value + 1)

    def test_owner_password_on_a_fresh_tpm(self):
        "With an owner password from the start no counter can be made."
        tool("changeauth", "-c", "o", "password")
        warning = tss_failure(SAVE_FAILED, WRONG_PASSWORD, "WARN")
        failure = tss_failure("failed defining tally counter NV index", WRONG_PASSWORD)
        for option, last in (("-d", NO_REPORT), ("-R", NO_INCREMENT)):
            self.assert_failed(run_agent(option), warning, COUNTER_CREATED, failure, last)
            self.assert_nothing_loaded()
        self.assertEqual((handles("persistent"), handles("nv-index")), ([], []))

    def test_endorsement_password_on_a_fresh_tpm(self):
        "With an endorsement password no EK can be made."
        tool("changeauth", "-c", "e", "password")
        records = [tss_failure(CREATION_FAILED, WRONG_PASSWORD), NO_SESSION]
        self.assert_failed(run_agent("-d"), *records, NO_REPORT)
        self.assert_failed(run_agent("-R"), *records, NO_INCREMENT)
        self.assert_nothing_loaded()

    def test_endorsement_password_later(self):
        "With a saved EK the password bars its use as a parent, so that there is no attestation key."
        first = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        flush_all()
        tool("changeauth", "-c", "e", "password")
        record = tss_failure(POLICY_FAILED, WRONG_PASSWORD)
        self.assert_failed(run_agent("-d"), record, NO_REPORT)
        self.assert_failed(self.run_with_context(context(NONCE, first.key)), record, NO_REPORT)
        self.assert_failed(run_agent("-R"), record, NO_REPORT)
        self.assertEqual(counter(), first.value + 1)
        self.assert_nothing_loaded()


class FullTpmTest(KeyTest):
    def fill(self, count):
        """Loads keys of others, forever."""
        with scratch() as path:
            tool("createprimary", "-Q", "-C", "n", "-c", path("first"))
            for _ in range(count - 1):
                tool("createprimary", "-Q", "-C", "n", "-c", path("more"))
        self.assertEqual(len(handles("transient")), count)

    def test_no_room_for_an_endorsement_key(self):
        "Where other programs' objects fill the TPM no EK is made, and none of theirs is removed."
        self.fill(3)
        records = [tss_failure(CREATION_FAILED, NO_ROOM), NO_SESSION]
        self.assert_failed(run_agent("-d"), *records, NO_REPORT)
        self.assert_failed(run_agent("-R"), *records, NO_INCREMENT)
        self.assertEqual((len(handles("transient")), handles("persistent"), handles("nv-index")), (3, [], []))
        flush_all()
        self.assert_reported(run_agent("-d"), COUNTER_CREATED)

    def test_no_room_for_a_saved_endorsement_key(self):
        "A saved EK needs room too when it is looked at; with room again all is as before."
        value = self.assert_reported(run_agent("-d"), COUNTER_CREATED).value
        flush_all()
        self.fill(3)
        records = [
            tss_failure("failed loading TPM object with handle 0x8101000ax", NO_ROOM),
            ("WARN", "failed checking for existence of persisten endorsement key"),
            tss_failure(CREATION_FAILED, NO_ROOM),
            NO_SESSION,
        ]
        self.assert_failed(run_agent("-d"), *records, NO_REPORT)
        self.assert_failed(run_agent("-R"), *records, NO_INCREMENT)
        self.assertEqual(len(handles("transient")), 3)
        flush_all()
        self.assertEqual(self.assert_reported(run_agent("-R")).value, value + 1)
        self.assert_nothing_loaded()

    def test_little_room(self):
        "One free place is enough to increment, but not to make an attestation key; two are enough for everything."
        first = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        flush_all()
        self.fill(2)
        no_key = tss_failure(AK_CREATION_FAILED, NO_ROOM)
        self.assert_failed(run_agent("-d"), no_key, NO_REPORT)
        self.assert_failed(run_agent("-R"), no_key, NO_REPORT)
        self.assertEqual((counter(), len(handles("transient"))), (first.value + 1, 2))
        flush_all()
        self.fill(1)
        self.assert_reported(run_agent("-d"))
        self.assert_reported(run_agent("-R"))
        self.attest(first)
        self.assertEqual(len(handles("transient")), 1)
