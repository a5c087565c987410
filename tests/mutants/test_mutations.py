"""What the mutators change, and what they leave alone; and that the judge counts honestly."""

import os
import random
import tempfile
import unittest

from cpp_mutations import OTHER_PROCESSOR, cpp_mutations
from equivalents import LIST, equivalents, lines_of, without_equivalents
from judging import NOT_COMPILED, SURVIVED, Judge
from layers import LAYERS, likeness, mutations_of
from mutation import Mutation
from python_mutations import python_mutations
from work_tree import Test, WorkTree, by_likeness

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def results(find, source):
    """All sources that become of this one."""
    data = source.encode()
    return [mutation.apply(data).decode() for mutation in find("file", data)]


def cpp(line):
    """What becomes of a line in a function's body."""
    before, after = "void f() {\n    ", "\n}\n"
    return [text.removeprefix(before).removesuffix(after) for text in results(cpp_mutations, before + line + after)]


def python(line):
    before = "def f():\n    "
    return [text.removeprefix(before).removesuffix("\n") for text in results(python_mutations, before + line + "\n")]


class CppTest(unittest.TestCase):
    def test_operators(self):
        "Comparisons, logical and arithmetic operators are changed, one at a time."
        changed = ["a = b <= c && d != e;", "a = b < c || d != e;", "a = b < c && d == e;"]
        self.assertEqual(cpp("a = b < c && d != e;"), [";", *changed])
        self.assertIn("a = b - c;", cpp("a = b + c;"))
        self.assertIn("--a;", cpp("++a;"))

    def test_conditions(self):
        "A condition is negated, and loses its negation."
        changed = ["if (!(!a(b)))\n        c();", "if (a(b))\n        c();", "if (!a(b))\n        ;"]
        self.assertEqual(cpp("if (!a(b))\n        c();"), changed)

    def test_numbers(self):
        "Numbers are one off, in their own form."
        self.assertIn("a = 0x10u;", cpp("a = 0xFu;"))
        self.assertIn("f(b, 8);", cpp("f(b, 7);"))
        self.assertEqual(cpp("const double a = 1.5;"), [])

    def test_results(self):
        "A function returns another value."
        self.assertEqual(cpp("return true;"), ["return false;"])
        self.assertEqual(cpp("return a.b();"), ["return {};"])

    def test_statements(self):
        "Calls, assignments and jumps are dropped."
        for statement in (
            "f(a);",
            "a->b(c);",
            "a::b(c);",
            "a = b;",
            "++a;",
            "break;",
            "throw A(b);",
            "delete a;",
            "*a = b;",
        ):
            with self.subTest(statement):
                self.assertIn(";", cpp(statement))

    def test_declarations_stay(self):
        "A declaration is not dropped: nothing would compile, or nothing would be noticed."
        for statement in (
            "A a;",
            "a::B c(d);",
            "A<B> c(d);",
            "A* a = b;",
            "const A a(b);",
            "auto a = b;",
            "using a = b;",
        ):
            with self.subTest(statement):
                self.assertEqual(cpp(statement), [])

    def test_templates_stay(self):
        "Brackets of templates, references and pointers are no operators."
        self.assertEqual(cpp("std::vector<A<B>> c;"), [])
        self.assertEqual(cpp("A&& a = b;"), [])
        self.assertEqual(results(cpp_mutations, "bool f(const A& a, B* b, C&& c);\n"), [])

    def test_text_stays(self):
        "Comments, strings, preprocessor lines, static assertions and debug records are left alone."
        for line in (
            "// a < b && c",
            "/* a < b;\n f(1); */",
            "#if A < 1 && \\\n    B > 2",
            "static_assert(a < 1 && b);",
            'ORVLOG_DEBUG(logger, "a %d", b + 1);',
        ):
            with self.subTest(line):
                self.assertEqual(cpp(line), [])
        self.assertEqual(cpp('f("a < b", R"x(c && 1)x", \'<\');'), [";"])

    def test_code_for_the_other_processor_stays(self):
        "What is not compiled here is left alone; what follows it is not."
        source = "#if defined(__SSE2__)\nint a = 1;\n#elif defined(__ARM_NEON)\nint a = 1;\n#else\nint a = 1;\n#endif\n"
        lines = [mutation.line for mutation in cpp_mutations("p", source.encode())]
        self.assertEqual(lines, [4, 6] if OTHER_PROCESSOR == "__SSE2__" else [2, 6])

    def test_sizes_of_buffers_stay(self):
        "A larger buffer changes nothing that can be seen."
        self.assertEqual(cpp("char a[64];"), [])
        self.assertEqual(cpp("a.reserve(64);"), [])
        self.assertIn("a = b[65];", cpp("a = b[64];"))

    def test_lines_and_places(self):
        "A mutation names its line, also after text that is not ASCII."
        source = "// \u00e4\nint f() {\n    return %d;\n}\n"
        mutation = cpp_mutations("p", (source % 1).encode())[0]
        self.assertEqual((mutation.path, mutation.line), ("p", 3))
        self.assertEqual(mutation.apply((source % 1).encode()).decode(), source % 2)


