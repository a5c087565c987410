"""What the agent asks of the TPM, command by command, and what follows when the TPM refuses one of them.

A `Step` is one TPM command in a run, a `Mode` a kind of run with its steps in their order. The tests take both as the
truth: the order is compared with the injector's log, the records with those of a run in which just this command was
answered with an error.
"""

from dataclasses import dataclass, replace

from fault_harness import (
    ACTIVATE_CREDENTIAL,
    CREATE,
    CREATE_PRIMARY,
    EVICT_CONTROL,
    FLUSH_CONTEXT,
    GET_CAPABILITY,
    GET_SESSION_AUDIT_DIGEST,
    LOAD,
    NV_DEFINE_SPACE,
    NV_INCREMENT,
    NV_READ,
    NV_READ_PUBLIC,
    NV_UNDEFINE_SPACE,
    POLICY_SECRET,
    RC_NV_DEFINED,
    READ_PUBLIC,
    START_AUTH_SESSION,
    failed,
)
from tpm_harness import (
    COUNTER,
    COUNTER_CREATED,
    EK_HANDLE,
    EK_NONCE,
    EK_TEMPLATE,
    NO_INCREMENT,
    NO_REPORT,
    NO_SESSION,
    TEMPORARY,
)

NO_INITIAL_VALUE = ("ERROR", "failed setting an initial value for tally counter NV index")
SLOT_TAKEN = ("WARN", failed("failed to save endorsement key to persistent handle", RC_NV_DEFINED))


@dataclass(frozen=True)
class Step:
    """Step is one TPM command.

    `records` are pairs of level and text; a text that ends in ": %s" goes on with the response code. With
    `goes_on` the run goes on, else it ends with them. `left` is what a failure here leaves in the TPM, beyond what the
    run leaves anyway: transient objects and sessions.
    """

    what: str
    code: int
    operand: int | None = None
    records: tuple = ()
    goes_on: bool = False
    left: tuple = (0, 0)

    def and_then(self, *records):
        return replace(self, records=self.records + records)


@dataclass(frozen=True)
class Mode:
    """Mode is a kind of run. First come the steps of -R, if it is one, then those of the report.

    `fresh`: on a TPM as new. `context`: with a context file, "with key" and challenge in it or "without key".
    `left_over`: with the temporary index of an interrupted cycle in the TPM, "written" or "unwritten".
    """

    option: str
    report: list
    increment: list = ()
    fresh: bool = False
    context: str | None = None
    left_over: str | None = None

    @property
    def steps(self):
        return [*self.increment, *self.report]

    def expected_records(self, failing=None, rc=0):
        """The records of a run in which the step with this index (from 0) is refused with `rc`, or of one without."""
        steps = self.steps
        creation = next((n for n, step in enumerate(steps) if step.what == "define counter"), len(steps))
        created = [COUNTER_CREATED] if creation < len(steps) else []
        if failing is None:
            return created
        step = steps[failing]
        records = [(level, failed(text[:-4], rc) if text.endswith(": %s") else text) for level, text in step.records]
        if step.goes_on:
            return created + records if failing > creation else records + created
        fatal = NO_INCREMENT if failing < len(self.increment) else NO_REPORT
        return (created if failing >= creation else []) + records + [fatal]

    def left(self, failing=None):
        """How many transient objects and sessions are left: on the run that saved the EK, the copy that it has made."""
        saved = next((n for n, step in enumerate(self.steps) if step.what == "save EK"), None)
        if failing is None:
            return (int(saved is not None), 0)
        step = self.steps[failing]
        kept = saved is not None and (failing > saved or step.goes_on)
        return (int(kept) + step.left[0], step.left[1])


def error(text):
    return ("ERROR", text + ": %s")


def warning(text):
    return ("WARN", text + ": %s")


def look_for(what, handle, *records, **keywords):
    check = error(f"failed to check existence of TPM object with handle 0x{handle:x}")
    return Step(f"look for {what}", GET_CAPABILITY, handle, (check, *records), **keywords)


def flush(what, left):
    """A failed flush is reported on standard error only; the run does not fail."""
    return Step(f"flush {what}", FLUSH_CONTEXT, goes_on=True, left=left)


# --- opening ----------------------------------------------------------------------------------------------------------

