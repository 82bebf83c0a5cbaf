"""The rules that tools/tidy checks; each is a function from the tree to its findings."""
import os
import re
import subprocess

# The floors of the house; a folder includes only folders on lower floors.
FLOORS = {
    "os": 0, "frame": 1, "memory": 2, "platform": 3, "sync": 4, "buffers": 5, "log": 5,
    "reactor": 6, "rudp": 6, "cache": 6, "threads": 7, "http": 7, "proactor": 8,
}
LONGEST_FUNCTION = 70
LONGEST_FILE = 500
REASON = re.compile(r"//.*\blong because\b", re.I)  # in the first ten lines of a file that is longer

TOOLKITS = ("glib", "X11/", "poll.h")  # whose loops examples plug into

STANDARD_HEADERS = set("""
    algorithm any array atomic barrier bit bitset cassert cctype cerrno cfenv cfloat charconv chrono cinttypes climits
    clocale cmath compare complex concepts condition_variable coroutine csetjmp csignal cstdarg cstddef cstdint cstdio
    cstdlib cstring ctime cuchar cwchar cwctype deque exception execution filesystem forward_list fstream functional
    future initializer_list iomanip ios iosfwd iostream istream iterator latch limits list locale map memory
    memory_resource mutex new numbers numeric optional ostream queue random ranges ratio regex scoped_allocator
    semaphore set shared_mutex source_location span sstream stack stdexcept stop_token streambuf string string_view
    system_error thread tuple type_traits typeindex typeinfo unordered_map unordered_set utility valarray variant vector
    version""".split())

# Where a ban does not hold: the operating-system boundary itself, and tests.
BOUNDARY = re.compile(r"^vel/os/linux/")
TESTS = re.compile(r".*_test\.cpp$|^vel/testing/")
NOWHERE = re.compile(r"(?!)")
BANS = [
    (r"\b(strcpy|strcat|sprintf|vsprintf|gets|stpcpy)\s*\(", "has no bound; use snprintf or memcpy", TESTS),
    (r"\bstrtok\s*\(", "keeps hidden state; use find_first_of", NOWHERE),
    (r"\b(rand|srand|srandom|drand48|lrand48)\s*\(", "belongs to the application; use vel::os::random_bytes or an "
     "injected generator", NOWHERE),
    (r"(\bu?sleep\s*\(|\bsleep_for\b|\bsleep_until\b|\bnanosleep\s*\()",
     "sleeps; wait for an event, a condition or a descriptor", BOUNDARY),
    (r"\b(atoi|atol|atoll|atof)\s*\(", "hides errors; use std::from_chars or strtol with its end", NOWHERE),
    (r"\bgetenv\s*\(", "reads the environment; only the boundary does", BOUNDARY),
    (r"\bsetlocale\s*\(", "changes the application's locale", NOWHERE),
    (r"\b(localtime|gmtime|asctime|ctime|strerror)\s*\(", "is not safe between threads; use the _r variant", NOWHERE),
    (r"\bsystem\s*\(|\bpopen\s*\(", "runs a shell", NOWHERE),
    (r"\balloca\s*\(", "has no bound; use a fixed array or the allocator", NOWHERE),
    (r"\berrno\b", "is translated in vel/os/linux/ alone", BOUNDARY),
    (r"\bvfork\s*\(|\bpthread_cancel\s*\(", "leaves locks behind", NOWHERE),
]
ALLOWED = re.compile(r"//\s*tidy: allowed, \S+")  # on the line itself, with the reason


class Tree:
    """The text files below a folder, by their path from there; what tools made is left out."""

    def __init__(self, root):
        self.root = root
        self.files = {}
        for folder, folders, names in os.walk(root):
            folders[:] = sorted(f for f in folders if not f.startswith((".", "build")))
            for name in sorted(names):
                path = os.path.relpath(os.path.join(folder, name), root)
                self.files[path] = None

    def text(self, path):
        if self.files[path] is None:
            with open(os.path.join(self.root, path), encoding="utf-8", errors="replace") as file:
                self.files[path] = file.read()
        return self.files[path]

    def cpp_files(self):
        return [f for f in self.files if f.endswith((".h", ".cpp"))]