class PythonTest(unittest.TestCase):
    def test_operators(self):
        "Comparisons, logical and arithmetic operators are changed."
        self.assertIn("a = b <= c", python("a = b < c"))
        self.assertIn("a = b or c", python("a = b and c"))
        self.assertIn("a = b - c", python("a = b + c"))
        self.assertIn("a = b not in c", python("a = b in c"))

    def test_statements(self):
        "Statements are dropped, results and conditions changed, numbers are one off."
        self.assertIn("pass", python("raise A(b)"))
        self.assertIn("return None", python("return a"))
        self.assertIn("a = 8", python("a = 7"))
        self.assertIn("a = True", python("a = False"))
        self.assertIn("if (not (a)): b()", python("if a: b()"))

    def test_text_stays(self):
        "Strings and what is in them, annotations, decorators and comments are left alone."
        self.assertEqual(python('"""a < 1"""'), [])
        self.assertEqual(python('return f"{a + 1}"'), ["return None"])
        self.assertEqual(results(python_mutations, "# a < 1\n@a(1)\ndef f(b: c | d) -> e | g:\n    pass\n"), [])
        self.assertEqual(results(python_mutations, 'if __name__ == "__main__":\n    f(1)\n'), [])


class SourcesTest(unittest.TestCase):
    def test_every_layer_has_mutations(self):
        "Each layer's sources are found, and each mutation changes its own source."
        for name, layer in LAYERS.items():
            found = mutations_of(ROOT, layer)
            self.assertGreater(len(found), 100, name)
            for mutation in random.Random(name).sample(found, 20):
                with open(os.path.join(ROOT, mutation.path), "rb") as stream:
                    source = stream.read()
                self.assertNotEqual(mutation.apply(source), source, str(mutation))

    def test_each_equivalent_is_a_mutation(self):
        "The list of mutants that no test can notice has nothing that is no mutant, and each of it is left out."
        found = [mutation for layer in LAYERS.values() for mutation in mutations_of(ROOT, layer)]
        drawn = without_equivalents(ROOT, found)
        with open(LIST, encoding="utf-8") as stream:
            self.assertEqual(len(equivalents()), stream.read().count("\n+ "))
        self.assertEqual({lines_of(ROOT, mutation) for mutation in set(found) - set(drawn)}, equivalents())
        self.assertEqual({lines_of(ROOT, mutation) for mutation in drawn} & equivalents(), set())

    def test_tests_named_like_the_source_come_first(self):
        "A source's own tests are run first, then those that noticed something, then the others."
        tests = [
            Test(name, "", (), kind)
            for name, kind in (("a_test", 0), ("b_test", 0), ("b_c_test", 0), ("system.test_b", 2))
        ]
        ordered = [test.name for test in by_likeness(tests, "src/x/b_c.cpp", {})]
        self.assertEqual(ordered, ["b_c_test", "b_test", "a_test", "system.test_b"])
        self.assertEqual(by_likeness(tests, "src/x/d.cpp", {"b_test": 1})[0].name, "b_test")
        self.assertEqual(likeness("src/watch/grant.cpp", "system.test_grants.A.test_b"), 1)


