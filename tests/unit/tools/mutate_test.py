"""Tests which edits tools/mutate makes, how it keeps results, and one run over a small tree of its own."""
import importlib.machinery
import importlib.util
import pathlib
import random
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

ROOT = pathlib.Path(__file__).resolve().parents[3]
TOOL = ROOT / "tools" / "mutate"


def load():
    sys.dont_write_bytecode = True
    loader = importlib.machinery.SourceFileLoader("mutate", str(TOOL))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutate", loader))
    sys.modules["mutate"] = module  # dataclasses look their module up
    loader.exec_module(module)
    return module


mutate = load()


def edited(text, kind=None):
    """The source after each edit, without what is equal in all of them."""
    return [edit.apply(text) for edit in mutate.edits_of("core/A.cpp", text) if kind in (None, edit.kind)]


def in_function(statements):
    return "void f() {\n" + statements + "\n}\n"


class EditsTest(unittest.TestCase):
    def assert_edits(self, text, kind, expected):
        self.assertEqual(edited(text, kind), expected)

    def test_comparisons_are_shifted_and_reversed(self):
        self.assert_edits("bool a = b < c;", "operator", ["bool a = b <= c;", "bool a = b >= c;"])
        self.assert_edits("bool a = b == c;", "operator", ["bool a = b != c;"])

    def test_logic_is_swapped(self):
        self.assert_edits("bool a = b && c;", "operator", ["bool a = b || c;"])

    def test_brackets_of_templates_and_references_are_left_alone(self):
        self.assert_edits("std::vector<int> f(T&& a, int* b, int& c);", "operator", [])

    def test_comments_texts_and_directives_are_left_alone(self):
        self.assert_edits('// a < 1\n#if 1 < 2\n/* b == 3 */\n#define A 4 + \\\n  5\n', None, [])
        self.assert_edits('auto a = "b < 1";', "operator", [])
        self.assert_edits('auto a = R"x(b < "1")x";', None, [])

    def test_text_is_extended(self):
        self.assert_edits('auto a = "b\\"";', "text", ['auto a = "b\\"x";'])

    def test_joined_texts_keep_their_operator(self):
        self.assert_edits('auto a = "b" + c;', "operator", [])
        self.assert_edits("auto a = b + c;", "operator", ["auto a = b - c;"])

    def test_whole_numbers_move_by_1(self):
        self.assertEqual(mutate.changed_numbers("20'000"), ["20001", "19999"])
        self.assertEqual(mutate.changed_numbers("0"), ["1"])
        self.assertEqual(mutate.changed_numbers("0x10U"), ["17U", "15U"])

    def test_fractions_move_by_their_last_digit(self):
        self.assertEqual(mutate.changed_numbers("0.008"), ["0.009", "0.007"])
        self.assertEqual(mutate.changed_numbers("1.0F"), ["1.1F", "0.9F"])

    def test_powers_of_two_are_doubled_and_halved(self):
        self.assertEqual(mutate.changed_numbers("0x1p3"), ["16.0", "4.0"])

    def test_booleans_are_swapped(self):
        self.assert_edits("bool a = true;", "constant", ["bool a = false;"])

    def test_condition_is_negated_unless_a_comparison_does_the_same(self):
        self.assert_edits(in_function("if (a) b();"), "condition", [in_function("if (!(a)) b();")])
        self.assert_edits(in_function("if (a < c) b();"), "condition", [])
        self.assert_edits(in_function("if (!a) b();"), "condition", [])
        self.assert_edits(in_function("if (a && c) b();"), "condition", [in_function("if (!(a && c)) b();")])
        self.assert_edits(in_function("if (auto a = c(); a.d()) b();"), "condition",
                          [in_function("if (auto a = c(); !(a.d())) b();")])
        self.assert_edits(in_function("if (const auto* a = c()) b();"), "condition", [])

    def test_branches_are_swapped(self):
        self.assert_edits("int a = b ? c(d, e) : f;", "condition", ["int a = b ? f : c(d, e);"])

    def test_negation_is_removed(self):
        self.assert_edits("bool a = !b;", "negation", ["bool a = b;"])

    def test_expression_statements_are_deleted(self):
        self.assert_edits(in_function("a();\nb->c = d;\n++e;"), "deletion",
                          [in_function(text) for text in (";\nb->c = d;\n++e;", "a();\n;\n++e;", "a();\nb->c = d;\n;")])

    def test_statement_with_lambda_is_deleted_whole_and_inside(self):
        self.assert_edits(in_function("a([] { b(); });"), "deletion", [in_function(";"), in_function("a([] { ; });")])

    def test_body_of_condition_is_deleted(self):
        self.assert_edits(in_function("if (a) b();\nelse\nc();"), "deletion",
                          [in_function("if (a) ;\nelse\nc();"), in_function("if (a) b();\nelse\n;")])

    def test_guarded_return_is_deleted_but_not_the_last_one(self):
        text = "int f() {\nif (a) return 1;\nreturn 2;\n}\n"
        self.assert_edits(text, "deletion", ["int f() {\nif (a) ;\nreturn 2;\n}\n"])

    def test_declarations_are_not_deleted(self):
        self.assert_edits(in_function("int a = b();\nconst auto c = d();\nT e(f);\nstd::vector<int> g{1};"), "deletion", [])
        self.assert_edits("class A {\n explicit A(int);\n A(const A&) = delete;\n void b();\n};\n", "deletion", [])
        self.assert_edits("namespace a {\nint b();\n}\n", "deletion", [])

    def test_functions_return_early(self):
        self.assert_edits("void A::b() const {\nc();\n}\n", "early return", ["void A::b() const { return;\nc();\n}\n"])
        self.assert_edits("int b(int d) {\nreturn d;\n}\n", "early return", ["int b(int d) { return {};\nreturn d;\n}\n"])
        self.assert_edits("asio::awaitable<void> b() {\nc();\n}\n", "early return",
                          ["asio::awaitable<void> b() { co_return;\nc();\n}\n"])

    def test_constructors_and_lambdas_do_not_return_early(self):
        self.assert_edits("A::A(int b) : b_(b), c_() {\nd();\n}\nA::~A() {\nd();\n}\n", "early return", [])
        self.assert_edits(in_function("a([](int b) { c(b); });"), "early return",
                          ["void f() { return;\na([](int b) { c(b); });\n}\n"])

    def test_every_edit_changes_its_source_and_its_key_is_unique(self):
        for path in [*(ROOT / "legacy").glob("*.cpp"), *(ROOT / "core").glob("*.cpp")]:
            text = path.read_text()
            edits = mutate.edits_of(path.name, text)
            self.assertEqual(len({edit.key for edit in edits}), len(edits), path)
            for edit in edits:
                self.assertNotEqual(edit.apply(text), text, edit)

    def test_key_survives_changes_elsewhere_in_the_file(self):
        keys = [edit.key for edit in mutate.edits_of("A.cpp", "bool a = b < c;\n")]
        self.assertEqual([edit.key for edit in mutate.edits_of("A.cpp", "\nint d;\n\nbool a = b < c;\n")], keys)


class ResultsTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = pathlib.Path(folder.name, "results.jsonl")
        self.edits = mutate.edits_of("core/A.cpp", "bool a = b < c;")
        self.mutants = list(enumerate(self.edits, 1))

    def options(self, **changes):
        return mock.Mock(**{"only": None, "retry": False, "sample": None, "seed": 1, **changes})

    def test_results_outlive_a_run_and_a_cut_line(self):
        mutate.Results(self.path).add(self.edits[0], "< -> <=", "survived", "")
        with self.path.open("a") as file:
            file.write('{"key": "cut')
        results = mutate.Results(self.path)
        self.assertEqual(results.outcome(self.edits[0]), "survived")
        self.assertIsNone(results.outcome(self.edits[1]))

    def test_known_edits_are_skipped_unless_asked_for(self):
        results = mutate.Results(self.path)
        results.add(self.edits[0], "", "survived", "")
        self.assertEqual(mutate.choose(self.mutants, self.options(), results), self.mutants[1:])
        self.assertEqual(mutate.choose(self.mutants, self.options(only=1), results), self.mutants[:1])
        self.assertEqual(mutate.choose(self.mutants, self.options(retry=True), results), self.mutants[:1])

    def test_newest_result_counts(self):
        results = mutate.Results(self.path)
        results.add(self.edits[0], "", "survived", "")
        results.add(self.edits[0], "", "caught", "a test")
        self.assertEqual(mutate.Results(self.path).outcome(self.edits[0]), "caught")

    def test_sample_depends_on_its_seed_only(self):
        mutants = list(enumerate(random.Random(7).sample(range(1000), 100)))
        unknown = mock.Mock(outcome=lambda _: None)
        first = mutate.choose(mutants, self.options(sample=10, seed=3), unknown)
        self.assertEqual(len(first), 10)
        self.assertEqual(mutate.choose(mutants, self.options(sample=10, seed=3), unknown), first)
        self.assertNotEqual(mutate.choose(mutants, self.options(sample=10, seed=4), unknown), first)

    def test_table_counts_each_outcome(self):
        results = mutate.Results(self.path)
        results.add(self.edits[0], "", "survived", "")
        self.assertEqual(mutate.table(self.mutants, results).splitlines()[1].split(), ["core/A.cpp", "2", "1", "0", "1", "0"])