TOKENS = re.compile(
    r"""//[^\n]*|/\*.*?\*/"""                              # comments
    r"""|\b\d[\w.']*"""                                    # numbers, whose ' is no quote
    r"""|R"(?P<mark>[^()\s]*)\(.*?\)(?P=mark)"|"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])*'"""  # literals
    r"""|^[ \t]*\#(?:\\\n|[^\n])*""",                      # preprocessor lines
    re.S | re.M)


def code_only(text):
    """The text with comments, literals and preprocessor lines blanked out; lines stay where they are."""
    return TOKENS.sub(lambda m: m[0] if m[0][0].isdigit() else re.sub(r"[^\n]", " ", m[0]), text)


def line_of(text, position):
    return text.count("\n", 0, position) + 1


def is_test(path):
    return path.endswith("_test.cpp") or path.startswith("vel/testing/")


def is_internal(tree, header):
    """Headers of the boundary, of the tests, and those that say so in their first line; the others are installed."""
    return header.startswith(("vel/os/", "vel/testing/")) or "(internal)" in tree.text(header).partition("\n")[0]


def public_headers(tree):
    return [f for f in tree.files if re.fullmatch(r"vel/.*\.h", f) and not is_internal(tree, f)]


def folder_of(path):
    """The folder of the house that a file belongs to: "vel/os/linux/x.cpp" is of "os"; None for the roots."""
    parts = path.split("/")
    return parts[1] if parts[0] == "vel" and len(parts) > 2 else None


def includes(text):
    """(line, name, quoted) of every include."""
    for number, line in enumerate(text.splitlines(), 1):
        match = re.match(r'\s*#\s*include\s*(?:<([^>]+)>|"([^"]+)")', line)
        if match:
            yield number, match[1] or match[2], match[2] is not None


def folder_lists(tree):
    """The words behind DEPENDS, SOURCES and TESTS of every folder."""
    lists = {}
    for path in tree.files:
        match = re.fullmatch(r"vel/(\w+)/CMakeLists\.txt", path)
        if not match:
            continue
        words = {"DEPENDS": [], "SOURCES": [], "TESTS": []}
        current = None
        for word in re.sub(r"#[^\n]*", "", tree.text(path)).replace("(", " ").replace(")", " ").split():
            if word in words:
                current = words[word]
            elif current is not None:
                current.append(word)
        lists[match[1]] = words
    return lists


def check_floors(tree):
    for folder, words in folder_lists(tree).items():
        where = f"vel/{folder}/CMakeLists.txt:1"
        if folder == "testing":
            continue
        if folder not in FLOORS:
            yield f"{where}: folder {folder} has no floor in tools/tidy_rules.py"
            continue
        for below in words["DEPENDS"]:
            if FLOORS.get(below, 99) >= FLOORS[folder]:
                yield f"{where}: {folder} depends on {below}, which is not on a lower floor"


def check_include_direction(tree):
    lists = folder_lists(tree)
    for path in tree.cpp_files():
        folder = folder_of(path)
        for number, name, quoted in includes(tree.text(path)):
            where = f"{path}:{number}"
            if quoted and path.startswith("vel/"):
                yield f'{where}: "{name}"; write <vel/...> from the root of the tree'
            if not name.startswith("vel/"):
                continue
            if name not in tree.files:
                yield f"{where}: <{name}> is not in the tree"
                continue
            yield from behind_the_counter(tree, path, name, where)
            yield from wrong_direction(path, folder, name, lists, where)


def behind_the_counter(tree, path, name, where):
    """Includes of what is not installed by what is, or by what only has what is."""
    if not is_internal(tree, name) or name == "vel/types.h":
        return
    if path.startswith("vel/") and path.endswith(".h") and not is_internal(tree, path):
        yield f"{where}: <{name}> is not installed, this header is; include it in the source file, or name this " \
              "header (internal) in its first line"
    if path.startswith(("examples/", "bench/")):
        yield f"{where}: <{name}> is not installed; use what users have"


def wrong_direction(path, folder, name, lists, where):
    target = folder_of(name)
    if name.startswith("vel/os/linux/") and folder != "os" and not is_test(path):
        yield f"{where}: <{name}> is behind the boundary"
    if folder is None or target == folder or name == "vel/types.h":
        return
    if target == "testing":
        if not is_test(path):
            yield f"{where}: <{name}> is for tests"
    elif folder != "testing" and target not in lists.get(folder, {"DEPENDS": []})["DEPENDS"]:
        yield f"{where}: {folder} does not stand on <{name}>; see DEPENDS in vel/{folder}/CMakeLists.txt"


