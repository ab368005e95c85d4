#!/usr/bin/env python3
"""Mutation testing over lib/ and bin/: plant one small fault at a time, rebuild,
run the suite, and report which faults a test caught.

Faults: a comparison flipped or loosened, && and || swapped, an integer constant
off by one, an if/while condition forced, a returned bool inverted, a statement
dropped, a length shortened. Sites are sampled with a fixed seed, so the same
seed over the same sources gives the same mutants.

The build tree (default build-mutate/) is its own, with -g off so that a mutant
whose object file is byte-identical to the original is flagged as equivalent
without running the suite. A source file is mutated in place from a pristine
copy kept in the build tree, and restored whatever happens; a leftover from an
interrupted run is restored at start.

usage: mutate.py [--mutants N] [--seed S] [--budget SECONDS] [--files REGEX] [--exclude REGEX]
                 [--recheck TSV] [--all-killers]
"""
import argparse
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

MODULES = ["lib/utility/stock", "lib/utility/deviants", "lib/rt/orb",
           "lib/rt/ring", "lib/rt/pkt", "bin/rt/ferrant", "bin/rt/orbserver",
           "bin/rt/orbstat"]


def module_of(path):
    for m in MODULES:
        if path.startswith(m + "/"):
            return m
    return os.path.dirname(path)


# ---------------------------------------------------------------- finding sites

def code_masks(text):
    """For each line, the line with comments, string and character literals
    replaced by \x01 (same length), or None for preprocessor lines."""
    out = []
    in_block = False
    continued = False
    for line in text.split("\n"):
        if continued or (not in_block and line.lstrip().startswith("#")):
            continued = line.endswith("\\")
            out.append(None)
            continue
        if 'R"' in line:  # raw strings are rare here; leave such lines alone
            out.append(None)
            continue
        chars = list(line)
        i, n = 0, len(line)
        while i < n:
            if in_block:
                end = line.find("*/", i)
                stop = n if end < 0 else end + 2
                for k in range(i, stop):
                    chars[k] = "\x01"
                in_block = end < 0
                i = stop
            elif line.startswith("//", i):
                for k in range(i, n):
                    chars[k] = "\x01"
                i = n
            elif line.startswith("/*", i):
                in_block = True
            elif line[i] in "\"'":
                q, k = line[i], i + 1
                while k < n and line[k] != q:
                    k += 2 if line[k] == "\\" else 1
                for j in range(i, min(k + 1, n)):
                    chars[j] = "\x01"
                i = k + 1
            else:
                i += 1
        out.append("".join(chars))
    return out


REL = {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="],
       ">=": [">", "<"], "==": ["!="], "!=": ["=="]}
REL_RE = re.compile(r"(?<=[\w)\]]) (<=|>=|==|!=|<|>) (?=[\w(!*&\-\x01.:])")
LOGIC_RE = re.compile(r" (&&|\|\|) ")
CONST_RE = re.compile(r"(?<![\w.'])(\d+)(?![\w.'])")
COND_RE = re.compile(r"\b(if|while) \(")
RETBOOL_RE = re.compile(r"\breturn (true|false);")
LEN_RE = re.compile(r"\.(size|length)\(\)")
STMT_RE = re.compile(
    r"^(\+\+|--)?[A-Za-z_][\w:]*((\.|->)[A-Za-z_]\w*|\[[^\]]*\]|\([^;]*\))*"
    r"\s*(\(|=[^=]|\+=|-=|\*=|/=|\|=|&=|<<=|>>=|\+\+|--)")
KEYWORDS = {"return", "break", "continue", "goto", "throw", "delete", "case",
            "default", "using", "typedef", "else", "do", "static_assert",
            "if", "while", "for", "switch", "namespace", "template"}


def matching_paren(code, open_at):
    depth = 0
    for k in range(open_at, len(code)):
        if code[k] == "(":
            depth += 1
        elif code[k] == ")":
            depth -= 1
            if depth == 0:
                return k
    return -1


