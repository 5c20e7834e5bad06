#!/usr/bin/env python3
"""The runnable blocks of a guide: every fenced code block carries a marker on the line
before it, and is written out to OUTDIR as a program or a command.

    <!-- run: program ARGS -->   a C++ program: compiled against the host header, run with
                                 ARGS (shell words; $DRIVER and friends are expanded)
    <!-- run: command -->        a shell command, run with bash against the simulator

A fenced block without a marker, or an indented block that starts with a command name, is an
error: a command or a program that no test runs.

    extract_blocks.py GUIDE OUTDIR
writes OUTDIR/program_N.cpp with OUTDIR/program_N.args, OUTDIR/command_N.sh, and prints one
line per block ("program 1 line 57", "command 1 line 160"). Exit status 1 on an error.
"""
import os
import re
import sys

COMMAND_WORDS = ("adshost", "plcsim", "minimal_host", "cmake", "bash", "g++", "sh ", "./")
MARKER = re.compile(r"^<!-- run: (program|command)(?: (.*?))? -->$")


def main():
    guide, outdir = sys.argv[1], sys.argv[2]
    lines = open(guide, encoding="utf-8").read().split("\n")
    os.makedirs(outdir, exist_ok=True)
    for name in os.listdir(outdir):
        if re.match(r"^(program_\d+\.(cpp|args)|command_\d+\.sh)$", name):
            os.remove(os.path.join(outdir, name))
    errors = []
    counts = {"program": 0, "command": 0}
    i = 0
    while i < len(lines):
        line = lines[i]
        if line.startswith("```"):
            start = i
            j = i + 1
            while j < len(lines) and not lines[j].startswith("```"):
                j += 1
            if j == len(lines):
                errors.append("line %d: a fenced block without its end" % (start + 1))
                break
            body = "\n".join(lines[start + 1:j]) + "\n"
            m = MARKER.match(lines[start - 1]) if start > 0 else None
            if not m:
                errors.append("line %d: a fenced block without a run marker on the line before it"
                              % (start + 1))
            else:
                kind, args = m.group(1), (m.group(2) or "")
                counts[kind] += 1
                n = counts[kind]
                if kind == "program":
                    with open(os.path.join(outdir, "program_%d.cpp" % n), "w") as f:
                        f.write("#line %d \"%s\"\n" % (start + 2, os.path.basename(guide)) + body)
                    with open(os.path.join(outdir, "program_%d.args" % n), "w") as f:
                        f.write(args + "\n")
                else:
                    with open(os.path.join(outdir, "command_%d.sh" % n), "w") as f:
                        f.write(body)
                print("%s %d line %d" % (kind, n, start + 2))
            i = j + 1
            continue
        if line.startswith("    ") and (i == 0 or lines[i - 1].strip() == ""):
            first = line.strip()
            if first.startswith(COMMAND_WORDS):
                errors.append("line %d: an indented command; put it in a fenced block with a run marker"
                              % (i + 1))
        i += 1
    for e in errors:
        print("%s: %s" % (guide, e), file=sys.stderr)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
