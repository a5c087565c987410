"""registry: devices, challenges and verdicts of a fleet in a database.

The database is an SQLite file or, by a URL, one on a PostgreSQL server; SQLAlchemy Core speaks to both. Whatever
decides something does so in `Registry.write`, which is one transaction. What keeps it from its work is a Fault.

Tables. A row of `devices` is an EK for life: its serial, its counter's floor and its retirement belong to it, so none
is ever removed, and a board that is replaced is another row with the same serial. `verdicts` is the history; it only
grows. `registry` holds the version of all this.

Locks. On SQLite a write transaction begins with the one write lock, so all are in a row. On PostgreSQL whoever decides
about a device locks its row first (several in the order of their ids), and that lock covers the device's challenges
and verdicts too.
"""

import contextlib
import os
import random
import sqlite3
import time

from sqlalchemy import BigInteger, Boolean, Column, ForeignKey, Index, Integer, LargeBinary, MetaData, String, Table
from sqlalchemy import Text, create_engine, event, func, insert, inspect, select, types, update
from sqlalchemy.engine import make_url
from sqlalchemy.exc import ArgumentError, DBAPIError, IntegrityError, SQLAlchemyError
from sqlalchemy.pool import QueuePool

from .fault import Fault

VERSION = 1
# MIGRATIONS[n] is a function that takes a connection and turns a registry of version n into one of version n + 1.
MIGRATIONS = {}

LOCK_SECONDS = 10
CONNECT_SECONDS = 10
ATTEMPTS = 8
# PostgreSQL's codes (its documentation, appendix A) of what another attempt may cure: a deadlock, a failed
# serialisation, and a row that another worker added at the same time.
RETRIABLE_CODES = ("40P01", "40001")
CREATION_LOCK = 0x666C656574  # an arbitrary number: who makes or migrates a registry holds this advisory lock

IMPORTED, ENROLLED, RETIRED = "imported", "enrolled", "retired"


class Counter(types.TypeDecorator):
    """A Counter column holds an unsigned 64-bit number as twenty digits, as a database's integers are signed."""

    impl = String(20)
    cache_ok = True

    def process_bind_param(self, value, dialect):
        return None if value is None else f"{value:020}"

    def process_result_value(self, value, dialect):
        return None if value is None else int(value)


metadata = MetaData()
_key = BigInteger().with_variant(Integer, "sqlite")  # SQLite numbers rows by itself for this type only

registry_table = Table("registry", metadata, Column("version", Integer, nullable=False))

devices = Table(
    "devices",
    metadata,
    Column("id", _key, primary_key=True),
    Column("serial", Text, nullable=False),
    Column("ek_digest", String(64), nullable=False, unique=True),
    Column("label", Text, nullable=False),
    Column("state", String(8), nullable=False),
    Column("counter", Counter),  # the floor: the last accepted value
    Column("last_good", BigInteger),  # times are in milliseconds since 1970
    Column("report", Text),  # null until the device is enrolled
)
_in_service = devices.c.state != RETIRED
Index(
    "devices_in_service", devices.c.serial, unique=True, sqlite_where=_in_service, postgresql_where=_in_service
)  # one board a serial at a time
Index("devices_serial", devices.c.serial)

challenges = Table(
    "challenges",
    metadata,
    Column("id", _key, primary_key=True),
    Column("device_id", _key, ForeignKey(devices.c.id), nullable=False),
    Column("nonce", LargeBinary, nullable=False, unique=True),
    Column("context", Text, nullable=False),
    Column("secret", LargeBinary),  # null once it was used or is too late
    Column("made", BigInteger, nullable=False),
    Column("expires", BigInteger, nullable=False),
    Column("used", BigInteger),
)
_has_secret = challenges.c.secret.is_not(None)
Index("challenges_secret", challenges.c.expires, sqlite_where=_has_secret, postgresql_where=_has_secret)
Index("challenges_device", challenges.c.device_id)

