#!/usr/bin/env python3
"""Compares every source list of Android.bp with the sources CMake builds.

    scripts/compare-android-bp.py ANDROID_BP CMAKE_BUILD_DIR

CMAKE_BUILD_DIR must have been configured with a codemodel-v2 query of CMake's file API. Every
module of Android.bp that compiles sources names the CMake targets it mirrors (MODULE_TARGETS);
every CMake target that compiles sources is either mirrored or named in CMAKE_ONLY. Prints each
difference and exits 1 when there is any.
"""

import glob
import json
import os
import re
import sys

# Android.bp module -> the CMake targets whose compiled sources it must list, all of them.
MODULE_TARGETS = {
    "libqelcam_gainmappool": ["qelcam_gainmappool_objs"],
    "libqelcam_gainmappool_static": ["qelcam_gainmappool_objs"],
    "libqelcam_platform_host": ["qelcam_platform_host"],
    "libqelcam_chrome_trace_check": ["chrome_trace_check"],
    "libqelcam_gainmappool_test": ["gainmap_tests"],
    "libqelcam_gainmappool_test_host": ["gainmap_tests"],
    "libqelcam_platform_host_test": ["host_platform_tests"],
    "libqelcam_platform_host_test_host": ["host_platform_tests"],
    "libqelcam_gainmappool_benchmark": ["gainmap_bench"],
}

# CMake targets that Android.bp deliberately does not build.
CMAKE_ONLY = {
    "gainmap-sim": "the simulator is a host tool run from scripts/run-sim.sh",
    "gainmap_sim_tests": "they run the simulator program",
    "gainmap_model_driver": "the reference model's driver holds and drains the host's queues",
    "gainmap_model": "it runs the model's driver",
    "gainmap_soak": "it counts image memory through the host's heap statistics",
    "gainmap_fuzz": "a libFuzzer program, built by scripts/test.sh fuzz",
    "gainmap_explore": "the explorer's scheduler, a host tool for the interleaving scenarios",
    "gainmap_explore_platform": "the host platform with the explorer's task manager",
    "gainmap_explore_selftest": "it tests the explorer's scheduler",
    "gainmap_explore_pool": "the pool with scheduling points, built only for the explorer",
    "gainmap_explore_pool_scenarios": "it runs the pool under the explorer",
}


class BlueprintError(Exception):
    pass


TOKEN = re.compile(
    r'\s+|//[^\n]*|/\*.*?\*/|(?P<str>"(?:\\.|[^"\\])*")|(?P<word>[A-Za-z_][A-Za-z0-9_]*)'
    r"|(?P<int>-?[0-9]+)|(?P<punct>[{}\[\]:,=+])",
    re.S,
)


def tokenize(text):
    tokens = []
    pos = 0
    while pos < len(text):
        match = TOKEN.match(text, pos)
        if not match:
            line = text.count("\n", 0, pos) + 1
            raise BlueprintError(f"line {line}: cannot read {text[pos:pos + 20]!r}")
        pos = match.end()
        kind = match.lastgroup
        if kind:
            tokens.append((kind, match.group(kind)))
    return tokens


class Parser:
    """Reads the Blueprint subset that build files use: modules, variables, +, lists, maps."""

    def __init__(self, text):
        self.tokens = tokenize(text)
        self.pos = 0
        self.variables = {}

    def peek(self):
        return self.tokens[self.pos] if self.pos < len(self.tokens) else (None, None)

    def take(self, value=None):
        kind, text = self.peek()
        if kind is None or (value is not None and text != value):
            raise BlueprintError(f"expected {value or 'more'}, found {text!r}")
        self.pos += 1
        return kind, text

    def modules(self):
        found = []
        while self.peek()[0] is not None:
            _, word = self.take()
            if self.peek()[1] in ("=", "+"):
                operator = self.take()[1]
                if operator == "+":
                    self.take("=")
                    self.variables[word] = self.add(self.variables[word], self.value())
                else:
                    self.variables[word] = self.value()
            else:
                self.take("{")
                found.append((word, self.properties("}")))
        return found

    def properties(self, closing):
        props = {}
        while self.peek()[1] != closing:
            _, name = self.take()
            self.take(":") if self.peek()[1] == ":" else self.take("=")
            props[name] = self.value()
            if self.peek()[1] == ",":
                self.take(",")
        self.take(closing)
        return props

    def value(self):
        result = self.operand()
        while self.peek()[1] == "+":
            self.take("+")
            result = self.add(result, self.operand())
        return result

    def operand(self):
        kind, text = self.take()
        if kind == "str":
            return json.loads(text)
        if kind == "int":
            return int(text)
        if text == "[":
            items = []
            while self.peek()[1] != "]":
                items.append(self.value())
                if self.peek()[1] == ",":
                    self.take(",")
            self.take("]")
            return items
        if text == "{":
            return self.properties("}")
        if text in ("true", "false"):
            return text == "true"
        if text in self.variables:
            return self.variables[text]
        raise BlueprintError(f"unknown value {text!r}")

    @staticmethod
    def add(left, right):
        if isinstance(left, dict):
            return {**left, **right}
        return left + right