def sites_in(path, text):
    """Every (line, col, old, new, kind) candidate in one source file."""
    found = []
    masks = code_masks(text)
    lines = text.split("\n")
    for ln, code in enumerate(masks):
        if code is None or not code.strip():
            continue
        line = lines[ln]

        def add(col, old, new, kind):
            found.append((ln + 1, col, old, new, kind))

        for m in REL_RE.finditer(code):
            op = m.group(1)
            # a template argument list such as `a<b, c> x` is not a comparison
            if op in ("<", ">") and re.search(r"\btemplate\b", code):
                continue
            for new in REL[op]:
                add(m.start(1), op, new, "comparison")
        for m in LOGIC_RE.finditer(code):
            add(m.start(1), m.group(1), "||" if m.group(1) == "&&" else "&&", "logic")
        for m in CONST_RE.finditer(code):
            v = int(m.group(1))
            if v > 1 << 31 or re.search(r"\[\s*$", code[:m.start()]):
                continue  # array bounds in declarations make stillborns
            add(m.start(1), m.group(1), str(v + 1), "constant")
            if v > 0:
                add(m.start(1), m.group(1), str(v - 1), "constant")
        for m in COND_RE.finditer(code):
            close = matching_paren(code, m.end() - 1)
            if close < 0 or "\x01" in code[m.end():close] and False:
                continue
            inner = line[m.end():close]
            if not inner.strip() or ";" in inner or inner.strip() in ("true", "false"):
                continue
            if "constexpr" in code[:m.start() + 10]:
                continue
            forced = ["true", "false"] if m.group(1) == "if" else ["false"]
            for new in forced:
                add(m.end(), inner, new, "condition")
        for m in RETBOOL_RE.finditer(code):
            b = m.group(1)
            add(m.start(1), b, "false" if b == "true" else "true", "condition")
        for m in LEN_RE.finditer(code):
            add(m.start(), m.group(0), m.group(0) + " - 1", "length")
        stripped = code.strip()
        first = re.match(r"[A-Za-z_]\w*", stripped)
        if (stripped.endswith(";") and STMT_RE.match(stripped)
                and not (first and first.group(0) in KEYWORDS)
                and stripped.count("(") == stripped.count(")")):
            col = len(code) - len(code.lstrip())
            add(col, line[col:len(code.rstrip())], ";", "drop")
    return found


def apply(text, site):
    ln, col, old, new, _ = site
    lines = text.split("\n")
    line = lines[ln - 1]
    assert line[col:col + len(old)] == old, (site, line)
    lines[ln - 1] = line[:col] + new + line[col + len(old):]
    return "\n".join(lines)


# ---------------------------------------------------------------- building

def run(cmd, cwd, timeout=None):
    """The exit code and output of cmd; on a time-out its whole process group
    (servers a hung test started included) is killed and -1 returned."""
    p = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         text=True, start_new_session=True)
    try:
        out, _ = p.communicate(timeout=timeout)
        return p.returncode, out
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        out, _ = p.communicate()
        return -1, (out or "") + "\n(timed out)"
    except BaseException:  # interrupted: take the build or suite down too
        os.killpg(p.pid, signal.SIGKILL)
        raise


