#!/usr/bin/python3
"""Mutation sampler for the filter: plants one small fault at a time in src/*.cpp (a
comparison, a logical or arithmetic operator, a constant, a verdict, or a call statement
deleted), rebuilds the test programs, runs them, and reports how many faults the tests
catch, with every survivor's place.

The faults and their order are those of the project's shared sampler for the same seed
(same candidates, same shuffle), so a sample is named by (seed, count). It is faster:
  - only the test programs are rebuilt (not the tools, daemons or fuzzers), each just
    before it runs;
  - the test programs run directly, the one for the mutated folder first, and the run
    stops at the first failing program (a crash or a time-out counts as caught);
  - tshark's answers are cached by capture bytes and arguments (DNSHOOK_TSHARK_CACHE),
    so only captures the mutant changed are dissected again.

Run it on a COPY of the tree, never on a work tree:
    mkdir -p /tmp/mut && git archive HEAD | tar -x -C /tmp/mut
    cmake -S /tmp/mut -B /tmp/mut/b -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build /tmp/mut/b
    nice -n 19 scripts/mutants.py /tmp/mut COUNT [SEED] [--skip N]

--skip N leaves out the first N faults of the sample (to continue a sample in batches;
the scores of the batches add up). --recheck REPORT runs again only the survivors listed
in the JSON report of an earlier run (the lines between its first "{" and the score line),
for instance after tests were added. Exit code: 0 when done, 2 on bad arguments."""
import json
import os
import random
import re
import subprocess
import sys
import time

OPS = [
    (r"(?<![<>=!])==(?!=)", "!="), (r"!=", "=="),
    (r"(?<![<>-])<=", "<"), (r"(?<![<>-])>=", ">"),
    (r"(?<![<>-])<(?![<=])", "<="), (r"(?<![<>-])>(?![>=])", ">="),
    (r"&&", "||"), (r"\|\|", "&&"),
    (r"(?<![+])\+(?![+=])", "-"), (r"(?<![-])-(?![->=])", "+"),
    (r"\bNF_ACCEPT\b", "NF_DROP"), (r"\bNF_DROP\b", "NF_ACCEPT"),
    (r"\b(\d+)\b", "INC"),
]

# The test program to try first for a mutated folder of src/.
FIRST = {"core": "core", "decode": "decode", "forge": "forge", "hooks": "hooks",
         "lists": "lists", "track": "track"}


def candidates(root):
    out = []
    for dp, _, fs in os.walk(os.path.join(root, "src")):
        for f in fs:
            if not f.endswith(".cpp"):
                continue
            p = os.path.join(dp, f)
            rel = os.path.relpath(p, root)
            lines = open(p).read().split("\n")
            incomment = False
            for i, l in enumerate(lines):
                s = l.strip()
                if incomment:
                    if "*/" in s:
                        incomment = False
                    continue
                if s.startswith("/*") and "*/" not in s:
                    incomment = True
                    continue
                if not s or s.startswith("//") or s.startswith("#") or s.startswith("*"):
                    continue
                code = re.sub(r'"(\\.|[^"\\])*"', lambda m: " " * len(m.group(0)), l)
                code = code.split("//")[0]
                if re.search(r"printk|pr_debug|static_assert", code):
                    continue
                for k, (pat, rep) in enumerate(OPS):
                    for m in re.finditer(pat, code):
                        if "->" in code[max(0, m.start() - 1):m.end() + 1] and rep in "+-":
                            continue
                        out.append((rel, i, m.start(), m.end(), k))
                if re.match(r"^\s*[a-z_][a-z0-9_]*\(.*\);\s*$", code) and not s.startswith("return"):
                    out.append((rel, i, 0, len(l), -1))
    return out


def mutate(root, c):
    """The file's text, the line and its mutated form, without writing anything."""
    rel, i, a, b, k = c
    text = open(os.path.join(root, rel)).read()
    l = text.split("\n")[i]
    if k == -1:
        return text, l, re.match(r"^(\s*)", l).group(1) + ";"
    pat, rep = OPS[k]
    old = l[a:b]
    rep = str(int(old) + 1) if rep == "INC" else rep
    return text, l, l[:a] + rep + l[b:]


