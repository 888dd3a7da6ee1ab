#!/usr/bin/env python3
"""Mutation runner: how many small faults in the library does the plain suite catch?

One mutant at a time, it changes one line of the library's sources (pipeline/utils/gainmap/*.cpp,
*.h), rebuilds in its own build directory and runs the plain suite with CTest. A mutant is killed
when a test fails or times out, survives when every test passes, and is left out of the score when
it does not build (-Werror counts). The plain suite is CTest's tests and then the explorer's
interleaving scenarios, which compile their own copy of the library's sources. Kinds of change:

  cmp      flip a comparison (== and !=, < and >=, > and <=)
  negate   negate the condition of an if or a while
  drop     drop a statement that stands on one line
  const    move an integer constant by one (+1)

The candidate sites are listed from the pristine sources and sorted; --seed and --count sample
the same mutants every time from the same sources. Run by hand, not by CI:

  scripts/mutate.py --list                         every candidate site
  scripts/mutate.py --seed 17 --count 50 > mutate.log 2>&1 &

The source is restored after each mutant, also on Ctrl-C or SIGTERM.
"""

import argparse
import random
import re
import signal
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SOURCE_DIR = ROOT / "pipeline/utils/gainmap"

COMPARISON_FLIPS = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
# A binary comparison as clang-format writes it: spaces around it, so that templates, shifts,
# arrows and stream operators do not match.
COMPARISON = re.compile(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)")
CONDITION = re.compile(r"\b(if|while)\s*\(")
INTEGER = re.compile(r"(?<![\w.])(\d+)([uUlL]*)(?![\w.])")
# A statement worth dropping starts with an identifier, a member access or an increment; a
# declaration (type then name) is left alone, since dropping it does not build.
DECLARATION = re.compile(r"^(const\s|static\s|constexpr\s|auto\b|"
                         r"[\w:]+(<.*>)?(\s+const)?[\s&*]+\w+\s*[=({;\[])")
NOT_DROPPABLE = re.compile(r"^(return|break|continue|case|default|using|typedef|template|"
                           r"namespace|class|struct|public|private|protected|friend|else|do|enum)\b"
                           r"|^~?[A-Z]\w*\(|.*(GMP_GUARDED_BY|override|= delete|= default|"
                           r"__attribute__|GMP_HOT_INLINE|GMP_COLD)|^};")


@dataclass(frozen=True, order=True)
class Mutant:
    path: str  # relative to ROOT
    line: int  # 1-based
    column: int  # 0-based start of the change
    kind: str
    old: str  # text replaced at column
    new: str

    def describe(self) -> str:
        return f"{self.path}:{self.line}: {self.kind}: '{self.old}' -> '{self.new}'"


def mask_line(line: str, in_block_comment: bool):
    """The line with comments, string and char literals blanked (same length), and whether a
    block comment is still open at its end."""
    out = []
    i = 0
    n = len(line)
    while i < n:
        if in_block_comment:
            end = line.find("*/", i)
            if end < 0:
                out.append(" " * (n - i))
                return "".join(out), True
            out.append(" " * (end + 2 - i))
            i = end + 2
            in_block_comment = False
            continue
        c = line[i]
        if line.startswith("//", i):
            out.append(" " * (n - i))
            break
        if line.startswith("/*", i):
            in_block_comment = True
            out.append("  ")
            i += 2
            continue
        if c in "\"'":
            j = i + 1
            while j < n and line[j] != c:
                j += 2 if line[j] == "\\" else 1
            out.append(c + " " * (min(j, n) - i - 1) + (c if j < n else ""))
            i = j + 1
            continue
        out.append(c)
        i += 1
    return "".join(out), in_block_comment


def matching_paren(text: str, open_index: int) -> int:
    depth = 0
    for i in range(open_index, len(text)):
        if text[i] == "(":
            depth += 1
        elif text[i] == ")":
            depth -= 1
            if depth == 0:
                return i
    return -1


def sites_in_file(path: Path):
    rel = str(path.relative_to(ROOT))
    lines = path.read_text().split("\n")
    in_comment = False
    previous_code = ";"
    for number, raw in enumerate(lines, start=1):
        code, in_comment = mask_line(raw, in_comment)
        stripped = code.strip()
        if not stripped:
            continue
        if stripped.startswith("#") or stripped.startswith("static_assert"):
            previous_code = stripped
            continue
        for m in COMPARISON.finditer(code):
            yield Mutant(rel, number, m.start(), "cmp", m.group(1), COMPARISON_FLIPS[m.group(1)])
        for m in CONDITION.finditer(code):
            open_index = m.end() - 1
            close = matching_paren(code, open_index)
            # A literal condition (if (false) in a macro) is there for the compiler, not the run.
            if close > 0 and not re.fullmatch(r"\((true|false|\d+)\)", code[open_index:close + 1]):
                condition = raw[open_index:close + 1]
                yield Mutant(rel, number, open_index, "negate", condition, f"(!{condition})")
        for m in INTEGER.finditer(code):
            value = int(m.group(1))
            yield Mutant(rel, number, m.start(1), "const", m.group(1), str(value + 1))
        starts_statement = previous_code.endswith((";", "{", "}", ":"))
        if (starts_statement and stripped.endswith(";") and not raw.rstrip().endswith("\\")
                and code.count("(") == code.count(")") and not NOT_DROPPABLE.match(stripped)
                and not DECLARATION.match(stripped)):
            column = len(raw) - len(raw.lstrip())
            yield Mutant(rel, number, column, "drop", raw.strip(), "")
        previous_code = stripped


