"""How the mutants of a layer are judged: in several trees side by side, each by one test after the other."""

import concurrent.futures
import threading
import time

from layers import LAYERS
from work_tree import Failure, by_likeness

ENOUGH = 0.97
NOT_COMPILED, SURVIVED = "does not compile", "SURVIVED"
NO_TIME = "SURVIVED what time allowed"


def in_all(trees, work):
    """Has each tree do the work, side by side."""
    with concurrent.futures.ThreadPoolExecutor(len(trees)) as pool:
        for done in concurrent.futures.as_completed([pool.submit(work, tree) for tree in trees]):
            done.result()


class Judge:
    """Judge judges the mutants of one layer. Lines for people go to `say`."""

    def __init__(self, name, trees, say, limit=600):
        self._name = name
        self._trees = trees
        self._say = say
        self._limit = limit
        self._tests = trees[0].tests(LAYERS[name])
        self._lock = threading.Lock()
        self._noticed_last = {}  # by the names of tests, the number of the mutant
        self._unclaimed = 0
        self.noticed = 0
        self.survivors = []

    def judge(self, mutations, count):
        """Judges the mutations in their order until `count` of them have compiled."""
        self._prepare()
        self._unclaimed = count
        pending = iter(mutations)
        in_all(self._trees, lambda tree: self._judge_some(tree, pending))
        self._build_all()
        self._pass_all([test for test in self._tests if test.name in self._noticed_last])

    def is_good(self):
        return self.noticed >= ENOUGH * (self.noticed + len(self.survivors))

    # --- the trees without a mutant ---

    def _prepare(self):
        self._build_all()
        self._pass_all([test for test in self._tests if test.kind < 2])

    def _build_all(self):
        targets = sorted({test.target for test in self._tests} | {"tpm_fault", "sleep_log"})

        def build(tree):
            if not tree.make(*targets):
                raise Failure(f"{self._name}: the tree cannot be built without a mutant")

        in_all(self._trees, build)

    def _pass_all(self, tests):
        pending = iter(tests)

        def pass_some(tree):
            while test := self._next(pending):
                if fault := failure_of(tree, test):
                    raise Failure(f"{test.name} fails without a mutant:\n{fault}")

        in_all(self._trees, pass_some)

    # --- the mutants ---

    def _next(self, pending):
        with self._lock:
            return next(pending, None)

    def _judge_some(self, tree, pending):
        while (mutation := self._claim(pending)) is not None:
            begin = time.monotonic()
            verdict = self._verdict(tree, mutation)
            with self._lock:
                self._record(mutation, verdict)
                self._say(f"{mutation}: {verdict}, {time.monotonic() - begin:.1f} s")

    def _claim(self, pending):
        with self._lock:
            if self._unclaimed == 0:
                return None
            self._unclaimed -= 1
            return next(pending, None)

    def _record(self, mutation, verdict):
        if verdict == NOT_COMPILED:
            self._unclaimed += 1
        elif verdict in (SURVIVED, NO_TIME):
            self.survivors.append(mutation)
        else:
            self.noticed += 1

    def _verdict(self, tree, mutation):
        source = tree.read(mutation.path)
        changed = mutation.apply(source)
        tree.write(mutation.path, changed)
        try:
            if is_cpp(mutation.path):
                return self._ask_tests(tree, mutation)
            return self._ask_tests(tree, mutation) if is_python(changed) else NOT_COMPILED
        finally:
            tree.write(mutation.path, source)

    def _ask_tests(self, tree, mutation):
        built = set()
        end = time.monotonic() + self._limit
        for test in by_likeness(self._tests, mutation.path, self._noticed_last):
            if time.monotonic() > end:
                return NO_TIME
            if is_cpp(mutation.path) and test.target not in built:
                if not tree.make(test.target):
                    return NOT_COMPILED
                built.add(test.target)
            if failure_of(tree, test):
                with self._lock:
                    self._noticed_last[test.name] = self.noticed + 1
                return f"noticed by {test.name}"
        return SURVIVED


def failure_of(tree, test):
    """Returns what a test says if it fails. Those of the whole must fail twice: a busy machine may be too slow once."""
    fault = tree.run_test(test)
    return fault if fault is None or test.kind < 2 else tree.run_test(test)


def is_cpp(path):
    return path.startswith("src/")


def is_python(source):
    try:
        compile(source, "mutant", "exec")
    except SyntaxError:
        return False
    return True