def check_system_headers(tree):
    for path in tree.cpp_files():
        if not path.startswith(("vel/", "examples/")) or BOUNDARY.match(path):
            continue
        for number, name, quoted in includes(tree.text(path)):
            if quoted or name.startswith("vel/") or name in STANDARD_HEADERS:
                continue
            if is_test(path) and name.startswith(("gtest/", "gmock/")):
                continue
            if path.startswith("examples/") and name.startswith(TOOLKITS):
                continue
            yield f"{path}:{number}: <{name}> belongs below vel/os/linux/; elsewhere the C++ library and vel/os"


def functions(code):
    """(first line, last line) of every outermost function body in `code`, as code_only gives it."""
    scopes = []      # "scope" for namespaces and classes, "function", "braces" for initialisers
    start = 0        # where the declaration at hand begins
    begins = []      # start of the declaration of each open brace
    for match in re.finditer(r"[;{}]", code):
        position = match.start()
        inside = "function" in scopes or "braces" in scopes
        if match[0] == ";":
            start = start if inside else position + 1
        elif match[0] == "{":
            scopes.append("braces" if inside else brace_kind(code[start:position]))
            begins.append(start)
            start = start if scopes[-1] != "scope" else position + 1
        elif scopes:
            kind, begin = scopes.pop(), begins.pop()
            follows = code[position + 1:].lstrip()[:1] if kind == "function" else ""
            if kind == "function" and follows not in (",", "{"):  # else it was a member's initialiser
                head = code[begin:position]
                first = begin + len(head) - len(head.lstrip())
                yield line_of(code, first), line_of(code, position)
            ended = kind == "scope" or (kind == "function" and follows not in (",", "{"))
            start = position + 1 if ended else start


def brace_kind(head):
    head = re.sub(r"\b(public|protected|private)\s*:|\[\[.*?\]\]", " ", head, flags=re.S).strip()
    bare = re.sub(r"^template\s*<.*?>\s*(?=\w)", "", head, flags=re.S)
    if re.match(r"(inline\s+|export\s+)*(namespace|class|struct|union|enum|extern)\b", bare) and not \
            re.search(r"\)\s*(const|noexcept|override|final|\s)*$", bare):
        return "scope"
    outside = re.sub(r"operator\s*[=!<>]+|\([^()]*\)", "()", re.sub(r"\([^()]*\)", "()", head))
    if ")" in head and not re.search(r"(?<![=!<>])=(?!=)", outside):
        return "function"
    return "braces" if head or not bare else "scope"


def check_sizes(tree):
    for path in tree.cpp_files():
        text = tree.text(path)
        lines = text.splitlines()
        if len(lines) > LONGEST_FILE and not any(REASON.search(line) for line in lines[:10]):
            yield f"{path}:1: {len(lines)} lines; split it, or say in its head why it is long because …"
        for first, last in functions(code_only(text)):
            if last - first + 1 > LONGEST_FUNCTION:
                yield f"{path}:{first}: a function of {last - first + 1} lines; {LONGEST_FUNCTION} is the most"


def check_banned_calls(tree):
    bans = [(re.compile(pattern), why, spared) for pattern, why, spared in BANS]
    for path in tree.cpp_files():
        if not path.startswith(("vel/", "examples/", "fuzz/")):
            continue
        text = tree.text(path)
        lines = text.splitlines()
        for number, line in enumerate(code_only(text).splitlines(), 1):
            for pattern, why, spared in bans:
                match = pattern.search(line)
                if match and not spared.match(path) and not ALLOWED.search(lines[number - 1]):
                    yield f"{path}:{number}: {match[0].rstrip(' (')} {why}"


def check_heads(tree):
    for path in tree.cpp_files():
        text = tree.text(path)
        if not re.match(r"// \w.{11,}", text):
            yield f"{path}:1: the first line says the file's role in a comment"
        if not path.endswith(".h"):
            continue
        if "#pragma once" not in text:
            yield f"{path}:1: no #pragma once"
        for match in re.finditer(r"^\s*using\s+namespace\b", code_only(text), re.M):
            yield f"{path}:{line_of(text, match.end())}: using namespace in a header reaches every user"