def apply(root, c):
    rel, i, a, b, k = c
    p = os.path.join(root, rel)
    text = open(p).read()
    lines = text.split("\n")
    l = lines[i]
    if k == -1:
        new = re.match(r"^(\s*)", l).group(1) + ";"
    else:
        pat, rep = OPS[k]
        old = l[a:b]
        rep = str(int(old) + 1) if rep == "INC" else rep
        new = l[:a] + rep + l[b:]
    lines[i] = new
    open(p, "w").write("\n".join(lines))
    return text, l, new


def test_programs(build):
    return sorted(f[5:] for f in os.listdir(build) if f.startswith("test_") and os.access(os.path.join(build, f), os.X_OK))


def run_tests(root, build, programs, first, env):
    """The name of the first program that fails, None when all pass, "" when the mutant
    does not build. Each program is built just before it runs, so a fault caught by the
    first costs one link only."""
    order = ([first] if first in programs else []) + [p for p in programs if p != first]
    for k, name in enumerate(order):
        b = subprocess.run(["cmake", "--build", "b", "-j2", "--target", "test_" + name], cwd=root,
                           capture_output=True, text=True)
        if b.returncode != 0:
            return "" if k == 0 else name + " (build)"
        try:
            t = subprocess.run([os.path.join(build, "test_" + name)], cwd=build, capture_output=True, env=env,
                               timeout=120)
        except subprocess.TimeoutExpired:
            return name + " (time-out)"
        if t.returncode != 0:
            return name
    return None


def main():
    args = [a for a in sys.argv[1:]]
    skip = 0
    only = None
    if "--recheck" in args:
        i = args.index("--recheck")
        text = open(args[i + 1]).read()
        only = set(json.loads(text[text.index("\n{") + 1:text.rindex("}") + 1])["survivors"])
        del args[i:i + 2]
    if "--skip" in args:
        i = args.index("--skip")
        skip = int(args[i + 1])
        del args[i:i + 2]
    if len(args) < 2 or args[0] in ("-h", "--help"):
        print(__doc__)
        return 0 if args and args[0] in ("-h", "--help") else 2
    root, n = args[0], int(args[1])
    seed = int(args[2]) if len(args) > 2 else 58
    build = os.path.join(root, "b")
    if not os.path.isdir(build):
        print(f"{build}: no build tree; configure and build the copy first", file=sys.stderr)
        return 2
    rng = random.Random(seed)
    cands = candidates(root)
    rng.shuffle(cands)
    programs = test_programs(build)
    targets = ["test_" + p for p in programs]
    env = dict(os.environ, DNSHOOK_TSHARK_CACHE=os.path.join(root, "tshark-cache"))
    os.makedirs(env["DNSHOOK_TSHARK_CACHE"], exist_ok=True)
    res = {"seed": seed, "count": n, "skip": skip, "killed": 0, "survived": 0, "invalid": 0, "survivors": []}
    done = 0
    start = time.time()
    for c in cands:
        if done >= n + skip or (only is not None and not only):
            break
        if only is not None:
            # Named without touching the file, so nothing is rebuilt for it.
            _, old, new = mutate(root, c)
            name = f"{c[0]}:{c[1]+1}: {old.strip()}  =>  {new.strip()}"
            if name not in only:
                continue
            only.discard(name)
        orig, old, new = apply(root, c)
        try:
            folder = c[0].split(os.sep)[1] if c[0].count(os.sep) >= 2 else ""
            failed = run_tests(root, build, programs, FIRST.get(folder, ""), env)
            if failed == "":
                res["invalid"] += 1
                continue
            done += 1
            if done <= skip:
                continue
            if failed:
                res["killed"] += 1
                verdict = "KILLED"
            else:
                res["survived"] += 1
                verdict = "SURVIVED"
                res["survivors"].append(f"{c[0]}:{c[1]+1}: {old.strip()}  =>  {new.strip()}")
            print(f"{done:3d} {verdict:8s} {c[0]}:{c[1]+1}: {old.strip()[:70]}  =>  {new.strip()[:70]}"
                  f"{'  [' + failed + ']' if failed else ''}  ({time.time() - start:.0f}s)", flush=True)
        finally:
            open(os.path.join(root, c[0]), "w").write(orig)
    subprocess.run(["cmake", "--build", "b", "-j2", "--target"] + targets, cwd=root, capture_output=True)
    tot = res["killed"] + res["survived"]
    print(json.dumps(res, indent=1))
    print(f"mutation score: {res['killed']}/{tot} killed ({100 * res['killed'] // max(tot, 1)}%), "
          f"{res['invalid']} did not build; seed {seed}, faults {skip + 1}..{skip + tot}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
