"""Shows every rule of tools/tidy a sample that breaks it: a rule that cannot fail is found here."""
import os
import shutil
import tempfile

import tidy_rules

# A small tree without a finding.
GOOD = {
    "vel/os/CMakeLists.txt": "vel_folder(os SOURCES linux/clock.cpp)\n",
    "vel/os/clock.h": "// Clocks of the boundary.\n#pragma once\n",
    "vel/os/linux/tick.h": "// Ticks on this system.\n#pragma once\n#include <time.h>\n",
    "vel/os/linux/clock.cpp": "// Clocks on this system.\n#include <errno.h>\n#include <vel/os/clock.h>\n"
                              "void pause_ms() { if (errno == 4) usleep(1); }\n",
    "vel/frame/CMakeLists.txt": "vel_folder(frame\n    DEPENDS os\n    SOURCES\n        error.cpp\n    TESTS\n"
                                "        error_test.cpp\n)\n",
    "vel/frame/error.h": "// Error codes of threads.\n#pragma once\n\n#include <string>\n",
    "vel/frame/error.cpp": "// Error codes of threads.\n#include <vel/frame/error.h>\n#include <vel/os/clock.h>\n\n"
                           "// sprintf( in a comment, and \"sleep(\" in a string, are no calls.\n"
                           "const char* text = \"sleep(1)\";\n",
    "vel/frame/error_test.cpp": "// Error codes one by one.\n#include <gtest/gtest.h>\n#include <vel/frame/error.h>\n",
    "vel/frame/texts.h": "// Texts of the codes (internal).\n#pragma once\n\n#include <vel/os/clock.h>\n",
    "vel/vel.h": "// Every public header of the library; ./dev format writes this list.\n#pragma once\n\n#include <vel/frame/error.h>\n#include <vel/memory/list.h>\n",
    "vel/memory/CMakeLists.txt": "vel_folder(memory\n    DEPENDS frame os\n    SOURCES\n    TESTS\n)\n",
    "vel/memory/list.h": "// Doubly linked list.\n#pragma once\n\n#include <vel/frame/error.h>\n",
    "bench/CMakeLists.txt": "vel_bench(list)\n",
    "bench/list_bench.cpp": "// Lists against others.\n#include <uv.h>\n",
    "examples/CMakeLists.txt": "add_executable(echo echo.cpp)\nadd_executable(ping ping.cpp)\n",
    "examples/ping.cpp": "// Pings a server.\nint main() {}\n",
    "examples/echo.cpp": "// Echoes what it is sent.\nint main() {}\n",
    "README.md": "[echo](examples/echo.cpp)\n\n<!-- text of examples/echo.cpp -->\n```cpp\n"
                 "// Echoes what it is sent.\nint main() {}\n```\n",
}

HEAD = "// Some role of a file.\n"
LONG_BODY = "    step();\n" * 69


def with_line(path, line):
    return {path: GOOD[path] + line + "\n"}