class LaboratoryTest(unittest.TestCase):
    """Judges edits with a stand-in for the build: the "program" is a shell command that reads the edited file."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.laboratory = mutate.Laboratory(pathlib.Path(folder.name), 1)
        self.laboratory.ninja = lambda targets, limit=0: (self.compiles, "")
        self.compiles = True
        self.text = "bool a = b < c;"
        self.copy = self.laboratory.tree / "core/A.cpp"
        self.copy.parent.mkdir(parents=True)
        self.copy.write_text(self.text)
        self.edit = mutate.edits_of("core/A.cpp", self.text)[0]

    def judge(self, command, **changes):
        program = mutate.Program("test", [], ["sh", "-c", command], **changes)
        outcome = self.laboratory.judge(self.edit, self.text, [program])
        self.assertEqual(self.copy.read_text(), self.text, "the copy is restored")
        return outcome

    def test_edit_is_there_while_the_program_runs(self):
        self.assertEqual(self.judge("grep -q '<= c' core/A.cpp")[0], "survived")

    def test_failing_program_catches_the_edit(self):
        self.assertEqual(self.judge("echo FAILED a-scenario; exit 1"), ("caught", "test: a-scenario"))
        self.assertEqual(self.judge("exit 3"), ("caught", "test: exit status 3"))

    def test_hanging_program_catches_the_edit(self):
        run = self.laboratory.run
        with mock.patch.object(self.laboratory, "run", lambda command, limit, memory=None: run(command, 0.2, memory)):
            self.assertEqual(self.judge("sleep 60"), ("caught", "test: time limit"))

    def test_edit_that_does_not_compile_is_neither(self):
        self.compiles = False
        self.assertEqual(self.judge("true"), ("does not compile", ""))

    def test_real_time_failure_that_does_not_come_again_catches_nothing(self):
        once = "test -e failed && exit 0; touch failed; echo '[  FAILED  ] Suite.Test'; exit 1"
        self.assertEqual(self.judge(once, is_real_time=True), ("caught by chance", "test: Suite.Test"))

    def test_real_time_failure_that_comes_again_catches_the_edit(self):
        self.assertEqual(self.judge("echo '[  FAILED  ] Suite.Test'; exit 1", is_real_time=True), ("caught", "test: Suite.Test"))

    def test_tests_named_after_the_file_run_first(self):
        program = mutate.Program("test", [], ["run"], suites=["Base64Test", "UUIDTest"])
        self.assertEqual(program.named("core/Base64Nibbles.h"), ["run", "--gtest_filter=*Base64*:*Base64Nibbles*"])
        self.assertIsNone(program.named("core/PCMDecoding.cpp"))

    def test_copy_is_restored_after_an_interruption(self):
        with mock.patch.object(self.laboratory, "run", side_effect=KeyboardInterrupt):
            self.assertRaises(KeyboardInterrupt, self.judge, "true")
        self.assertEqual(self.copy.read_text(), self.text)

    def test_failed_cases_run_first_next_time(self):
        program = mutate.Program("test", [], ["run"], ["a.json", "b.json"])
        self.assertEqual(program.commands(), [["run", "a.json", "b.json"]])
        self.laboratory.first_failure(program, "passed a\nFAILED b\n", 1)
        self.assertEqual(program.commands(), [["run", "b.json"], ["run", "a.json", "b.json"]])


class CommandLineTest(unittest.TestCase):
    def run_tool(self, *arguments):
        return subprocess.run([sys.executable, TOOL, *arguments], capture_output=True, text=True, check=False)

    def test_list_prints_numbered_edits_and_changes_nothing(self):
        done = self.run_tool("--list", "core/UTF8.cpp")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertRegex(done.stdout.splitlines()[0], r"^ +1 core/UTF8\.cpp:\d+: ")

    def test_path_outside_the_tree_is_refused(self):
        self.assertEqual(self.run_tool("--list", "/etc").returncode, 1)
        self.assertEqual(self.run_tool("--list", "core/absent.cpp").returncode, 1)


if __name__ == "__main__":
    unittest.main()
