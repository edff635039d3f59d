#!/usr/bin/env python3
"""Compiles and runs every C++ snippet of the user docs against a build tree.

    doc-snippets.py --build-dir BUILD --work WORK [--cxx CXX] [--launcher L]
                    [--generator G] DOC.md...

Which blocks are snippets, and what becomes of them:
  - Every fenced block opened by ```cpp (or ```c++) is one snippet.
  - A snippet that contains `int main` is a whole program, compiled as it is.
  - Any other snippet is the body of a program: its `#include` lines go to the
    top of the file, the rest into `int main() { ... return 0; }`.
  - A snippet whose fence is preceded by the line `<!-- compile-only -->` is
    compiled but not run (for code that needs what a test has not got).
  - Each program is built by a CMake project that finds the build tree's
    package (find_package(VelvoxKit COMPONENTS Sandbox)) and defines
    VELVOX_RESOURCE_DIR as docs/using.md shows; `#line` directives make the
    compiler's messages name the document's lines.
  - It runs with a time limit, HOME and the XDG folders in a fresh temporary
    folder, and must exit 0.
A document that does not exist is skipped, so that one may be listed before it
is written.
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile

FENCE_OPEN = re.compile(r"^(\s*)```\s*(cpp|c\+\+)\s*$")
FENCE_CLOSE = re.compile(r"^\s*```\s*$")
COMPILE_ONLY = "<!-- compile-only -->"
WHOLE_PROGRAM = re.compile(r"\bint\s+main\s*\(")
RUN_SECONDS = 60


class Snippet:
    def __init__(self, document, line, lines, compile_only):
        self.document = document
        self.line = line  # the first line of code, 1-based
        self.lines = lines
        self.compile_only = compile_only
        stem = os.path.splitext(os.path.basename(document))[0]
        self.name = "%s-%d" % (re.sub(r"[^A-Za-z0-9]", "_", stem), line)

    def where(self):
        return "%s:%d" % (self.document, self.line)


def extract(document):
    snippets = []
    with open(document, encoding="utf-8") as file:
        lines = file.read().split("\n")
    index = 0
    while index < len(lines):
        opening = FENCE_OPEN.match(lines[index])
        if not opening:
            index += 1
            continue
        previous = next((l.strip() for l in reversed(lines[:index]) if l.strip()), "")
        indent = len(opening.group(1))
        start = index + 1
        end = start
        while end < len(lines) and not FENCE_CLOSE.match(lines[end]):
            end += 1
        if end == len(lines):
            raise SystemExit("%s:%d: the block is never closed" % (document, index + 1))
        body = [l[indent:] if l[:indent].strip() == "" else l for l in lines[start:end]]
        snippets.append(Snippet(document, start + 1, body, previous == COMPILE_ONLY))
        index = end + 1
    return snippets


def program(snippet):
    """The snippet as a translation unit, with #line directives into the document."""
    path = snippet.document.replace("\\", "\\\\").replace('"', '\\"')
    numbered = list(enumerate(snippet.lines, snippet.line))
    if any(WHOLE_PROGRAM.search(text) for _, text in numbered):
        return '#line %d "%s"\n%s\n' % (snippet.line, path, "\n".join(snippet.lines))
    includes = [(n, t) for n, t in numbered if t.lstrip().startswith("#include")]
    body = [(n, t) for n, t in numbered if not t.lstrip().startswith("#include")]
    out = []
    expected = None
    for part in (includes, None, body):
        if part is None:
            out += ["int main()", "{"]
            expected = None
            continue
        for number, text in part:
            if number != expected:
                out.append('#line %d "%s"' % (number, path))
            out.append(text)
            expected = number + 1
    out += ["return 0;", "}", ""]
    return "\n".join(out)


def write_if_changed(path, text):
    try:
        with open(path, encoding="utf-8") as file:
            if file.read() == text:
                return
    except FileNotFoundError:
        pass
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def run(command, **kwargs):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kwargs)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--work", required=True)
    parser.add_argument("--cxx")
    parser.add_argument("--launcher")
    parser.add_argument("--generator", default="Ninja")
    parser.add_argument("documents", nargs="+")
    arguments = parser.parse_args()

    snippets = []
    for document in arguments.documents:
        if os.path.exists(document):
            snippets += extract(document)
        else:
            print("skipped (not written yet): %s" % document)
    if not snippets:
        print("FAIL: no ```cpp block in %s" % ", ".join(arguments.documents))
        return 1

    sources = os.path.join(arguments.work, "sources")
    build = os.path.join(arguments.work, "build")
    os.makedirs(sources, exist_ok=True)
    wanted = {snippet.name + ".cpp" for snippet in snippets}
    for stale in set(os.listdir(sources)) - wanted:
        os.remove(os.path.join(sources, stale))
    for snippet in snippets:
        write_if_changed(os.path.join(sources, snippet.name + ".cpp"), program(snippet))

    project = os.path.join(os.path.dirname(os.path.abspath(__file__)), "snippets")
    configure = ["cmake", "-S", project, "-B", build, "-G", arguments.generator,
                 # The build tree's own package, exactly: a build directory may
                 # also hold files of an older layout at its top.
                 "-DVelvoxKit_DIR=" + os.path.join(os.path.abspath(arguments.build_dir), "lib", "cmake", "VelvoxKit"),
                 "-DSNIPPET_SOURCES=" + os.path.abspath(sources)]
    if arguments.cxx:
        configure.append("-DCMAKE_CXX_COMPILER=" + arguments.cxx)
    if arguments.launcher:
        configure.append("-DCMAKE_CXX_COMPILER_LAUNCHER=" + arguments.launcher)
    result = run(configure)
    if result.returncode != 0:
        print(result.stdout)
        print("FAIL: the snippets' project does not configure against %s" % arguments.build_dir)
        return 1
    # Every snippet is built (keep going), so that one broken snippet does not hide
    # another; the compiler's messages name the documents' lines.
    keep_going = ["-k", "0"] if arguments.generator == "Ninja" else ["-k"]
    built = run(["cmake", "--build", build, "--parallel", "2", "--"] + keep_going)
    if built.returncode != 0:
        print(built.stdout)
        print("FAIL: snippets do not build")
        return 1

    failed = 0
    for snippet in snippets:
        if snippet.compile_only:
            print("compiled: %s" % snippet.where())
            continue
        with tempfile.TemporaryDirectory(prefix="velvox-snippet-") as home:
            env = {key: value for key, value in os.environ.items()
                   if not key.startswith("XDG_") and not key.startswith("VELVOX_")}
            env["HOME"] = home
            for variable, folder in (("XDG_CONFIG_HOME", ".config"), ("XDG_DATA_HOME", ".local/share"),
                                     ("XDG_CACHE_HOME", ".cache"), ("XDG_STATE_HOME", ".local/state")):
                env[variable] = os.path.join(home, folder)
            try:
                result = run([os.path.join(build, snippet.name)], cwd=home, env=env, timeout=RUN_SECONDS)
            except subprocess.TimeoutExpired:
                print("FAIL: %s did not finish in %d s" % (snippet.where(), RUN_SECONDS))
                failed += 1
                continue
        if result.returncode != 0:
            print("FAIL: %s exited with %d:\n%s" % (snippet.where(), result.returncode, result.stdout))
            failed += 1
        else:
            print("ran: %s\n%s" % (snippet.where(), result.stdout.rstrip()))
    print("%d snippets, %d failed" % (len(snippets), failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
