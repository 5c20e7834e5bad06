#!/usr/bin/env python3
"""Runs every example of docs/COMMISSIONING.md and of `adshost --help` (the man page is made
from it) as printed, against plcsim on 127.0.0.1, and checks the exit status each one states.

An example is a line (with its backslash continuations) that starts with "adshost " in an
indented block of the guide or in the help text, and ends with "# exit N". Examples that
name another address than 127.0.0.1 (a real PLC, a broadcast) are listed as skipped: the
tests send nothing beyond loopback. The one thing
changed is the port: 48898 becomes the free port plcsim got. The examples run in a shell in a
fresh folder, with adshost's folder first on PATH (adshost finds the plugin of its build tree
or installation itself).

Usage: doc_examples.py --adshost EXE --plcsim EXE --doc docs/COMMISSIONING.md [--wrapper CMD]
"""
import argparse
import os
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import time


def examples(text, indent_re):
    out = []
    lines = text.splitlines()
    i = 0
    while i < len(lines):
        m = re.match(indent_re + r"(adshost .*)$", lines[i])
        if not m:
            i += 1
            continue
        cmd = m.group(1)
        while cmd.rstrip().endswith("\\") and i + 1 < len(lines):
            i += 1
            cmd = cmd.rstrip()[:-1] + " " + lines[i].strip()
        e = re.search(r"#\s*exit (\d+)\s*$", cmd)
        if e:
            out.append((cmd[:e.start()].strip(), int(e.group(1))))
        else:
            out.append((cmd.strip(), None))
        i += 1
    return out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--adshost", required=True)
    ap.add_argument("--plcsim", required=True)
    ap.add_argument("--doc", required=True)
    ap.add_argument("--wrapper", default="")
    a = ap.parse_args()
    help_text = subprocess.run(shlex.split(a.wrapper) + [a.adshost, "--help"], capture_output=True,
                               text=True).stdout
    found = [("guide", c, s) for c, s in examples(open(a.doc).read(), r"^    ")]
    # The synopsis lines of the help (HOST:PORT, NETID) are no examples.
    found += [("--help", c, s) for c, s in examples(help_text, r"^  ") if "HOST:PORT" not in c]
    failures = 0
    if not any(w == "--help" for w, _, _ in found):
        print("doc-examples: adshost --help has no example")
        failures += 1
    with tempfile.TemporaryDirectory(prefix="docex.") as tmp:
        ports = os.path.join(tmp, "ports")
        sim = subprocess.Popen([a.plcsim, "--listen", "127.0.0.1:0", "--no-program", "--port-file", ports],
                               stdout=subprocess.DEVNULL)
        try:
            deadline = time.time() + 5
            while not os.path.exists(ports) and time.time() < deadline:
                time.sleep(0.01)
            port = dict(l.strip().split("=", 1) for l in open(ports))["ads_port"]
            bindir = os.path.join(tmp, "bin")
            os.mkdir(bindir)
            with open(os.path.join(bindir, "adshost"), "w") as f:  # adshost as printed, maybe under qemu
                f.write("#!/bin/sh\nexec %s %s \"$@\"\n" % (a.wrapper, shlex.quote(os.path.abspath(a.adshost))))
            os.chmod(os.path.join(bindir, "adshost"), 0o755)
            env = dict(os.environ, PATH=bindir + os.pathsep + os.environ.get("PATH", ""))
            for where, cmd, status in found:
                if "127.0.0.1" not in cmd:
                    # A real PLC's address or a broadcast: the tests send nothing beyond loopback.
                    print("skip %s: not on 127.0.0.1: %s" % (where, cmd))
                    continue
                if status is None:
                    print("doc-examples: %s: no '# exit N' at the end of: %s" % (where, cmd))
                    failures += 1
                    continue
                run = cmd.replace("127.0.0.1:48898", "127.0.0.1:" + port)
                t0 = time.time()
                p = subprocess.run(["bash", "-c", run], cwd=tmp, env=env, capture_output=True, text=True,
                                   timeout=60)
                ok = p.returncode == status
                print("%s %s: exit %d (stated %d) in %.1f s: %s" % ("ok  " if ok else "FAIL", where, p.returncode,
                                                                  status, time.time() - t0, cmd))
                if not ok:
                    failures += 1
                    print("  stdout: " + p.stdout.strip().replace("\n", "\n          "))
                    print("  stderr: " + p.stderr.strip().replace("\n", "\n          "))
        finally:
            sim.send_signal(signal.SIGTERM)
            sim.wait(5)
    print("doc-examples: %d examples, %d failed" % (len(found), failures))
    return 1 if failures or not found else 0


if __name__ == "__main__":
    sys.exit(main())