# What is changed in the tree, and what the one finding must say.
BAD = [
    (with_line("vel/frame/error.h", "#include <vel/memory/list.h>"), "error.h:5: frame does not stand on"),
    (with_line("vel/frame/error.h", "#include <vel/os/clock.h>"), "error.h:5: <vel/os/clock.h> is not installed"),
    (with_line("vel/frame/error.h", "#include <vel/frame/texts.h>"), "error.h:5: <vel/frame/texts.h> is not installed"),
    (with_line("bench/list_bench.cpp", "#include <vel/frame/texts.h>"), "use what users have"),
    ({"vel/memory/queue.h": HEAD + "#pragma once\n"}, "vel.h:1: does not list exactly"),

    (with_line("vel/frame/error.cpp", "#include <vel/frame/gone.h>"), "is not in the tree"),
    (with_line("vel/frame/error.cpp", "#include <vel/os/linux/tick.h>"), "tick.h> is behind the boundary"),
    (with_line("examples/ping.cpp", "#include <vel/os/clock.h>"), "ping.cpp:3: <vel/os/clock.h> is not installed"),
    (with_line("vel/frame/error.cpp", '#include "error.h"'), "write <vel/...>"),
    (with_line("vel/frame/error.cpp", "#include <unistd.h>"), "error.cpp:7: <unistd.h> belongs below"),
    (with_line("vel/memory/list.h", "#include <string.h>"), "<string.h> belongs below"),
    ({"vel/memory/CMakeLists.txt": "vel_folder(memory\n    DEPENDS frame os platform\n)\n"},
     "memory depends on platform"),
    ({"vel/attic/CMakeLists.txt": "vel_folder(attic)\n"}, "attic has no floor"),
    ({"vel/frame/error.cpp": HEAD + "void f() {\n" + LONG_BODY + "}\n"}, "error.cpp:2: a function of 71 lines"),
    ({"vel/frame/error.cpp": HEAD + "namespace a {\nstruct B : C {\n    B(int n = {}) : x_{1}, y_{n} {\n" + LONG_BODY
      + "    }\n};\n}\n"}, "error.cpp:4: a function of 71 lines"),
    ({"vel/frame/error.cpp": HEAD + "TEST(A, B) {\n    auto f = [] {\n" + LONG_BODY + "    };\n}\n"},
     "error.cpp:2: a function of 73 lines"),
    ({"vel/frame/error.cpp": HEAD + "int x;\n" * 500}, "501 lines; split it"),
    (with_line("vel/frame/error.cpp", "void f(char* a) { strcpy(a, text); }"), "error.cpp:7: strcpy has no bound"),
    (with_line("vel/frame/error_test.cpp", "void f() { std::this_thread::sleep_for(ms); }"), "sleep_for sleeps"),
    (with_line("vel/frame/error.cpp", "int f() { return errno; }"), "errno is translated"),
    (with_line("vel/frame/error.cpp", "auto f() { return getenv(text); }"), "getenv reads the environment"),
    (with_line("vel/frame/error.cpp", "auto s = R\"(\")\"; int n = 1'000; auto r = rand();"), "rand belongs"),
    ({"vel/frame/error.cpp": "\n" + GOOD["vel/frame/error.cpp"]}, "error.cpp:1: the first line says"),
    ({"vel/frame/error.h": HEAD}, "no #pragma once"),
    (with_line("vel/frame/error.h", "using namespace std;"), "error.h:5: using namespace"),
    (with_line("vel/frame/error.cpp", "#ifdef __linux__\n#endif"), "error.cpp:7: __linux__"),
    ({"vel/frame/other.cpp": HEAD}, "not in SOURCES of vel/frame"),
    ({"vel/frame/other_test.cpp": HEAD}, "not in TESTS of vel/frame"),
    ({"bench/cdr_bench.cpp": HEAD}, "cdr_bench.cpp:1: no CMakeLists.txt"),
    ({"examples/echo.cpp": GOOD["examples/echo.cpp"] + "\n"}, "README.md:3: the program below is not"),
    (with_line("README.md", "[gone](docs/gone.md)"), "link to docs/gone.md"),
]


def findings(files, rules=tidy_rules.check):
    root = tempfile.mkdtemp()
    try:
        for path, text in files.items():
            os.makedirs(os.path.join(root, os.path.dirname(path)), exist_ok=True)
            with open(os.path.join(root, path), "w", encoding="utf-8") as file:
                file.write(text)
        return rules(tidy_rules.Tree(root))
    finally:
        shutil.rmtree(root)


def formatting_fails():
    if shutil.which("clang-format") is None:
        return []
    found = findings({"a.cpp": "int  x ;\n", "b.cpp": "int x;\n"}, tidy_rules.unformatted)
    return [] if len(found) == 1 and found[0].startswith("a.cpp:1") else [f"formatting: found {found}"]


def run():
    wrong = [f"a finding in the good tree: {f}" for f in findings(GOOD)]
    for change, expected in BAD:
        found = findings({**GOOD, **change})
        if len(found) != 1 or expected not in found[0]:
            wrong.append(f"wanted '{expected}' for {sorted(change)}, found {found}")
    wrong += formatting_fails()
    for line in wrong:
        print(line)
    print(f"tidy self-test: {len(BAD)} samples, {len(wrong)} wrong")
    return 1 if wrong else 0
