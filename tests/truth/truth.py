#!/usr/bin/env python3
"""The truth test: every claim adshost makes, held against what the PLC (plcsim) shows.

Each seed draws an adshost session (watches of every register, word and bit writes up to the
driver's limits, a recipe download and read-back, condition reads, --cycles or --duration,
always --json) and a behaviour of the PLC (plcsim's fault kinds, silence mid-session, a
restart, STOP, a wrong Net ID or AMS port, no route, ADS error codes, requests adshost must
refuse). After the session every claim is checked against plcsim's ground truth: its memory
(control port) and its request log (--log-data: the bytes of every read and write):

  - a write or recipe download reported done is in memory, and the PLC confirmed it;
  - a value shown as read was read (or written and confirmed) in this session; a value shown
    as fresh equals what the last request on its bytes carried, and that request succeeded;
  - a failure with an ADS or AMS code names a code the PLC sent;
  - the exit status agrees with the claims (0 only when every claim is a success), and is
    the expected one where the behaviour decides it (wrong Net ID: 5, no route: 4, ...);
  - --json: every line is one JSON object, the last the exit object.

Usage: truth.py --adshost EXE --driver SO --plcsim EXE [--seeds N] [--first-seed N]
       [--max-seconds S] [--wrapper "qemu-arm -L SYSROOT"] [--verbose]
Exit 0 when no claim was false; 1 with each false claim named (seed, claim, command line).
"""
import argparse
import json
import os
import random
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

GROUP = {"I": 0xF020, "Q": 0xF030, "M": 0x4020}
AREA_OF_GROUP = {v: k for k, v in GROUP.items()}
ADS_CODES = [0x701, 0x702, 0x704, 0x705, 0x706, 0x70B, 0x710]
FAULTS = ["noreply", "short", "long", "adserror", "split", "delay", "close"]
ANSWERED_FAULTS = {None, "split", "delay"}  # the reply came whole


# ------------------------------------------------------------------------------------------
# plcsim


