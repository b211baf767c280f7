#!/usr/bin/env python3
"""The box holds, mutants are found where they are and nowhere else, and scripts/mutate judges a project of a few lines right.

    mutation_test.py SOURCE_FOLDER WORK_FOLDER COMPILER
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import textwrap
import unittest

SOURCE, WORK, COMPILER = pathlib.Path(sys.argv.pop(1)), pathlib.Path(sys.argv.pop(1)), sys.argv.pop(1)
sys.path.insert(0, str(SOURCE / "tests/mutation"))
sys.dont_write_bytecode = True
import box  # noqa: E402
import mutants  # noqa: E402

# Under a load of twenty a start alone takes seconds.
PATIENCE = 240


def boxed(*command, options=()):
    return subprocess.run([sys.executable, SOURCE / "tests/mutation/box.py", *options, *command], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=PATIENCE)


def changes(source):
    return [(one.line, one.kind, one.change) for one in mutants.mutants_of("a.cpp", textwrap.dedent(source))]


class MutantsTest(unittest.TestCase):
    def test_what_is_no_code_is_left_alone(self):
        self.assertEqual([], changes("""
            // a == b
            /* if (a < 1) {} */
            #define MOST 5 \\
                + 6
            const char* text = "a && b, 7";
            const char* raw = R"x(a || b)" 8)x";
            template <class T> using List = std::vector<T>;
            void Take(const Any& any, Any&& moved, char* text);
            """))

    def test_each_kind_is_found(self):
        found = changes("""
            int Sum(int a, const std::vector<int>& all) {
                const std::lock_guard<std::mutex> lock(gMutex);
                if (a <= 10 && !all.empty()) {
                    Log("text");
                    free(gText);
                    return -EINVAL;
                }
                const int fd = open(path, O_RDONLY | O_CLOEXEC);
                gOpen = true;
                return StatusCode::Ok;
            }
            """)
        for expected in [(3, "lock", "removed: const std::lock_guard<std::mutex> lock(gMutex)"), (4, "condition", "if negated"),
                         (4, "comparison", "'<=' to '<'"), (4, "comparison", "'<=' to '>'"), (4, "constant", "10 to 11"),
                         (4, "constant", "10 to 9"), (4, "logical", "'&&' to '||'"), (4, "condition", "'!' removed"),
                         (5, "statement", 'removed: Log("text")'), (6, "free", "removed: free(gText)"),
                         (7, "status", "-EINVAL to 0"), (9, "flag", "O_CLOEXEC removed"), (9, "flag", "O_RDONLY removed"),
                         (10, "bool", "true to false"), (10, "statement", "removed: gOpen = true"),
                         (11, "status", "Ok to Failure")]:
            self.assertIn(expected, found)

    def test_a_mutant_changes_its_place_alone(self):
        source = "void A() {\n    if (one < 2) {\n        Run(one | READ_FLAG);\n    }\n}\n"
        made = {one.change: one.apply(source).splitlines() for one in mutants.mutants_of("a.cpp", source)}
        self.assertEqual("    if (!(one < 2)) {", made["if negated"][1])
        self.assertEqual("        Run(one);", made["READ_FLAG removed"][2])
        self.assertEqual("        ;", made["removed: Run(one | READ_FLAG)"][2])
        for change, lines in made.items():
            self.assertEqual(1, sum(old != new for old, new in zip(source.splitlines(), lines)), change)

    def test_declarations_are_no_statements(self):
        # But a constructor looks like a call; a compiler refuses what is wrong then.
        self.assertEqual([(3, "statement", "removed: Box(int size)")], changes("""
            struct Box {
                Box(int size);
                std::vector<int> all;
                static constexpr const char* NAME = "box";
            };
            using mwl::Box;
            extern int gCount;
            """))

    def test_same_changes_of_same_lines_are_told_apart(self):
        names = [one[2] for one in changes("void A() {\n    Run();\n    Run();\n}\n")]
        self.assertEqual(["removed: Run()", "removed: Run() #2"], names)


class BoxTest(unittest.TestCase):
    def setUp(self):
        self.precious = WORK / "precious"
        shutil.rmtree(self.precious, ignore_errors=True)
        (self.precious / "folder").mkdir(parents=True)
        (self.precious / "folder/file").write_text("kept")

    def test_nothing_outside_can_be_changed(self):
        done = boxed("sh", "-c", f"""
            rm -rf '{self.precious}'; echo changed > '{self.precious}/folder/file'; touch '{self.precious}/new' /etc/new /new
            find '{self.precious}' -delete; mv '{self.precious}' /tmp; chmod 000 '{self.precious}'
            exit 5""")
        self.assertEqual(5, done.returncode, done.stdout)
        self.assertEqual("kept", (self.precious / "folder/file").read_text())
        self.assertEqual(["folder"], os.listdir(self.precious))
        self.assertFalse(os.path.exists("/etc/new") or os.path.exists("/new"))

    def test_processes_outside_are_out_of_reach(self):
        with subprocess.Popen(["sleep", "1000"]) as other:
            boxed("sh", "-c", f"kill -9 {other.pid}; kill -9 -1")
            self.assertIsNone(other.poll())
            other.kill()

    def test_places_to_write_are_the_boxs_own_and_empty(self):
        for folder in box.OWN:
            if os.path.isdir(folder) and not os.path.islink(folder):
                name = f"{folder}/tern-box-{os.getpid()}"
                done = boxed("sh", "-c", f"[ -d '{folder}' ] && [ -z \"$(ls '{folder}')\" ] && echo x > '{name}' && cat '{name}'")
                self.assertEqual((0, "x\n"), (done.returncode, done.stdout), folder)
                self.assertFalse(os.path.exists(name))

    def test_disks_are_not_there(self):
        done = boxed("sh", "-c", "find /dev -type b | wc -l; echo x > /dev/null && head -c 1 /dev/zero | wc -c")
        self.assertEqual("0\n1\n", done.stdout)

    def test_process_ids_are_not_those_of_a_first_process(self):
        self.assertGreater(int(boxed("sh", "-c", "echo $$").stdout), 300)

    def test_the_end_is_told(self):
        self.assertEqual(3, boxed("sh", "-c", "exit 3").returncode)
        self.assertEqual(128 + 6, boxed("sh", "-c", "kill -6 $$").returncode)
        self.assertEqual(127, boxed("/does/not/exist").returncode)

    def test_a_hang_ends_with_everything_in_it(self):
        done = boxed("sh", "-c", "(setsid sleep 98765 &) ; sleep 98765", options=("--seconds", "1"))
        self.assertEqual(box.TIME_OVER, done.returncode, done.stdout)
        running = subprocess.run(["ps", "-eo", "args"], stdout=subprocess.PIPE, text=True).stdout
        self.assertNotIn("\nsleep 98765", running)

    def test_a_box_that_is_ended_leaves_nothing(self):
        with subprocess.Popen([sys.executable, SOURCE / "tests/mutation/box.py", "sh", "-c", "echo begun; sleep 87654"],
                              stdout=subprocess.PIPE, text=True) as running:
            self.assertEqual("begun\n", running.stdout.readline())
            running.terminate()
            self.assertEqual("", running.stdout.read())  # until everybody who has it is gone
        self.assertFalse(list(pathlib.Path("/sys/fs/cgroup").glob(f"**/tern-box-{running.pid}")))

    def test_too_much_memory_is_an_end(self):
        done = boxed(sys.executable, "-c", "import time; kept = b'x' * (300 << 20); time.sleep(1000)", options=("--memory", "200"))
        self.assertEqual(box.TOO_MUCH, done.returncode, done.stdout)
        done = boxed(sys.executable, "-c", "b'x' * (300 << 20)", options=("--virtual", "200"))
        self.assertIn("MemoryError", done.stdout)
        done = boxed("sh", "-c", "head -c 300000000 /dev/zero > /dev/shm/file; sleep 1000", options=("--memory", "200"))
        self.assertEqual(box.TOO_MUCH, done.returncode, done.stdout)

    def test_too_many_processes_are_an_end(self):
        done = boxed("sh", "-c", "for i in $(seq 60); do sleep 1000 & done; wait", options=("--processes", "20"))
        self.assertNotEqual(0, done.returncode)
        self.assertNotEqual(box.TIME_OVER, done.returncode, done.stdout)


PRESETS = {"version": 6, "configurePresets": [{"name": "debug", "binaryDir": "${sourceDir}/build/${presetName}",
           "cacheVariables": {"CMAKE_BUILD_TYPE": "Debug", "CMAKE_CXX_COMPILER": COMPILER}}]}
CMAKE = """
    cmake_minimum_required(VERSION 3.25)
    project(Sums LANGUAGES CXX)
    enable_testing()
    add_library(sums SHARED sums/sums.cpp)
    add_executable(sums-sums_test sums_test.cpp)
    target_link_libraries(sums-sums_test PRIVATE sums)
    target_compile_definitions(sums-sums_test PRIVATE PRECIOUS="${PRECIOUS}")
    add_test(NAME sums.sums_test COMMAND sums-sums_test)
    """
SUMS = """
    #include <string>
    #include <cstdio>
    // No mutant: 1 + 1
    int Sum(int a, int b) {
        return a + b;
    }
    int Product(int a, int b) {
        return a * b;
    }
    int Larger(int a, int b) {
        return a >= b ? a : b;
    }
    std::string Joined(const std::string& a, const std::string& b) {
        return a + b;
    }
    void Next(volatile long long& left) {
        left--;
    }
    void Run(volatile long long& left) {
        while (left) {
            Next(left);
        }
    }
    int Remove(const char* precious, const char* own) {
        const bool isOwn = true;
        return remove(isOwn ? own : precious);
    }
    """
TEST = """
    #include <cstdio>
    #include <string>
    int Sum(int, int);
    int Product(int, int);
    int Larger(int, int);
    std::string Joined(const std::string&, const std::string&);
    void Run(volatile long long&);
    int Remove(const char*, const char*);
    int Failed(const char* name) {
        printf("[  FAILED  ] Sums.%s\\n", name);
        return 1;
    }
    int main() {
        if (Sum(2, 3) != 5) return Failed("Sum");
        if (Product(4, 1) != 4) return Failed("Product");  // does not see a division
        if (Larger(2, 3) != 3 || Larger(3, 2) != 3) return Failed("Larger");
        if (Joined("a", "b") != "ab") return Failed("Joined");
        volatile long long left = 3;
        Run(left);
        if (left != 0) return Failed("Run");
        fclose(fopen("/tmp/own", "w"));
        if (Remove(PRECIOUS, "/tmp/own") != 0) return Failed("Remove");
    }
    """
EXPECTED = {
    "'+' to '-'": ("killed", "failure"),
    "'*' to '/'": ("survived", None),
    "'>=' to '>'": ("equivalent", None),
    "'>=' to '<'": ("killed", "failure"),
    "'+' to '-' #2": ("does not compile", None),
    "removed: Next(left)": ("killed", "hang"),
    "'--' to '++'": ("killed", "hang"),
    "removed: left--": ("killed", "hang"),
    "while negated": ("killed", "failure"),
    "true to false": ("killed", "failure"),
}


class MutateTest(unittest.TestCase):
    def setUp(self):
        self.project, self.precious = WORK / "sums", WORK / "sums-precious"
        shutil.rmtree(self.project, ignore_errors=True)
        self.precious.write_text("kept")
        self.write("CMakePresets.json", json.dumps(PRESETS))
        self.write("CMakeLists.txt", CMAKE.replace("${PRECIOUS}", str(self.precious)))
        self.write("sums/sums.cpp", SUMS)
        self.write("sums_test.cpp", TEST)
        self.entry = "sums/sums.cpp\treturn a >= b ? a : b;\t'>=' to '>'\tequal ones are the same\n"
        self.write("tests/mutation/equivalent.tsv", self.entry)

    def write(self, name, text):
        path = self.project / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(textwrap.dedent(text))

    def mutate(self, *arguments):
        return subprocess.run([SOURCE / "scripts/mutate", "--tree", self.project, *arguments], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=4 * PATIENCE)

    def test_each_outcome(self):
        before = (self.project / "sums/sums.cpp").read_text()
        done = self.mutate("--hang", "1", "sums", "100", "7")
        results = [json.loads(line) for line in (self.project / "build/mutate/sums.jsonl").read_text().splitlines()]
        # Of '+' to '-' the first is of Sum, the second of Joined: another line, the same text.
        self.assertEqual(EXPECTED, {one["change"]: (one["outcome"], one.get("how")) for one in results}, done.stdout)
        killers = {one["change"]: one.get("by") for one in results}
        self.assertEqual("sums.sums_test Sums.Sum", killers["'+' to '-'"])
        self.assertEqual("sums.sums_test Sums.Remove", killers["true to false"])
        self.assertIn("sums          9       7         1           1             1    87.5", done.stdout)
        self.assertIn("survived: sums/sums.cpp:9: arithmetic: '*' to '/': return a * b;", done.stdout)
        self.assertEqual(1, done.returncode)  # less than 95 of 100
        # The one whose files would have gone, and the sources.
        self.assertEqual("kept", self.precious.read_text())
        self.assertEqual(before, (self.project / "sums/sums.cpp").read_text())
        self.assertEqual(before, (self.project / "build/mutate/tree/sums/sums.cpp").read_text())

    def test_a_seed_picks_the_same_mutants(self):
        picked = [re.findall(r"^\S+:\d+: .*?(?=: \w)", self.mutate("--like", "'", "sums", "2", seed).stdout, re.MULTILINE)
                  for seed in ("3", "3")]
        self.assertEqual(picked[0], picked[1])
        self.assertGreaterEqual(len(picked[0]), 2)
        # Where a run ended the next one goes on, and adds to its results.
        self.mutate("--like", "'", "--skip", str(len(picked[0])), "sums", "1", "3")
        results = [json.loads(line) for line in (self.project / "build/mutate/sums.jsonl").read_text().splitlines()]
        places = [f"sums/sums.cpp:{one['line']}: {one['change']}" for one in results]
        self.assertEqual(picked[0], places[:len(picked[0])])
        self.assertEqual(len(set(places)), len(places))
        self.assertGreater(len(places), len(picked[0]))

    def test_what_could_be_changed_is_listed(self):
        listed = [line.split("\t")[2] for line in self.mutate("--list", "sums").stdout.splitlines()]
        self.assertEqual(sorted(EXPECTED), sorted(listed))

    def test_an_entry_without_its_mutant_is_stale(self):
        self.assertEqual((0, "1 equivalent mutants, 0 of them stale or wrong\n"), self.check(self.entry))
        for entry, text in ((self.entry.replace("a >= b", "a >= c"), "stale: sums/sums.cpp: return a >= c"),
                            (self.entry.replace("'>=' to '>'", "'>=' to '!='"), "stale"),
                            (self.entry.replace("sums.cpp", "gone.cpp"), "stale: sums/gone.cpp"),
                            (self.entry + self.entry, "stands there twice"), (self.entry.replace("\tequal", " equal"), "not file")):
            status, output = self.check(entry)
            self.assertEqual(1, status, entry)
            self.assertIn(text, output)

    def check(self, entry):
        self.write("tests/mutation/equivalent.tsv", entry)
        done = self.mutate("--check")
        return done.returncode, done.stdout

    def test_what_cannot_be_done_is_told(self):
        self.assertEqual(2, self.mutate("nix").returncode)
        self.write("sums_test.cpp", "int main() { return 1; }\n")
        self.write("sums/sums.cpp", "int Broken( {\n    return 1 >= 0;\n}\n")
        done = self.mutate("sums")
        self.assertEqual(2, done.returncode)
        self.assertIn("does not compile as it is", done.stdout)

    def test_a_test_that_fails_anyway_is_told_and_not_used(self):
        self.write("sums_test.cpp", "int main() { return 1; }\n")
        done = self.mutate("--like", "true", "sums")
        self.assertEqual(1, done.returncode)
        self.assertIn("not used, as it fails without a mutant: sums.sums_test", done.stdout)


if __name__ == "__main__":
    WORK.mkdir(parents=True, exist_ok=True)
    tried = boxed("true")
    if tried.returncode == box.NO_BOX or "unshare" in tried.stdout:
        print(f"skipped: there can be no box here: {tried.stdout.strip()}")
        sys.exit(77)
    unittest.main(verbosity=2)