verdicts = Table(
    "verdicts",
    metadata,
    Column("id", _key, primary_key=True),
    Column("device_id", _key, ForeignKey(devices.c.id)),  # null if the answer is of no known device
    Column("challenge_id", _key, ForeignKey(challenges.c.id)),  # null if the answer has no known nonce
    Column("answer", LargeBinary, nullable=False, unique=True),  # digest of the report's content
    Column("time", BigInteger, nullable=False),
    Column("ok", Boolean, nullable=False),
    Column("counter", Counter),
    Column("checks", Text, nullable=False),
    Column("error", Text),
)
_accepted = verdicts.c.ok
Index(
    "verdicts_accepted", verdicts.c.challenge_id, unique=True, sqlite_where=_accepted, postgresql_where=_accepted
)  # the database itself refuses a second acceptance
Index("verdicts_device", verdicts.c.device_id, verdicts.c.id)


def milliseconds():
    return time.time_ns() // 1_000_000


def open_registry(where, create=False):
    """Opens the registry at a URL or path. With `create` a missing one is made; else that is a Fault."""
    registry = Registry(where)
    if create:
        registry.create()
    registry.check()
    return registry


class Registry:
    """A Registry is a database that may hold a fleet. Only `create`, `check` and `migrate` may be called on one that is
    missing or of another version."""

    def __init__(self, where):
        url = _url(where)
        self.name = repr(url.set(drivername=url.get_backend_name())) if "://" in where else where
        self.is_sqlite = url.get_backend_name() == "sqlite"
        self._path = url.database if self.is_sqlite else None
        with self._faults():
            self._engine = _sqlite_engine(url) if self.is_sqlite else _postgresql_engine(url)

    def close(self):
        self._engine.dispose()

    @contextlib.contextmanager
    def read(self):
        """Yields a connection in a transaction that sees one state of the registry and changes nothing."""
        options = {} if self.is_sqlite else {"isolation_level": "REPEATABLE READ", "postgresql_readonly": True}
        with self._faults(), self._transaction(**options) as connection:
            yield connection

    def write(self, work):
        """Does work(connection) in one transaction and returns its result once that is durable.

        Where other workers came in between, it starts over: `work` must change nothing but the database."""
        with self._faults():
            for attempt in range(1, ATTEMPTS + 1):
                try:
                    return self._write_once(work)
                except DBAPIError as error:
                    if attempt == ATTEMPTS or not _is_retriable(error):
                        raise
                time.sleep(random.uniform(0, 0.02 * 2**attempt))

    def _write_once(self, work):
        with self._transaction(write=True) as connection:
            self._check_version(_version(connection))  # a registry may be migrated at any time, under a worker too
            return work(connection)

    @contextlib.contextmanager
    def _transaction(self, **options):
        with self._engine.connect() as connection:
            connection = connection.execution_options(**options)
            with connection.begin():
                yield connection

    def create(self):
        """Makes the registry where there is none."""
        with self._faults():
            if self.is_sqlite:
                _create_file(self._path)
                self._use_write_ahead_log()
            with self._transaction(write=True) as connection:
                self._lock_creation(connection)
                if self._may_create(connection):
                    metadata.create_all(connection, checkfirst=False)
                    connection.execute(insert(registry_table).values(version=VERSION))

    def check(self):
        """Is a Fault unless a registry of this program's version is there."""
        self._require_file()
        with self.read() as connection:
            self._require_table(connection)
            self._check_version(_version(connection))

    def migrate(self):
        """Brings an older registry to this program's version, in one transaction. Returns the version before."""
        self._require_file()
        with self._faults(), self._transaction(write=True) as connection:
            self._lock_creation(connection)
            self._require_table(connection)
            found = _version(connection)
            self._refuse_newer(found)
            for version in range(found, VERSION):
                MIGRATIONS[version](connection)
            connection.execute(update(registry_table).values(version=VERSION))
            return found

    def _use_write_ahead_log(self):
        """Sets the file's mode of logging, which it keeps; that works outside of transactions only."""
        with self._engine.connect() as connection:
            if not inspect(connection).get_table_names():
                connection.connection.execute("PRAGMA journal_mode=WAL")

    def _lock_creation(self, connection):
        if not self.is_sqlite:
            connection.execute(select(func.pg_advisory_xact_lock(CREATION_LOCK)))

    def _may_create(self, connection):
        """On a server others may have tables beside ours; a file with other tables is somebody else's."""
        return not inspect(connection).get_table_names() if self.is_sqlite else not _has_table(connection)

    def _require_file(self):
        if self.is_sqlite and not os.path.exists(self._path):
            raise self._missing()

    def _require_table(self, connection):
        if not _has_table(connection):
            raise self._missing()

    def _missing(self):
        return Fault(f"{self.name}: no registry is there; `fleet enrol` and `fleet import` make a new one")

    def _check_version(self, found):
        self._refuse_newer(found)
        if found < VERSION:
            raise Fault(
                f"{self.name}: a registry of version {found}, and this program needs {VERSION}: "
                "make a backup, stop the workers, then run `fleet migrate`"
            )

    def _refuse_newer(self, found):
        if found > VERSION:
            raise Fault(
                f"{self.name}: a registry of version {found}, and this program knows up to {VERSION}: "
                "use the program that made it, or a newer one"
            )

    @contextlib.contextmanager
    def _faults(self):
        try:
            yield
        except (SQLAlchemyError, sqlite3.Error) as error:
            raise Fault(f"{self.name}: {_reason(error)}") from None


