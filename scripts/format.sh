#!/usr/bin/env bash
# Applies the house style (.clang-format) to the C++ sources of the tree, or checks it.
#   scripts/format.sh               reformats every tracked *.cpp and *.h in place
#   scripts/format.sh --check       changes nothing; lists the files that differ, exit 1 if any
#   scripts/format.sh [--check] FILE...   the same for the files given
# Either way it makes sure that no condition text changes: MC_CHECK and the contract macros
# turn their condition into a user-visible text ("cond[a>b]"), so a reformatted file whose
# condition texts differ is refused (and restored).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
exec python3 - "$@" <<'PYEOF'
import re, subprocess, sys

CLANG_FORMAT = "clang-format-14"
# Macro name -> index of the argument that the macro stringifies.
STRINGIFYING = {"MC_CHECK": 1, "MC_CHECK_WIN": 1, "MC_CHECK_DETAIL": 1, "MC_DBC_": 1,
                "MC_REQUIRE": 0, "MC_ENSURE": 0, "MC_ASSERT": 0}
CALL = re.compile(r"\b(" + "|".join(STRINGIFYING) + r")\s*\(")


def arguments(text, start):
    """Top-level arguments of the call whose '(' is at text[start - 1]."""
    args, depth, i, begin, quote = [], 0, start, start, None
    while i < len(text):
        c = text[i]
        if quote:
            if c == "\\":
                i += 1
            elif c == quote:
                quote = None
        elif c in "\"'":
            quote = c
        elif c in "([{":
            depth += 1
        elif c in ")]}":
            if depth == 0:
                args.append(text[begin:i])
                return args
            depth -= 1
        elif c == "," and depth == 0:
            args.append(text[begin:i])
            begin = i + 1
        i += 1
    return args


def condition_texts(text):
    """The texts the preprocessor makes of each stringified condition, in order."""
    out = []
    for m in CALL.finditer(text):
        if text[:m.start()].rstrip().endswith("#define"):
            continue
        args = arguments(text, m.end())
        index = STRINGIFYING[m.group(1)]
        if len(args) > index:
            # Stringizing turns every run of white space between tokens into one blank.
            out.append((m.group(1), " ".join(args[index].split())))
    return out


def main(argv):
    check = bool(argv) and argv[0] == "--check"
    files = argv[1:] if check else argv
    if not files:
        files = subprocess.run(["git", "ls-files", "*.cpp", "*.h"], check=True, stdout=subprocess.PIPE,
                               text=True).stdout.split()
    differ, refused = [], []
    for path in files:
        with open(path, encoding="utf-8", errors="surrogateescape") as f:
            before = f.read()
        after = subprocess.run([CLANG_FORMAT, "--style=file", "--assume-filename=" + path], input=before,
                               check=True, stdout=subprocess.PIPE, text=True, errors="surrogateescape").stdout
        if after == before:
            continue
        if condition_texts(after) != condition_texts(before):
            refused.append(path)
            continue
        differ.append(path)
        if not check:
            with open(path, "w", encoding="utf-8", errors="surrogateescape") as f:
                f.write(after)
    for path in refused:
        print("format: %s: formatting would change a condition text; left as it is" % path, file=sys.stderr)
    if check:
        for path in differ:
            print("format: %s: not in the house style" % path)
        return 1 if differ or refused else 0
    if differ:
        print("format: %d file(s) reformatted" % len(differ))
    return 1 if refused else 0


sys.exit(main(sys.argv[1:]))
PYEOF