def check_platform_ifdefs(tree):
    for path in tree.cpp_files():
        if not path.startswith(("vel/", "examples/")) or path.startswith("vel/os/"):
            continue
        for match in re.finditer(r"^\s*#\s*(?:el)?if.*?\b(_WIN32|_WIN64|__linux__|__unix__|__APPLE__)\b",
                                 tree.text(path), re.M):
            yield f"{path}:{line_of(tree.text(path), match.end())}: {match[1]}; systems differ below vel/os/ alone"


def check_sources_listed(tree):
    lists = folder_lists(tree)
    for path in tree.files:
        if not path.endswith(".cpp"):
            continue
        folder = folder_of(path)
        if folder in lists:
            kind = "TESTS" if is_test(path) else "SOURCES"
            if path.split("/", 2)[2] not in lists[folder][kind]:
                yield f"{path}:1: not in {kind} of vel/{folder}/CMakeLists.txt"
        elif path.startswith(("bench/", "fuzz/", "examples/")) and not listed_above(tree, path):
            yield f"{path}:1: no CMakeLists.txt beside or above it builds it"


def listed_above(tree, path):
    stem = os.path.splitext(os.path.basename(path))[0]
    name = re.sub(r"_(bench|fuzz)$", "", stem)
    folder = os.path.dirname(path)
    while folder:
        lists = os.path.join(folder, "CMakeLists.txt")
        if lists in tree.files and re.search(rf"\b({stem}|{name})\b", re.sub(r"#[^\n]*", "", tree.text(lists))):
            return True
        folder = os.path.dirname(folder)
    return False


UMBRELLA = "vel/vel.h"


def umbrella_text(tree):
    headers = sorted(f for f in public_headers(tree) if f != UMBRELLA)
    head = "// Every public header of the library; ./dev format writes this list.\n#pragma once\n\n"
    return head + "".join(f"#include <{header}>\n" for header in headers)


def check_umbrella(tree):
    if UMBRELLA not in tree.files or tree.text(UMBRELLA) != umbrella_text(tree):
        yield f"{UMBRELLA}:1: does not list exactly the public headers; run ./dev format"


def check_documents(tree):
    """Links between the documents lead somewhere, and a program that says which file it is holds that very text."""
    for path in tree.files:
        if not path.endswith(".md"):
            continue
        text = tree.text(path)
        prose = re.sub(r"```.*?```", lambda m: re.sub(r"[^\n]", " ", m[0]), text, flags=re.S)
        for match in re.finditer(r"\]\(([^)#\s]+)[^)]*\)", prose):
            target = os.path.normpath(os.path.join(os.path.dirname(path), match[1]))
            if "://" not in match[1] and not os.path.exists(os.path.join(tree.root, target)):
                yield f"{path}:{line_of(prose, match.start())}: link to {match[1]}, which is not there"
        for match in re.finditer(r"<!-- text of (\S+) -->\n```\w*\n(.*?)```", text, re.S):
            if match[1] not in tree.files or tree.text(match[1]) != match[2]:
                yield f"{path}:{line_of(text, match.start())}: the program below is not the text of {match[1]}"


CHECKS = [check_floors, check_include_direction, check_system_headers, check_sizes, check_banned_calls, check_heads,
          check_platform_ifdefs, check_sources_listed, check_umbrella, check_documents]


def check(tree):
    return [finding for rule in CHECKS for finding in rule(tree)]


def unformatted(tree):
    files = [os.path.join(tree.root, f) for f in tree.cpp_files()]
    command = ["clang-format", "--dry-run", "--Werror", "--ferror-limit=1"]
    found = set()
    for first in range(0, len(files), 20):
        result = subprocess.run(command + files[first:first + 20], capture_output=True, text=True)
        found |= set(re.findall(r"^(.+?:\d+):\d+: error: (?=code should)", result.stderr, re.M))
        if result.returncode != 0 and not found:
            found.add(f"clang-format failed: {result.stderr.strip()[:200]}")
    return [f"{os.path.relpath(f, tree.root)}: not as clang-format has it; run ./dev format" for f in found]