def configure(build, jobs):
    if not os.path.exists(os.path.join(build, "build.ninja")) and \
            not os.path.exists(os.path.join(build, "Makefile")):
        gen = ["-G", "Ninja"] if shutil.which("ninja") else []
        ld = ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld",
              "-DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld"] if shutil.which("ld.lld") else []
        # No -g, so that an unchanged object file compares byte for byte.
        cmd = ["cmake", "-S", ROOT, "-B", build, *gen, *ld,
               "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
               "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -DNDEBUG",
               "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -DNDEBUG",
               "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]
        rc, out = run(cmd, ROOT)
        if rc:
            sys.exit("configure failed:\n" + out)
    rc, out = run(["cmake", "--build", build, "-j", str(jobs)], ROOT)
    if rc:
        sys.exit("the unmutated tree does not build:\n" + out[-4000:])


def objects_by_source(build):
    with open(os.path.join(build, "compile_commands.json")) as f:
        cmds = json.load(f)
    objs = {}
    for c in cmds:
        src = os.path.relpath(os.path.join(c["directory"], c["file"]), ROOT)
        out = c.get("output")
        if out is None:
            m = re.search(r"-o (\S+)", c["command"])
            out = m.group(1) if m else None
        if out:
            objs.setdefault(src, []).append(os.path.join(c["directory"], out))
    return objs


def read(path, mode="r"):
    with open(path, mode) as f:
        return f.read()


def write(path, data):
    with open(path, "wb" if isinstance(data, bytes) else "w") as f:
        f.write(data)


# ---------------------------------------------------------------- the run

def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--mutants", type=int, default=60)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--budget", type=float, default=1800, help="seconds")
    ap.add_argument("--files", default="", help="only sources matching this regex")
    ap.add_argument("--build", default=os.path.join(ROOT, "build-mutate"))
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--test-timeout", type=int, default=120)
    # Packaging tests build a package per run and exercise no code path the
    # other tests miss; they would set the pace of every mutant.
    ap.add_argument("--exclude", default="^install_", help="tests (ctest -E) not run")
    ap.add_argument("--recheck", default=None,
                    help="a .tsv of an earlier run of the same sample: run only the mutants it "
                         "says were killed and carry the others' results over, to compare a "
                         "smaller suite cheaply (a lower bound on its kill rate)")
    ap.add_argument("--all-killers", action="store_true",
                    help="run the whole suite on each mutant and name every test that fails, "
                         "so that a test whose kills are all shared can be told apart")
    ap.add_argument("--first", type=int, default=0,
                    help="run only the first N mutants of the sample (in run order), "
                         "to repeat a run that its budget cut short")
    ap.add_argument("--report", default=None)
    args = ap.parse_args()
    build = os.path.abspath(args.build)
    os.makedirs(build, exist_ok=True)
    pristine = os.path.join(build, "pristine")
    inflight = os.path.join(build, "mutate-inflight.json")
    report_path = args.report or os.path.join(build, "mutate-report.txt")

    if os.path.exists(inflight):  # an interrupted run left a mutant behind
        src = json.loads(read(inflight))["file"]
        shutil.copyfile(os.path.join(pristine, src), os.path.join(ROOT, src))
        os.remove(inflight)
        print("restored %s left mutated by an interrupted run" % src)

    configure(build, args.jobs)
    objs = objects_by_source(build)
    sources = sorted(s for s in objs
                     if s.startswith(("lib/", "bin/")) and s.endswith(".cc")
                     and re.search(args.files, s))
    candidates = []
    texts = {}
    for s in sources:
        texts[s] = read(os.path.join(ROOT, s))
        candidates += [(s,) + site for site in sites_in(s, texts[s])]
    rng = random.Random(args.seed)
    sample = rng.sample(candidates, min(args.mutants, len(candidates)))
    # Grouped by file, so that a restored file is rebuilt once per file.
    order = sorted(range(len(sample)), key=lambda i: (sample[i][0], sample[i][1]))
    if args.first:
        sample = [sample[i] for i in order[:args.first]]
        order = list(range(len(sample)))

    t0 = time.time()
    skip = ["-E", args.exclude] if args.exclude else []
    rc, out = run(["ctest", "-j", str(args.jobs), "--timeout", str(args.test_timeout), *skip],
                  build)
    if rc:
        sys.exit("the suite fails before any mutation:\n" + out[-4000:])
    suite_secs = time.time() - t0
    print("%d candidate sites in %d files; %d sampled (seed %d); suite takes %.0fs"
          % (len(candidates), len(sources), len(sample), args.seed, suite_secs),
          flush=True)

    for s in set(x[0] for x in sample):
        os.makedirs(os.path.dirname(os.path.join(pristine, s)), exist_ok=True)
        shutil.copyfile(os.path.join(ROOT, s), os.path.join(pristine, s))
    orig_objs = {}
    for s in set(x[0] for x in sample):
        orig_objs[s] = [read(o, "rb") for o in objs[s]]

    results = [None] * len(sample)
    earlier = {}
    if args.recheck:
        for line in read(args.recheck).splitlines():
            f = line.split("\t")
            earlier[(f[1], f[2])] = (f[0], f[5] if len(f) > 5 else "")
    tsv = os.path.splitext(report_path)[0] + ".tsv"
    write(tsv, "")
    start = time.time()
    try:
        for n, i in enumerate(order):
            s, ln, col, old, new, kind = sample[i]
            if time.time() - start > args.budget:
                results[i] = ("not-run", "")
                continue
            before = earlier.get(("%s:%d:%d" % (s, ln, col), kind))
            if args.recheck and (before is None or before[0] != "killed"):
                results[i] = before[0] if before else "not-run", "carried over"
                print("[%d/%d] %-9s %s:%d (carried over)" % (n + 1, len(sample), results[i][0], s, ln),
                      flush=True)
                continue
            path = os.path.join(ROOT, s)
            write(inflight, json.dumps({"file": s}))
            try:
                write(path, apply(texts[s], sample[i][1:]))
                rc, out = run(["cmake", "--build", build, "-j", str(args.jobs)], ROOT)
                if rc:
                    results[i] = ("stillborn", "")
                elif [read(o, "rb") for o in objs[s]] == orig_objs[s]:
                    results[i] = ("equivalent", "object file unchanged")
                else:
                    def ctest(*which):
                        stop = [] if args.all_killers else ["--stop-on-failure"]
                        return run(["ctest", *stop, "--timeout", str(args.test_timeout), *which],
                                   build, timeout=max(600, 4 * suite_secs))
                    rc = 0
                    if args.recheck and before[1] and not args.all_killers:
                        # The tests that killed it before go first: when one still fails, the
                        # suite need not run.
                        names = "|".join("^%s$" % re.escape(t) for t in before[1].split())
                        rc, out = ctest("--no-tests=ignore", "-R", names)
                    if not rc:
                        rc, out = ctest("-j", str(args.jobs), *skip)
                    if rc:
                        m = re.search(r"^\s*\d+ - (\S+) \(", out, re.M) or \
                            re.search(r"\*\*\*(?:Failed|Timeout|Exception)\S*.*?(\S+)\s", out)
                        killer = re.findall(r"\d+/\d+ Test\s+#\d+: (\S+)[^\n]*? \.+\*+", out)
                        every = re.findall(r"^\s*\d+ - (\S+)", out.partition("tests FAILED:")[2], re.M)
                        if args.all_killers and every:
                            results[i] = ("killed", " ".join(every))
                        else:
                            results[i] = ("killed", killer[0] if killer else
                                          (m.group(1) if m else "?"))
                    else:
                        results[i] = ("survived", "")
            finally:
                write(path, texts[s])
                os.remove(inflight)
            print("[%d/%d] %-9s %s:%d %s: %r -> %r %s" %
                  (n + 1, len(sample), results[i][0], s, ln, kind, old.strip(), new,
                   results[i][1]), flush=True)
            with open(tsv, "a") as f:  # as it goes, so that an interrupted run still tells
                f.write(tsv_line(sample[i], results[i]))
    finally:
        rc, out = run(["cmake", "--build", build, "-j", str(args.jobs)], ROOT)

    report = make_report(sample, results, args, len(candidates), time.time() - start)
    write(report_path, report)
    write(tsv, "".join(tsv_line(x, r) for x, r in zip(sample, results)))
    print(report)
    print("report written to %s (and %s)" % (report_path, tsv))