class WorkTreeTest(unittest.TestCase):
    def make_tree(self, folder, name, status):
        """Makes a tree, and in it a test that ends with the status."""
        tree = WorkTree(ROOT, os.path.join(folder, name), {})
        sandbox = os.path.join(tree.root, "scripts", "sandbox")
        environment = f"TREE={tree.root};FEATUREWATCH_BYTECODE={tree.build}/bytecode"
        for path, text in (
            (sandbox, f'#!/bin/sh\n[ "$TREE" = "{tree.root}" ] && exit {status}\n'),
            (
                os.path.join(tree.build, "CTestTestfile.cmake"),
                f'add_test(system.test_watch.A "{sandbox}")\n'
                f'set_tests_properties(system.test_watch.A PROPERTIES TIMEOUT 9 ENVIRONMENT "{environment}")\n',
            ),
            (os.path.join(tree.root, "tests", "unit", "watch", "a_test.cpp"), ""),
        ):
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "w", encoding="utf-8") as stream:
                stream.write(text)
        os.chmod(sandbox, 0o755)
        return tree

    def test_each_tree_runs_its_own(self):
        "A test that one tree lists runs the programs of the tree that is asked, with that tree's environment."
        with tempfile.TemporaryDirectory() as folder:
            good, bad = self.make_tree(folder, "good", 0), self.make_tree(folder, "bad", 1)
            for tests in (good.tests(LAYERS["watch"]), bad.tests(LAYERS["watch"])):
                self.assertEqual([test.name for test in tests], ["system.test_watch.A"])
                self.assertEqual(len(tests[0].environment), 1, "byte code of a mutant may be taken for the source's")
                self.assertIsNone(good.run_test(tests[0]))
                self.assertIsNotNone(bad.run_test(tests[0]))


class FakeTree:
    """FakeTree is a tree whose one test fails if the source has the word "bad", and does not compile with "wrong"."""

    def __init__(self, folder, always_fails=False):
        self._path = os.path.join(folder, "source")
        self._always_fails = always_fails
        self.write("", b"good")

    def tests(self, _):
        return [Test("the_test", "the_test", (), 0)]

    def read(self, _):
        with open(self._path, "rb") as stream:
            return stream.read()

    def write(self, _, data):
        with open(self._path, "wb") as stream:
            stream.write(data)

    def make(self, *_):
        return b"wrong" not in self.read("")

    def run_test(self, _):
        return "it failed" if self._always_fails or b"bad" in self.read("") else None


class JudgeTest(unittest.TestCase):
    def judged(self, texts, count, limit=60, **keywords):
        lines = []
        with tempfile.TemporaryDirectory() as folder:
            tree = FakeTree(folder, **keywords)
            judge = Judge("foundation", [tree], lines.append, limit)
            judge.judge([Mutation("src/file", 1, 0, 4, text, text) for text in texts], count)
            self.assertEqual(tree.read(""), b"good")
        return judge, lines

    def test_verdicts(self):
        "What does not compile counts for nothing, and what no test notices is a survivor."
        judge, lines = self.judged(["wrong", "bad", "other", "bad"], 2)
        self.assertEqual(
            [line.split(": ", 2)[2].rsplit(",")[0] for line in lines], [NOT_COMPILED, "noticed by the_test", SURVIVED]
        )
        self.assertEqual((judge.noticed, len(judge.survivors), judge.is_good()), (1, 1, False))

    def test_enough(self):
        "A layer is good from 97 percent on."
        self.assertTrue(self.judged(["bad"] * 97 + ["other"] * 3, 100)[0].is_good())
        self.assertFalse(self.judged(["bad"] * 96 + ["other"] * 4, 100)[0].is_good())

    def test_no_time(self):
        "A mutant for whose tests there was no time has survived."
        self.assertEqual(len(self.judged(["bad"], 1, limit=-1)[0].survivors), 1)

    def test_tests_that_always_fail(self):
        "A test that fails without a mutant proves nothing, and ends the run."
        with self.assertRaisesRegex(Exception, "the_test fails without a mutant"):
            self.judged(["bad"], 1, always_fails=True)


if __name__ == "__main__":
    unittest.main()