class Sim:
    def __init__(self, exe, workdir, wrapper_free=True):
        self.exe = exe
        self.dir = workdir
        self.proc = None
        self.logs = []
        self.ads_port = 0
        self.control_port = 0

    def start(self, extra, ads_port=0, control_port=0):
        n = len(self.logs)
        log = os.path.join(self.dir, "plcsim%d.log" % n)
        ports = os.path.join(self.dir, "ports%d" % n)
        args = [self.exe, "--listen", "127.0.0.1:%d" % ads_port, "--control", "127.0.0.1:%d" % control_port,
                "--log", log, "--log-data", "--no-program", "--port-file", ports] + extra
        self.proc = subprocess.Popen(args, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        deadline = time.time() + 5
        while time.time() < deadline:
            if os.path.exists(ports):
                kv = dict(l.strip().split("=", 1) for l in open(ports) if "=" in l)
                self.ads_port = int(kv["ads_port"])
                self.control_port = int(kv["control_port"])
                self.logs.append(log)
                return
            if self.proc.poll() is not None:
                raise RuntimeError("plcsim ended: " + self.proc.stderr.read().decode())
            time.sleep(0.01)
        self.stop()
        raise RuntimeError("plcsim wrote no port file")

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(3)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc = None

    def command(self, line):
        with socket.create_connection(("127.0.0.1", self.control_port), timeout=3) as s:
            s.sendall((line + "\n").encode())
            buf = b""
            while not buf.endswith(b"\n"):
                chunk = s.recv(1 << 20)
                if not chunk:
                    break
                buf += chunk
        return buf.decode().strip()

    def get(self, area, offset, length):
        r = self.command("get %d %d %d" % (GROUP[area], offset, length))
        if not r.startswith("ok "):
            raise RuntimeError("get: " + r)
        return bytes.fromhex(r[3:])

    def set(self, area, offset, data):
        r = self.command("set %d %d %s" % (GROUP[area], offset, data.hex()))
        if r != "ok":
            raise RuntimeError("set: " + r)

    def requests(self):
        """The request log of every instance in order: dicts with cmd, group, offset, length,
        result, ams_error, fault, data, answered."""
        out = []
        for path in self.logs:
            if not os.path.exists(path):
                continue
            for line in open(path):
                if " req=" not in line:
                    continue
                f = {}
                for tok in line.split():
                    if "=" in tok:
                        k, v = tok.split("=", 1)
                        f.setdefault(k, v)
                r = {"cmd": f.get("cmd", ""), "fault": f.get("fault"), "line": line.strip()}
                for k in ("group", "offset", "length"):
                    r[k] = int(f[k], 0) if k in f else None
                r["result"] = int(f["result"], 16) if "result" in f else None
                r["ams_error"] = int(f["ams-error"].split()[0], 16) if "ams-error" in f else None
                r["data"] = bytes.fromhex(f["data"]) if "data" in f else None
                r["answered"] = f.get("reply", "none") != "none"
                out.append(r)
        return out


# ------------------------------------------------------------------------------------------
# A session and a behaviour, drawn from a seed


def bit_text(bit):
    return "%d.%d" % (bit // 8, bit % 8)


class Plan:
    pass


def draw(seed):
    rnd = random.Random(seed)
    p = Plan()
    p.seed = seed
    p.gap = rnd.choice([16, 16, 16, 8, 32])
    used = {"I": [], "Q": [], "M": []}  # byte ranges taken by writes and the recipe

    def free_range(area, nbytes):
        for _ in range(50):
            first = rnd.randrange(4, 3000 - nbytes)
            if all(first + nbytes <= a or first >= b for a, b in used[area]):
                used[area].append((first, first + nbytes))
                return first
        return None

    # Memory: random bytes where the session looks.
    p.memory = {a: bytes(rnd.randrange(256) for _ in range(3100)) for a in "IQM"}

    p.watches = []
    for _ in range(rnd.randint(1, 4)):
        area = rnd.choice("IQM")
        if rnd.random() < 0.5:
            p.watches.append("%s_W:%d:%d" % (area, rnd.randrange(0, 3000), rnd.randint(1, 8)))
        else:
            p.watches.append("%s_bit:%s:%d" % (area, bit_text(rnd.randrange(0, 3000 * 8)), rnd.randint(1, 16)))

    p.writes = []  # (text, area, kind, first bit/byte, values)
    for _ in range(rnd.choice([0, 0, 1, 1, 2, 3])):
        area = rnd.choice("QM")
        if rnd.random() < 0.5:
            n = rnd.randint(1, 3 * p.gap)
            first = free_range(area, 2 * n)
            if first is None:
                continue
            values = [rnd.randrange(65536) for _ in range(n)]
            texts = []
            for v in values:
                style = rnd.random()
                if style < 0.3:
                    texts.append("0x%04X" % v)
                elif style < 0.5:
                    texts.append("0%d" % v)  # a leading zero: still decimal
                else:
                    texts.append(str(v))
            p.writes.append(("%s_W:%d=%s" % (area, first, ",".join(texts)), area, "word", first, values))
        else:
            n = rnd.randint(1, 8 * p.gap)
            nbytes = (n + 7) // 8 + 1
            first = free_range(area, nbytes)
            if first is None:
                continue
            bit = first * 8 + rnd.randrange(8)
            values = [rnd.randrange(2) for _ in range(n)]
            p.writes.append(("%s_bit:%s=%s" % (area, bit_text(bit), ",".join(map(str, values))), area, "bit", bit,
                             values))

    p.recipe = []  # (text, area, first byte, values or None)
    if rnd.random() < 0.3:
        for _ in range(rnd.randint(1, 2)):
            area = rnd.choice("QM")
            n = rnd.randint(1, 8)
            first = free_range(area, 2 * n)
            if first is None:
                continue
            values = [rnd.randrange(65536) for _ in range(n)] if rnd.random() < 0.6 else None
            text = "%s_W:%d:%d" % (area, first, n) + ("=" + ",".join(str(v) for v in values) if values else "")
            p.recipe.append((text, area, first, values))
        if any(v is None for _, _, _, v in p.recipe) and any(v for _, _, _, v in p.recipe):
            p.recipe = [r for r in p.recipe if r[3]]  # all with values or none

    p.conditions = []
    for _ in range(rnd.choice([0, 0, 1, 2])):
        area = rnd.choice("IQM")
        p.conditions.append("%s_W:%d:%d" % (area, rnd.randrange(0, 3000), rnd.randint(1, p.gap)))

    # Requests the driver would carry out wrong: refused up front, nothing sent.
    p.refused = None
    if rnd.random() < 0.08:
        p.refused = rnd.choice(["--condition=M_bit:%s" % bit_text(rnd.randrange(8000)),
                                "--condition=M_W:%d:%d" % (rnd.randrange(2000), p.gap + rnd.randint(1, 20)),
                                "--write=M_bit:%s=%s" % (bit_text(rnd.randrange(8000)),
                                                         ",".join("1" for _ in range(8 * p.gap + rnd.randint(1, 30))))])

    p.limit = (["--cycles", str(rnd.randint(1, 5))] if rnd.random() < 0.6
               else ["--duration", "%.1f" % rnd.uniform(0.2, 1.2)])
    p.interval = rnd.choice([None, "0", "20"])
    p.retries = rnd.choice([2, 3])

    kinds = (["clean"] * 3 + ["prob"] * 4 + ["count"] * 2 + ["adserror"] * 2 + ["silence"] * 2
             + ["restart", "stop", "netid", "port", "noroute"])
    p.behaviour = rnd.choice(kinds)
    p.fault_cmds = []
    p.fault_code = rnd.choice(ADS_CODES)
    p.fault_cmds.append("fault-code %d" % p.fault_code)
    p.fault_cmds.append("delay %d" % rnd.choice([50, 150]))
    p.fault_cmds.append("seed %d" % seed)
    if p.behaviour == "prob":
        for k in rnd.sample(FAULTS, rnd.randint(1, 2)):
            p.fault_cmds.append("fault-prob %s %.3f" % (k, rnd.uniform(0.03, 0.25)))
    elif p.behaviour == "count":
        p.fault_cmds.append("fault %s %d" % (rnd.choice(FAULTS), rnd.randint(1, 4)))
    elif p.behaviour == "adserror":
        p.fault_cmds.append("fault-prob adserror %.3f" % rnd.uniform(0.1, 1.0))
    elif p.behaviour == "stop":
        p.fault_cmds.append("state stop")
    p.event_at = rnd.uniform(0.1, 0.8)  # silence or restart
    return p


# ------------------------------------------------------------------------------------------
# Checking


def word_bytes(values):
    out = b""
    for v in values:
        out += bytes([v & 0xFF, v >> 8])
    return out


class Truth:
    """Per byte of each area, in log order: requests that carried its value, and failures."""

    def __init__(self, requests):
        self.events = {}  # (area, byte) -> list of (ok, value or None)
        for r in requests:
            if r["cmd"] not in ("Read(2)", "Write(3)") or r["group"] is None:
                continue
            area = AREA_OF_GROUP.get(r["group"])
            if area is None:
                continue
            ok = r["answered"] and r["fault"] in ANSWERED_FAULTS and r["result"] == 0 and r["data"] is not None
            for i in range(r["length"] or 0):
                self.events.setdefault((area, r["offset"] + i), []).append(
                    (ok, r["data"][i] if ok else None, r["fault"]))

    def ever(self, area, b):
        return {v for ok, v, _ in self.events.get((area, b), []) if ok}

    def last_ok(self, area, b):
        """The last request on the byte, if it succeeded: its value (and the value of the last
        one that came without a delay, which a host may have timed out on)."""
        ev = self.events.get((area, b), [])
        if not ev or not ev[-1][0]:
            return None
        allowed = {ev[-1][1]}
        for ok, v, fault in reversed(ev):
            if ok and fault != "delay":
                allowed.add(v)
                break
        return allowed


def parse_address(text):
    reg, addr = text.split(":")[0], text.split(":")[1]
    count = int(text.split(":")[2]) if text.count(":") == 2 else 1
    area = reg[0]
    if reg.endswith("_bit"):
        byte, bit = addr.split(".")
        return area, True, int(byte) * 8 + int(bit), count
    return area, False, int(addr), count


def check_session(p, out_lines, status, sim, memory_end, requests):
    """Returns the false claims (texts)."""
    bad = []
    objs = []
    for l in out_lines:
        try:
            objs.append(json.loads(l))
        except ValueError:
            bad.append("stdout line is no JSON object: %r" % l)
    if not objs or objs[-1].get("type") != "exit":
        bad.append("the last line is not the exit object")
        return bad
    if objs[-1]["status"] != status:
        bad.append("exit object says %s, the status is %d" % (objs[-1]["status"], status))
    truth = Truth(requests)

    def mem(area, b):
        return memory_end[area][b]

    values = [o for o in objs if o["type"] == "value"]
    actions = [o for o in objs if o["type"] == "action"]
    errors = [o for o in objs if o["type"] == "error"]

    # Values
    for v in values:
        if not v["read"]:
            if v["values"] is not None:
                bad.append("%s: not read, yet values shown" % v["address"])
            continue
        area, isbit, addr, count = parse_address(v["address"])
        shown = v["values"]
        if isbit:
            spans = [(bit // 8, bit % 8, shown[i]) for i, bit in enumerate(range(addr, addr + count))]
        else:
            spans = []
            for i in range(count):
                spans.append((addr + 2 * i, None, shown[i] & 0xFF))
                spans.append((addr + 2 * i + 1, None, shown[i] >> 8))
        for b, bit, s in spans:
            ever = truth.ever(area, b)
            if not ever:
                bad.append("%s: shown as read, but no request on byte %s:%d succeeded in this session"
                           % (v["address"], area, b))
                break
            pick = (lambda x: (x >> bit) & 1) if bit is not None else (lambda x: x)
            if not v["stale"]:
                last = truth.last_ok(area, b)
                if last is None:
                    bad.append("%s: shown as fresh, but the last request on byte %s:%d failed"
                               % (v["address"], area, b))
                    break
                if s not in {pick(x) for x in last}:
                    bad.append("%s: shows %d for byte %s:%d%s, the PLC last carried %s"
                               % (v["address"], s, area, b, "" if bit is None else " bit %d" % bit,
                                  sorted(pick(x) for x in last)))
                    break
            elif s not in {pick(x) for x in ever}:
                bad.append("%s: stale value %d for byte %s:%d was never carried by the PLC"
                           % (v["address"], s, area, b))
                break

    # Actions
    log_results = {r["result"] for r in requests if r["result"] is not None and r["answered"]}
    log_ams = {r["ams_error"] for r in requests if r["ams_error"] is not None}
    writes = {w[0].split("=")[0]: w for w in p.writes}
    for a in actions:
        st = a["status"]
        if st == "failed":
            if a.get("ads_result"):
                if a["ads_result"] not in log_results:
                    bad.append("%s %s: failed with ADS result 0x%x, which the PLC never sent"
                               % (a["action"], a["what"], a["ads_result"]))
            if a.get("ams_error"):
                if a["ams_error"] not in log_ams:
                    bad.append("%s %s: failed with AMS error 0x%x, which the PLC never sent"
                               % (a["action"], a["what"], a["ams_error"]))
        if st != "done":
            continue
        if a["action"] == "write":
            key = a["what"].split("=")[0]
            w = writes.get(key)
            if w is None:
                bad.append("write %s: done, but it was never asked for" % a["what"])
                continue
            _, area, kind, first, vals = w
            if kind == "word":
                want = word_bytes(vals)
                have = bytes(mem(area, first + i) for i in range(len(want)))
                if have != want:
                    bad.append("write %s: done, but the PLC holds %s, not %s" % (w[0], have.hex(), want.hex()))
                written = all(any(ok for ok, _, f in truth.events.get((area, first + i), []))
                              for i in range(len(want)))
            else:
                have = [(mem(area, (first + i) // 8) >> ((first + i) % 8)) & 1 for i in range(len(vals))]
                if have != vals:
                    bad.append("write %s: done, but the PLC holds bits %s" % (w[0], "".join(map(str, have))))
                written = True
            if not written:
                bad.append("write %s: done, but no write of it was answered" % w[0])
        elif a["action"] == "recipe write":
            for text, area, first, vals in p.recipe:
                want = word_bytes(vals or [])
                have = bytes(mem(area, first + i) for i in range(len(want)))
                if have != want:
                    bad.append("recipe write: done, but %s holds %s in the PLC" % (text, have.hex()))
        elif a["action"] == "recipe read":
            for var in a.get("variables", []):
                area, _, first, count = parse_address(var["address"])
                have = [mem(area, first + 2 * i) | mem(area, first + 2 * i + 1) << 8 for i in range(count)]
                if var["values"] != have:
                    bad.append("recipe read: %s shown as %s, the PLC holds %s" % (var["address"], var["values"], have))
        elif a["action"] == "condition read":
            area, _, first, count = parse_address(a["what"])
            if not all(truth.ever(area, first + i) for i in range(2 * count)):
                bad.append("condition read %s: done, but no read of it succeeded" % a["what"])

    # The exit status and the claims
    all_good = (all(a["status"] == "done" for a in actions) and all(v["read"] and not v["stale"] for v in values))
    if status == 0 and not all_good:
        bad.append("exit 0, yet an action or a value is no success")
    if status == 0 and any(e.get("kind") in ("no answer", "ams error", "not ams") for e in errors):
        bad.append("exit 0 after the session was stopped")
    if status == 6 and not any(c for c in log_results if c):
        bad.append("exit 6 (ADS error), but the PLC sent no ADS error")
    if status == 5 and not log_ams:
        bad.append("exit 5 (AMS error), but the PLC sent no AMS error")
    expected = {"netid": 5, "port": 5, "noroute": 4}.get(p.behaviour)
    if p.refused:
        expected = 2
    if expected is not None and status != expected:
        bad.append("exit %d where the behaviour '%s'%s decides %d" % (status, p.behaviour,
                                                                      " (refused request)" if p.refused else "",
                                                                      expected))
    if status == 2 and not p.refused:
        bad.append("exit 2 (usage error) for a request the driver carries out right")
    if p.refused and requests:
        bad.append("a refused request, yet %d requests reached the PLC" % len(requests))
    return bad


# ------------------------------------------------------------------------------------------


def run_seed(args, seed, workdir):
    p = draw(seed)
    sim = Sim(args.plcsim, workdir)
    adshost_proc = None
    extra = ["--route", "10.9.8.7.1.1"] if p.behaviour == "noroute" else []
    sim.start(extra)
    try:
        for a in "IQM":
            sim.set(a, 0, p.memory[a])
        for c in p.fault_cmds:
            r = sim.command(c)
            if not r.startswith("ok"):
                raise RuntimeError("%s: %s" % (c, r))
        cmd = shlex.split(args.wrapper) if args.wrapper else []
        cmd += [args.adshost, "--driver", args.driver, "--plc", "127.0.0.1:%d" % sim.ads_port,
                "--netid", "192.168.1.101.1.1" if p.behaviour == "netid" else "192.168.1.100.1.1",
                "--ams-port", "852" if p.behaviour == "port" else "851", "--json", "--gap", str(p.gap),
                "--timeout-ms", "200", "--retries", str(p.retries), "--action-timeout", "4"]
        cmd += p.limit
        if p.interval is not None:
            cmd += ["--interval-ms", p.interval]
        for w in p.watches:
            cmd += ["--watch", w]
        for w in p.writes:
            cmd += ["--write", w[0]]
        for r in p.recipe:
            cmd += ["--recipe", r[0]]
        for c in p.conditions:
            cmd += ["--condition", c]
        if p.refused:
            cmd += [p.refused]
        proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        adshost_proc = proc
        if p.behaviour in ("silence", "restart"):
            time.sleep(p.event_at)
            if p.behaviour == "silence":
                sim.command("fault-prob noreply 1")
            else:
                # The PLC keeps its memory over the restart: what it held at the start, with
                # every write it carried out (its log has their bytes) replayed in order.
                ads, ctl = sim.ads_port, sim.control_port
                sim.stop()
                saved = {a: bytearray(p.memory[a]) for a in "IQM"}
                for r in sim.requests():
                    area = AREA_OF_GROUP.get(r["group"])
                    if (r["cmd"] == "Write(3)" and area and r["result"] == 0 and r["fault"] != "adserror"
                            and r["data"] is not None and r["offset"] + r["length"] <= len(saved[area])):
                        saved[area][r["offset"]:r["offset"] + r["length"]] = r["data"]
                saved = {a: bytes(v) for a, v in saved.items()}
                time.sleep(0.1)
                sim.start([], ads, ctl)
                for a in "IQM":
                    sim.set(a, 0, saved[a])
                for c in p.fault_cmds:
                    sim.command(c)
        try:
            out, err = proc.communicate(timeout=60)
        except subprocess.TimeoutExpired:
            proc.kill()
            out, err = proc.communicate()
            return p, cmd, ["adshost did not end within 60 s"], -1, err
        memory_end = {a: sim.get(a, 0, 3100) for a in "IQM"}
    finally:
        if adshost_proc is not None and adshost_proc.poll() is None:
            adshost_proc.kill()
            adshost_proc.wait()
        sim.stop()
    requests = sim.requests()
    bad = check_session(p, out.decode().splitlines(), proc.returncode, sim, memory_end, requests)
    return p, cmd, bad, proc.returncode, err


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--adshost", required=True)
    ap.add_argument("--driver", required=True)
    ap.add_argument("--plcsim", required=True)
    ap.add_argument("--seeds", type=int, default=30)
    ap.add_argument("--first-seed", type=int, default=1)
    ap.add_argument("--max-seconds", type=float, default=0, help="stop starting seeds after this long")
    ap.add_argument("--wrapper", default="", help="runs adshost under this command (qemu-arm -L ...)")
    ap.add_argument("--verbose", action="store_true")
    ap.add_argument("--stop-at-first", action="store_true", help="stop after the first seed with a false claim")
    args = ap.parse_args()
    # Killed (a CTest time-out): the finally blocks still stop plcsim and adshost by their PID.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    start = time.time()
    failures = 0
    statuses = {}
    behaviours = {}
    ran = 0
    with tempfile.TemporaryDirectory(prefix="truth.") as tmp:
        for seed in range(args.first_seed, args.first_seed + args.seeds):
            if args.max_seconds and time.time() - start > args.max_seconds:
                break
            d = os.path.join(tmp, str(seed))
            os.mkdir(d)
            p, cmd, bad, status, err = run_seed(args, seed, d)
            ran += 1
            statuses[status] = statuses.get(status, 0) + 1
            behaviours[p.behaviour] = behaviours.get(p.behaviour, 0) + 1
            if bad:
                failures += 1
                print("seed %d (%s): %d false claim(s), exit %d" % (seed, p.behaviour, len(bad), status))
                for b in bad[:8]:
                    print("  " + b)
                print("  command: " + " ".join(shlex.quote(c) for c in cmd))
                if args.verbose:
                    print("  stderr: " + err.decode().replace("\n", "\n          "))
                if args.stop_at_first:
                    break
            elif args.verbose:
                print("seed %d (%s): exit %d, every claim true" % (seed, p.behaviour, status))
            sys.stdout.flush()
    print("truth: %d seeds in %.0f s, %d with a false claim; exit statuses %s; behaviours %s"
          % (ran, time.time() - start, failures, dict(sorted(statuses.items())), dict(sorted(behaviours.items()))))
    return 1 if failures or ran == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