EK_INDICES = [
    look_for(what, index, ("ERROR", "failed checking for non-default EK nonce or template"), NO_SESSION)
    for what, index in [("EK template", EK_TEMPLATE), ("EK nonce", EK_NONCE)]
]
LOOK_FOR_EK = look_for(
    "EK", EK_HANDLE, ("WARN", "failed checking for existence of persisten endorsement key"), goes_on=True
)
LOAD_EK = Step(
    "load EK",
    READ_PUBLIC,
    None,
    (
        error(f"failed loading TPM object with handle 0x{EK_HANDLE:x}x"),
        ("WARN", "failed checking for existence of persisten endorsement key"),
    ),
    goes_on=True,
)
START_SESSION = Step("start session", START_AUTH_SESSION, None, (error("failed to create TPM2 session"),))

OPEN_FRESH = [
    *EK_INDICES,
    LOOK_FOR_EK,
    Step("create EK", CREATE_PRIMARY, None, (error("failed to create endorsement key"), NO_SESSION)),
    # The copy of the EK that stays loaded after it was saved does not stay then: it is the one in use, and flushed.
    Step(
        "save EK",
        EVICT_CONTROL,
        None,
        (warning("failed to save endorsement key to persistent handle"),),
        goes_on=True,
        left=(-1, 0),
    ),
    START_SESSION,
]

# Without a sight of the EK that is there a new one is made, and can't be saved as the slot is taken.
OPEN_LATER = [
    *EK_INDICES,
    LOOK_FOR_EK.and_then(SLOT_TAKEN),
    LOAD_EK.and_then(SLOT_TAKEN),
    Step(
        "read EK",
        READ_PUBLIC,
        None,
        (warning("failed reading public area of persistent endorsement key"),),
        goes_on=True,
    ),
    START_SESSION,
]

# --- counter ----------------------------------------------------------------------------------------------------------

NO_COUNTER = ("ERROR", f"failed loading tally counter NV index with handle 0x{COUNTER:x}")
LOOK_FOR_COUNTER = look_for("counter", COUNTER, NO_COUNTER)
CHECK_COUNTER = Step(
    "check counter",
    NV_READ_PUBLIC,
    COUNTER,
    (error("failed loading tally counter NV index public info"),),
)


def temporary_step(verb, code):
    return Step(
        f"{verb} temporary index",
        code,
        TEMPORARY,
        (error(f"failed to {verb} temporary workaround NV index"),),
    )


LOOK_FOR_TEMPORARY = look_for(
    "temporary index", TEMPORARY, ("ERROR", "failed to check existence of temporary NV index for workaround")
)
LOAD_TEMPORARY = Step(
    "load temporary index",
    NV_READ_PUBLIC,
    TEMPORARY,
    (
        error(f"failed loading TPM object with handle 0x{TEMPORARY:x}x"),
        ("ERROR", "failed to check existence of temporary NV index for workaround"),
    ),
)
READ_LEFT_OVER = Step(
    "read left-over",
    NV_READ_PUBLIC,
    TEMPORARY,
    (error("failed to read left-over temporary workaround NV index info"),),
)
DELETE_LEFT_OVER = Step(
    "delete left-over",
    NV_UNDEFINE_SPACE,
    TEMPORARY,
    (error("failed to delete left-over temporary workaround NV index"),),
)
DEFINE_TEMPORARY = temporary_step("define", NV_DEFINE_SPACE)
INCREMENT_TEMPORARY = temporary_step("increment", NV_INCREMENT)
DELETE_TEMPORARY = temporary_step("delete", NV_UNDEFINE_SPACE)
INCREMENT_COUNTER = Step(
    "increment counter", NV_INCREMENT, COUNTER, (error("failed to increment tally counter NV index"),)
)
INCREMENT = [LOOK_FOR_TEMPORARY, DEFINE_TEMPORARY, INCREMENT_TEMPORARY, DELETE_TEMPORARY, INCREMENT_COUNTER]
INCREMENT_OVER_UNWRITTEN = [
    LOOK_FOR_TEMPORARY,
    LOAD_TEMPORARY,
    READ_LEFT_OVER,
    INCREMENT_TEMPORARY,
    DELETE_TEMPORARY,
    INCREMENT_COUNTER,
]
INCREMENT_OVER_WRITTEN = [
    LOOK_FOR_TEMPORARY,
    LOAD_TEMPORARY,
    READ_LEFT_OVER,
    DELETE_LEFT_OVER,
    DEFINE_TEMPORARY,
    INCREMENT_TEMPORARY,
    DELETE_TEMPORARY,
    INCREMENT_COUNTER,
]