def blueprint_sources(path):
    root = os.path.dirname(os.path.abspath(path))
    with open(path, encoding="utf-8") as f:
        modules = Parser(f.read()).modules()
    by_name = {props.get("name"): props for _, props in modules}

    def sources(props, seen):
        srcs = []
        for default in props.get("defaults", []):
            if default in seen:
                raise BlueprintError(f"defaults loop through {default}")
            if default not in by_name:
                raise BlueprintError(f"unknown defaults module {default}")
            srcs += sources(by_name[default], seen | {default})
        for src in props.get("srcs", []):
            if "*" in src:
                srcs += sorted(os.path.relpath(p, root) for p in glob.glob(os.path.join(root, src)))
            else:
                srcs.append(os.path.normpath(src))
        return srcs

    result = {}
    for kind, props in modules:
        if kind == "cc_defaults":
            continue
        srcs = sources(props, {props.get("name")})
        if srcs:
            result[props["name"]] = set(srcs)
    return result


def cmake_sources(build_dir):
    reply = os.path.join(build_dir, ".cmake", "api", "v1", "reply")
    indexes = sorted(glob.glob(os.path.join(reply, "index-*.json")))
    if not indexes:
        raise SystemExit(f"no CMake file-API reply in {reply}; configure with a codemodel-v2 query")
    with open(indexes[-1], encoding="utf-8") as f:
        index = json.load(f)
    codemodel_file = index["reply"]["codemodel-v2"]["jsonFile"]
    with open(os.path.join(reply, codemodel_file), encoding="utf-8") as f:
        codemodel = json.load(f)
    source_root = codemodel["paths"]["source"]
    result = {}
    for target_ref in codemodel["configurations"][0]["targets"]:
        with open(os.path.join(reply, target_ref["jsonFile"]), encoding="utf-8") as f:
            target = json.load(f)
        compiled = set()
        for source in target.get("sources", []):
            if "compileGroupIndex" not in source or source.get("isGenerated"):
                continue
            path = source["path"]
            if os.path.isabs(path):
                path = os.path.relpath(path, source_root)
            compiled.add(os.path.normpath(path))
        if compiled:
            result[target["name"]] = compiled
    return result


def compare(bp, cmake):
    problems = []
    for module, srcs in sorted(bp.items()):
        if module not in MODULE_TARGETS:
            problems.append(f"Android.bp module {module} compiles sources but mirrors no CMake "
                            "target: add it to MODULE_TARGETS in scripts/compare-android-bp.py")
            continue
        expected = set()
        for target in MODULE_TARGETS[module]:
            if target not in cmake:
                problems.append(f"CMake target {target} (mirrored by Android.bp module {module}) "
                                "does not exist or compiles nothing")
            expected |= cmake.get(target, set())
        targets = ", ".join(MODULE_TARGETS[module])
        for src in sorted(expected - srcs):
            problems.append(f"Android.bp module {module} lacks {src} (built by CMake target "
                            f"{targets})")
        for src in sorted(srcs - expected):
            problems.append(f"Android.bp module {module} lists {src}, which CMake target "
                            f"{targets} does not build")
    for module in sorted(set(MODULE_TARGETS) - set(bp)):
        problems.append(f"Android.bp has no module {module} with sources (named in MODULE_TARGETS)")
    mirrored = {t for targets in MODULE_TARGETS.values() for t in targets}
    for target in sorted(set(cmake) - mirrored - set(CMAKE_ONLY)):
        problems.append(f"CMake target {target} compiles sources that no Android.bp module lists: "
                        "add a module, or name the target in CMAKE_ONLY")
    return problems


def main():
    if len(sys.argv) != 3:
        raise SystemExit("usage: compare-android-bp.py ANDROID_BP CMAKE_BUILD_DIR")
    try:
        bp = blueprint_sources(sys.argv[1])
    except BlueprintError as error:
        raise SystemExit(f"{sys.argv[1]}: {error}")
    problems = compare(bp, cmake_sources(sys.argv[2]))
    for problem in problems:
        print(problem)
    if problems:
        return 1
    print(f"Android.bp: {len(bp)} modules list the same sources as CMake")
    return 0


if __name__ == "__main__":
    sys.exit(main())
