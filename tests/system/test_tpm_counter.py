"""The tally counter: what makes an NV index the counter, what is refused in its place, and the cycle before each
increment with what may lie in its way."""

from harness import preload, run_agent
from tpm_harness import (
    COUNTER,
    COUNTER_ATTRIBUTES,
    COUNTER_CREATED,
    COUNTER_NAME,
    NO_INCREMENT,
    NO_REPORT,
    TEMPORARY,
    WRITTEN,
    PreparedTpmTest,
    TpmTest,
    context,
    counter,
    handles,
    nv_define,
    nv_increment,
    nv_public,
    nv_undefine,
    nv_write,
    restart_tpm,
    scratch,
    tss_failure,
)

NONCE = b"nonce"
WRONG_PASSWORD = 0x9A2
OWNER_READ = 0x00020000
NO_DICTIONARY_ATTACK = 0x02000000
PLAIN_DATA = 0x02040004  # the counter's attributes without the type of a counter

KIND = "the tally counter NV index exists but is of the wrong type, "
ATTRIBUTE_MISMATCH = ("ERROR", KIND + "attribute mismatch")
NAME_MISMATCH = ("ERROR", KIND + "name mismatch")
NO_INITIAL_VALUE = ("ERROR", "failed setting an initial value for tally counter NV index")
FOREIGN_INDEX = ("ERROR", "found different NV index at location of temporary workaround NV index, aborting")
INCREMENT_FAILED = tss_failure("failed to increment tally counter NV index", WRONG_PASSWORD)
TEMPORARY_INCREMENT_FAILED = tss_failure("failed to increment temporary workaround NV index", WRONG_PASSWORD)


class CounterTest(TpmTest):
    def assert_all_fail(self, *records):
        """Every run that needs the counter fails with these records."""
        self.assert_failed(run_agent("-d"), *records, NO_REPORT)
        self.assert_failed(self.run_with_context(context(NONCE)), *records, NO_REPORT)
        self.assert_failed(run_agent("-R"), *records, NO_INCREMENT)

    def assert_works(self, value):
        """A plain report shows this value, an increment the next."""
        self.assertEqual(self.assert_reported(run_agent("-d")).value, value)
        self.assertEqual(self.assert_reported(run_agent("-R")).value, value + 1)
        self.assertEqual(handles("nv-index"), [COUNTER])


class DefinedCounterTest(CounterTest):
    def test_index_that_is_made(self):
        "The counter is made with exactly its attributes and size and so has its one name; no other index stays."
        self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        public = nv_public(COUNTER)
        self.assertEqual((public.attributes, public.size), (COUNTER_ATTRIBUTES | WRITTEN, 8))
        self.assertEqual(public.name, COUNTER_NAME)
        self.assertEqual(handles("nv-index"), [COUNTER])

    def test_value_over_a_restart(self):
        "The value stays over a restart of the TPM."
        self.assert_reported(run_agent("-R"), COUNTER_CREATED)
        restart_tpm()
        self.assert_works(3)

    def test_counter_that_was_never_written(self):
        "A counter that is defined but never written gets its first value from an increment, without the INFO record."
        nv_define(COUNTER)
        self.assert_works(2)

    def test_counter_that_others_made(self):
        "A written counter of the right kind is taken as it is."
        nv_define(COUNTER)
        nv_increment(COUNTER)
        nv_increment(COUNTER)
        self.assert_works(counter())

    def test_attested_report_gives_the_first_value(self):
        "An attested report initialises an unwritten counter too."
        nv_define(COUNTER)
        report = self.assert_reported(self.run_with_context(context(NONCE)))
        self.assertEqual(report.value, 2)

    def test_removed_counter(self):
        "A counter that somebody removed is made again and goes on above its last value."
        last = self.assert_reported(run_agent("-R"), COUNTER_CREATED).value
        nv_undefine(COUNTER)
        report = self.assert_reported(run_agent("-d"), COUNTER_CREATED)
        self.assertGreater(report.value, last)

    def test_values_above_the_exact_doubles(self):
        "A value is printed as the nearest double, so that one above 2 to the 53rd loses its low digits."
        run_agent("-d")
        rows = [
            (0, "0"),
            (9007199254740991, "9007199254740991"),
            (9007199254740992, "9007199254740992"),
            (9007199254740993, "9007199254740992"),
            (9007199254740995, "9007199254740996"),
            (18446744073709551615, "1.844674407370955e+19"),
        ]
        for value, printed in rows:
            for members in (None, context(NONCE)):
                with self.subTest(value, attested=members is not None):
                    environment = preload(TEST_NV_VALUE=str(value))
                    if members is None:
                        result = run_agent("-d", env=environment)
                    else:
                        result = self.run_with_context(members, env=environment)
                    self.assert_success(result)
                    self.assertIn(f'\n\t\t\t"val": {printed}\n\t\t}}\n\t}}\n}}\n'.encode(), result.stdout)