COUNTER_LATER = [
    LOOK_FOR_COUNTER,
    Step(
        "load counter",
        NV_READ_PUBLIC,
        COUNTER,
        (error(f"failed loading TPM object with handle 0x{COUNTER:x}x"), NO_COUNTER),
    ),
    CHECK_COUNTER,
]


COUNTER_FRESH = [
    LOOK_FOR_COUNTER,
    Step("define counter", NV_DEFINE_SPACE, COUNTER, (error("failed defining tally counter NV index"),)),
    CHECK_COUNTER,
    *(step.and_then(NO_INITIAL_VALUE) for step in INCREMENT),
]

READ_COUNTER = Step("read counter", NV_READ, COUNTER, (error("failed to read tally counter NV index"),))

# --- attestation key, certification -----------------------------------------------------------------------------------


def with_policy(*steps):
    """Steps that use the EK, in a policy session of their own."""
    refused = "policy session for endorsement hierarchy"
    return [
        Step(
            "start policy session",
            START_AUTH_SESSION,
            None,
            (error("failed to create TPM2 session for endorsement hierarchy"),),
        ),
        Step("satisfy policy", POLICY_SECRET, None, (error(f"failed to set secret on {refused}"),)),
        *steps,
        flush("policy session", left=(0, 1)),
    ]


CREATE_AK = with_policy(
    Step("create AK", CREATE, None, (error("failed to create attestation key in endorsement hierarchy"),))
)
LOAD_AK = with_policy(Step("load AK", LOAD, None, (error("failed to load attestation key in endorsement hierarchy"),)))
ACTIVATE = Step("activate AK", ACTIVATE_CREDENTIAL, None, (error("failed to activate attestation key"),))


AUDITED_READ = Step(
    "read counter in audit session",
    NV_READ,
    COUNTER,
    (error("failed to read tally counter NV index in audit session after 1 tries"),),
)
AUDIT_DIGEST = Step(
    "get audit digest",
    GET_SESSION_AUDIT_DIGEST,
    None,
    (error("failed to get audit session digest to certify read tally counter NV index after 1 tries"),),
)

FLUSH_AK = flush("AK", left=(1, 0))
FLUSH_SESSION = flush("session", left=(0, 1))

# A TPM is busy with its own the first time an AK is used after its start, and asks to repeat the command.
ANSWER_CHALLENGE = [*LOAD_AK, *with_policy(ACTIVATE, ACTIVATE)]
CERTIFY = [AUDITED_READ, AUDIT_DIGEST, FLUSH_AK, FLUSH_SESSION]
CERTIFY_WITH_NEW_AK = [*CREATE_AK, *LOAD_AK, AUDITED_READ, AUDIT_DIGEST, AUDIT_DIGEST, FLUSH_AK, FLUSH_SESSION]
REPORT = [READ_COUNTER, *CREATE_AK, FLUSH_SESSION]

# --- modes ------------------------------------------------------------------------------------------------------------

LATER_REPORT = Mode("-d", [*OPEN_LATER, *COUNTER_LATER, *REPORT])
LATER_ATTESTED_REPORT = Mode("-d", [*OPEN_LATER, *ANSWER_CHALLENGE, *COUNTER_LATER, *CERTIFY], context="with key")
LATER_REPORT_WITH_NEW_AK = Mode("-d", [*OPEN_LATER, *COUNTER_LATER, *CERTIFY_WITH_NEW_AK], context="without key")
LATER_INCREMENT = Mode("-R", REPORT, increment=[*OPEN_LATER, *COUNTER_LATER, *INCREMENT])
LATER_INCREMENT_OVER_UNWRITTEN = Mode(
    "-R", REPORT, increment=[*OPEN_LATER, *COUNTER_LATER, *INCREMENT_OVER_UNWRITTEN], left_over="unwritten"
)
LATER_INCREMENT_OVER_WRITTEN = Mode(
    "-R", REPORT, increment=[*OPEN_LATER, *COUNTER_LATER, *INCREMENT_OVER_WRITTEN], left_over="written"
)
FIRST_REPORT = Mode("-d", [*OPEN_FRESH, *COUNTER_FRESH, *REPORT], fresh=True)
FIRST_ATTESTED_REPORT = Mode(
    "-d", [*OPEN_FRESH, *ANSWER_CHALLENGE, *COUNTER_FRESH, *CERTIFY], fresh=True, context="with key"
)
FIRST_INCREMENT = Mode("-R", REPORT, increment=[*OPEN_FRESH, *COUNTER_FRESH, *INCREMENT], fresh=True)