def tsv_line(x, r):
    return "%s\t%s:%d:%d\t%s\t%r\t%r\t%s\n" % (r[0], x[0], x[1], x[2], x[5], x[3], x[4], r[1])


def make_report(sample, results, args, ncand, secs):
    per = {}
    for x, r in zip(sample, results):
        d = per.setdefault(module_of(x[0]), {})
        d[r[0]] = d.get(r[0], 0) + 1
    lines = ["mutation report: %d mutants sampled from %d sites, seed %d, %.0f s"
             % (len(sample), ncand, args.seed, secs)
             + (", files matching %r" % args.files if args.files else ""), "",
             "%-22s %6s %6s %8s %10s %9s %7s %9s" % ("module", "total", "killed", "survived",
                                                  "equivalent", "stillborn", "not-run",
                                                  "kill rate")]
    tot = {}
    for mod in sorted(per) + ["all"]:
        d = tot if mod == "all" else per[mod]
        if mod != "all":
            for k, v in d.items():
                tot[k] = tot.get(k, 0) + v
        k, s = d.get("killed", 0), d.get("survived", 0)
        rate = "%.1f%%" % (100.0 * k / (k + s)) if k + s else "-"
        lines.append("%-22s %6d %6d %8d %10d %9d %7d %9s" % (
            mod, sum(d.values()), k, s, d.get("equivalent", 0), d.get("stillborn", 0),
            d.get("not-run", 0), rate))
    lines.append("")
    lines.append("kill rate = killed / (killed + survived); equivalent (object file "
                 "unchanged) and stillborn (does not compile) mutants are not counted.")
    for status in ("survived", "equivalent"):
        lines.append("")
        lines.append("%s:" % status)
        for x, r in sorted(zip(sample, results), key=lambda p: p[0][:3]):
            if r[0] == status:
                lines.append("  %s:%d:%d %s: %r -> %r" % (x[0], x[1], x[2], x[5],
                                                          x[3].strip(), x[4]))
    return "\n".join(lines) + "\n"


if __name__ == "__main__":
    main()