class WrongCounterTest(CounterTest):
    """WrongCounterTest has another index where the counter belongs. It is refused, and left alone."""

    def assert_refused_untouched(self, *records):
        before = nv_public(COUNTER)
        self.assert_all_fail(*records)
        self.assertEqual(nv_public(COUNTER), before)
        self.assertEqual(handles("nv-index"), [COUNTER])

    def test_other_attributes(self):
        "One attribute more or less is enough, whatever the size; written or not."
        rows = [
            (COUNTER_ATTRIBUTES | OWNER_READ, 8),
            (COUNTER_ATTRIBUTES & ~NO_DICTIONARY_ATTACK, 8),
            (COUNTER_ATTRIBUTES | 0x00001000, 8),
            (PLAIN_DATA, 8),
            (PLAIN_DATA, 16),
            (PLAIN_DATA, 0),
            (0x02040024, 8),
        ]
        for attributes, size in rows:
            with self.subTest(hex(attributes), size=size):
                nv_define(COUNTER, attributes, size)
                self.assert_refused_untouched(ATTRIBUTE_MISMATCH)
                if attributes & 0xF0 == 0x10:
                    nv_increment(COUNTER)
                elif attributes & 0xF0 == 0 and size:
                    nv_write(COUNTER, bytes(size))
                self.assert_refused_untouched(ATTRIBUTE_MISMATCH)
                nv_undefine(COUNTER)

    def test_increment_leaves_a_wrong_counter_alone(self):
        "The value of a counter with an extra attribute stays."
        nv_define(COUNTER, COUNTER_ATTRIBUTES | OWNER_READ)
        nv_increment(COUNTER)
        value = counter()
        self.assert_failed(run_agent("-R"), ATTRIBUTE_MISMATCH, NO_INCREMENT)
        self.assertEqual(counter(), value)

    def test_counter_with_a_policy_is_refused(self):
        "A counter with a policy has another name: refused, but an unwritten one gets its first value before that."
        with scratch() as path:
            nv_define(COUNTER, COUNTER_ATTRIBUTES, 8, "-L", path("policy", bytes(31) + b"p"))
        self.assert_failed(run_agent("-d"), NAME_MISMATCH, NO_REPORT)
        value = counter()
        self.assertEqual(value, 2)
        self.assert_refused_untouched(NAME_MISMATCH)
        self.assertEqual(counter(), value)

    def test_name_algorithm_makes_another_counter(self):
        "A counter with another name algorithm is refused by its name."
        nv_define(COUNTER, COUNTER_ATTRIBUTES, 8, "-g", "sha384")
        nv_increment(COUNTER)
        self.assert_refused_untouched(NAME_MISMATCH)

    def test_password_on_an_unwritten_counter(self):
        "A counter with a password cannot be given its first value."
        nv_define(COUNTER, COUNTER_ATTRIBUTES, 8, "-p", "password")
        self.assert_refused_untouched(INCREMENT_FAILED, NO_INITIAL_VALUE)

    def test_password_on_a_written_counter(self):
        "A password is not part of the name: the counter passes for the right one, but is neither read nor incremented."
        nv_define(COUNTER, COUNTER_ATTRIBUTES, 8, "-p", "password")
        nv_increment(COUNTER, "password")
        self.assertEqual(nv_public(COUNTER).name, COUNTER_NAME)
        read_failed = tss_failure("failed to read tally counter NV index", WRONG_PASSWORD)
        attempt = "failed to read tally counter NV index in audit session after 1 tries"
        self.assert_failed(run_agent("-d"), read_failed, NO_REPORT)
        self.assert_failed(self.run_with_context(context(NONCE)), tss_failure(attempt, WRONG_PASSWORD), NO_REPORT)
        self.assert_failed(run_agent("-R"), INCREMENT_FAILED, NO_INCREMENT)
        self.assertEqual(counter(password="password"), 1)

    def test_after_its_removal(self):
        "When somebody removes the wrong index the next run makes the counter."
        nv_define(COUNTER, PLAIN_DATA)
        self.assert_refused_untouched(ATTRIBUTE_MISMATCH)
        nv_undefine(COUNTER)
        self.assert_reported(run_agent("-d"), COUNTER_CREATED)