def _url(where):
    """A URL, or the path of an SQLite file."""
    if "://" not in where:
        return make_url("sqlite://").set(database=where)
    try:
        url = make_url(where)
    except (ArgumentError, ValueError):
        raise Fault("the registry's URL can't be read: write sqlite:///FILE or postgresql://USER@HOST/NAME") from None
    if url.drivername == "sqlite" and url.database not in (None, "", ":memory:"):
        return url
    if url.drivername == "postgresql":
        return url.set(drivername="postgresql+psycopg2")
    raise Fault(f"{url!r}: a registry is sqlite:///FILE or postgresql://USER@HOST/NAME")


def _sqlite_engine(url):
    engine = create_engine(url, connect_args={"timeout": LOCK_SECONDS}, poolclass=QueuePool)

    @event.listens_for(engine, "connect")
    def on_connect(connection, _):
        connection.isolation_level = None  # Python's module would else begin transactions on its own, and late
        for setting in ("synchronous=FULL", "secure_delete=ON", "foreign_keys=ON"):
            connection.execute(f"PRAGMA {setting}")

    @event.listens_for(engine, "begin")
    def on_begin(connection):
        write = connection.get_execution_options().get("write")
        connection.exec_driver_sql("BEGIN IMMEDIATE" if write else "BEGIN")

    return engine


def _postgresql_engine(url):
    ours = {"connect_timeout": CONNECT_SECONDS, "options": f"-c lock_timeout={LOCK_SECONDS * 1000}"}
    arguments = {name: value for name, value in ours.items() if name not in url.query}
    return create_engine(url, connect_args=arguments, client_encoding="utf8", executemany_mode="values_plus_batch")


def _create_file(path):
    """Makes an empty file for its owner only, whatever the umask; SQLite gives its other files the same mode."""
    try:
        descriptor = os.open(path, os.O_RDWR | os.O_CREAT | os.O_EXCL, 0o600)
    except FileExistsError:
        return
    except OSError as error:
        raise Fault(f"{path}: {error.strerror}") from None
    try:
        os.fchmod(descriptor, 0o600)
    finally:
        os.close(descriptor)


def _has_table(connection):
    return inspect(connection).has_table(registry_table.name)


def _version(connection):
    return connection.execute(select(registry_table.c.version)).scalar_one()


def _is_retriable(error):
    return isinstance(error, IntegrityError) or getattr(error.orig, "pgcode", None) in RETRIABLE_CODES


def _reason(error):
    """Why the database failed, in one line; never with the statement, whose values may be secret."""
    reason = str(getattr(error, "orig", None) or error).strip() or type(error).__name__
    if "database is locked" in reason:
        return f"another program has had the database locked for {LOCK_SECONDS} seconds"
    return reason.splitlines()[0]