def all_sites():
    files = sorted(p for p in SOURCE_DIR.iterdir() if p.suffix in (".cpp", ".h"))
    return sorted(site for path in files for site in sites_in_file(path))


def apply(site: Mutant, original: str) -> str:
    lines = original.split("\n")
    line = lines[site.line - 1]
    assert line[site.column:site.column + len(site.old)] == site.old, site
    lines[site.line - 1] = line[:site.column] + site.new + line[site.column + len(site.old):]
    return "\n".join(lines)


class Restorer:
    """Puts the pristine text back whatever ends the run."""

    def __init__(self):
        self.path = None
        self.text = None

    def hold(self, path: Path, text: str):
        self.path, self.text = path, text

    def restore(self):
        if self.path is not None:
            self.path.write_text(self.text)
            self.path = None


def run(command, log):
    """Runs `command` in the repository; its status, output and seconds."""
    started = time.monotonic()
    result = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True)
    if log:
        log.write(result.stdout)
        log.flush()
    return result.returncode, result.stdout, time.monotonic() - started


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--list", action="store_true", help="print every candidate site and stop")
    parser.add_argument("--seed", type=int, default=17)
    parser.add_argument("--count", type=int, default=50, help="mutants to run (0: every site)")
    parser.add_argument("--build-dir", default="build-mutate")
    parser.add_argument("--jobs", type=int, default=2, help="build jobs")
    parser.add_argument("--test-timeout", type=int, default=120,
                        help="seconds per test; a mutant that hangs a test is killed")
    parser.add_argument("--ctest-args", default="",
                        help="more CTest arguments, e.g. '-E Sim' (the same for runs you compare)")
    parser.add_argument("--log", default=None, help="build and test output of every mutant")
    args = parser.parse_args()

    sites = all_sites()
    if args.list:
        for site in sites:
            print(site.describe())
        print(f"{len(sites)} sites")
        return 0
    chosen = sites if args.count <= 0 or args.count >= len(sites) else \
        sorted(random.Random(args.seed).sample(sites, args.count))
    print(f"{len(chosen)} mutants of {len(sites)} sites, seed {args.seed}", flush=True)

    build = ROOT / args.build_dir
    log = open(args.log, "w") if args.log else None
    if not (build / "build.ninja").exists():
        code, _, _ = run(["cmake", "-S", ".", "-B", str(build), "-G", "Ninja",
                          "-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O1",
                          "-DGAINMAP_SCHEDULING_POINTS=ON"], log)
        if code != 0:
            print("configure failed", file=sys.stderr)
            return 2
    ctest = ["ctest", "--test-dir", str(build), "--stop-on-failure", "--timeout",
             str(args.test_timeout)] + args.ctest_args.split()
    scenarios = ["timeout", str(args.test_timeout),
                 str(build / "pipeline/utils/gainmap/tests/explore/gainmap_explore_pool_scenarios")]

    def suite():
        """CTest, then the scenarios: the status, output and seconds of the first that fails."""
        code, output, seconds = run(ctest, log)
        if code != 0:
            return code, output, seconds
        code, more, more_seconds = run(scenarios, log)
        return code, output + more, seconds + more_seconds

    code, _, _ = run(["cmake", "--build", str(build), f"-j{args.jobs}"], log)
    if code != 0:
        print("the pristine sources do not build", file=sys.stderr)
        return 2
    code, output, seconds = suite()
    if code != 0:
        print(output[-3000:], file=sys.stderr)
        print("the pristine suite fails", file=sys.stderr)
        return 2
    print(f"pristine suite passes in {seconds:.0f} s", flush=True)

    restorer = Restorer()

    def stop(signum, _frame):
        restorer.restore()
        sys.exit(128 + signum)

    signal.signal(signal.SIGINT, stop)
    signal.signal(signal.SIGTERM, stop)

    killed, survivors, unbuilt = 0, [], []
    try:
        for n, site in enumerate(chosen, start=1):
            path = ROOT / site.path
            original = path.read_text()
            restorer.hold(path, original)
            path.write_text(apply(site, original))
            if log:
                log.write(f"\n===== mutant {n}: {site.describe()}\n")
            code, _, _ = run(["cmake", "--build", str(build), f"-j{args.jobs}"], log)
            if code != 0:
                verdict = "not built"
                unbuilt.append(site)
            else:
                code, output, seconds = suite()
                if code == 0:
                    verdict = "SURVIVED"
                    survivors.append(site)
                else:
                    failed = re.findall(r"\d+ - (\S+) \(", output) or \
                        re.findall(r"^(\S+): .*FAILED", output, re.M)
                    verdict = f"killed by {failed[0] if failed else 'the suite'}"
                    killed += 1
            restorer.restore()
            print(f"[{n}/{len(chosen)}] {verdict}: {site.describe()}", flush=True)
    finally:
        restorer.restore()
        # Rebuild the pristine sources, so that the build directory matches them.
        run(["cmake", "--build", str(build), f"-j{args.jobs}"], log)

    print()
    for site in unbuilt:
        print(f"not built: {site.describe()}")
    for site in survivors:
        print(f"survived: {site.describe()}")
    total = killed + len(survivors)
    percent = 100.0 * killed / total if total else 0.0
    print(f"score: {killed}/{total} killed ({percent:.1f} %), {len(unbuilt)} not built, "
          f"seed {args.seed}, count {args.count}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