class LeftOverTest(PreparedTpmTest, CounterTest):
    """LeftOverTest has an index where each increment makes and removes its temporary one."""

    def setUp(self):
        super().setUp()
        self.value = counter()

    def assert_mended(self):
        """The next increment works as ever and removes the left-over."""
        self.assertEqual(self.assert_reported(run_agent("-R")).value, self.value + 1)
        self.assertEqual(handles("nv-index"), [COUNTER])
        self.assert_nothing_loaded()
        self.assert_works(self.value + 1)

    def assert_blocked(self, *records):
        """No increment works until somebody removes the index, which is left alone; plain reports do."""
        before = nv_public(TEMPORARY)
        for _ in range(2):
            self.assert_failed(run_agent("-R"), *records, NO_INCREMENT)
            self.assertEqual(nv_public(TEMPORARY), before)
        self.assertEqual(self.assert_reported(run_agent("-d")).value, self.value)
        self.assertEqual(self.assert_reported(self.run_with_context(context(NONCE))).value, self.value)
        self.assert_nothing_loaded()
        nv_undefine(TEMPORARY)
        self.assert_works(self.value)

    def test_unwritten_left_over_is_taken_over(self):
        "A left-over of an interrupted cycle that was never written is taken over."
        nv_define(TEMPORARY)
        self.assert_mended()

    def test_written_left_over_is_removed(self):
        "A left-over that was written is removed, and the cycle starts afresh."
        nv_define(TEMPORARY)
        nv_increment(TEMPORARY)
        self.assert_mended()

    def test_written_left_over_with_password_is_removed(self):
        "A written left-over with a password is removed as well: that takes the owner, not its password."
        nv_define(TEMPORARY, COUNTER_ATTRIBUTES, 8, "-p", "password")
        nv_increment(TEMPORARY, "password")
        self.assert_mended()

    def test_left_over_with_a_policy_passes(self):
        "A left-over that differs by a policy alone passes for the agent's own."
        with scratch() as path:
            nv_define(TEMPORARY, COUNTER_ATTRIBUTES, 8, "-L", path("policy", bytes(32)))
        self.assert_mended()

    def test_unwritten_left_over_with_password_blocks_the_increment(self):
        "An unwritten index with a password cannot be taken over, and blocks every increment."
        nv_define(TEMPORARY, COUNTER_ATTRIBUTES, 8, "-p", "password")
        self.assert_blocked(TEMPORARY_INCREMENT_FAILED)

    def test_other_attributes(self):
        "An index with other attributes is not the agent's, written or not."
        for attributes in (COUNTER_ATTRIBUTES | OWNER_READ, COUNTER_ATTRIBUTES & ~NO_DICTIONARY_ATTACK):
            for is_written in (False, True):
                with self.subTest(hex(attributes), is_written=is_written):
                    nv_define(TEMPORARY, attributes)
                    if is_written:
                        nv_increment(TEMPORARY)
                    self.assert_blocked(FOREIGN_INDEX)
                    self.value += 1

    def test_no_counter_at_all(self):
        "An index of data, of the same or another size, is not the agent's."
        for size in (8, 16, 0):
            with self.subTest(size):
                nv_define(TEMPORARY, PLAIN_DATA, size)
                self.assert_blocked(FOREIGN_INDEX)
                self.value += 1


class FreshLeftOverTest(CounterTest):
    def test_foreign_index_before_the_first_value(self):
        "A foreign index stops the first increment too: the counter stays unwritten until it is gone."
        nv_define(TEMPORARY, PLAIN_DATA)
        self.assert_failed(run_agent("-d"), COUNTER_CREATED, FOREIGN_INDEX, NO_INITIAL_VALUE, NO_REPORT)
        self.assertEqual(nv_public(COUNTER).attributes, COUNTER_ATTRIBUTES)
        self.assert_all_fail(FOREIGN_INDEX, NO_INITIAL_VALUE)
        self.assertEqual(nv_public(COUNTER).attributes, COUNTER_ATTRIBUTES)
        nv_undefine(TEMPORARY)
        self.assert_works(2)

    def test_left_over_before_the_first_value(self):
        "A left-over of the agent's own is mended before the first value as well."
        for is_written in (False, True):
            with self.subTest(is_written=is_written):
                nv_define(TEMPORARY)
                if is_written:
                    nv_increment(TEMPORARY)
                self.assert_reported(run_agent("-R"), COUNTER_CREATED)
                self.assertEqual(handles("nv-index"), [COUNTER])
                nv_undefine(COUNTER)
