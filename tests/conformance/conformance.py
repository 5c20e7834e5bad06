#!/usr/bin/env python3
"""Wire conformance of the driver, checked with a protocol analyser.

Records a session of the reference host (adshost with the driver plugin) against plcsim
with `adshost --pcap`, then reads the capture with tshark and checks every frame:

  * every TCP segment that carries bytes decodes as AMS, and nothing is malformed or
    carries an expert mark (TCP's own connection open/close notes aside);
  * requests: command id (6 handshake, 2 read, 3 write), state flags 0x0004, target =
    the PLC's Net ID and port (100 for the handshake), source = the panel's Net ID with
    port 0x80BB (handshake) or 0x8147, invoke id 7 (handshake) or 0, error code 0;
    index group/offset/length as the session's addresses give them;
  * responses: state flags 0x0005, Net IDs and ports swapped, the request's command id
    and invoke id;
  * from the raw bytes (tshark does not check them): the AMS/TCP length field and the AMS
    data length of every frame. A Write carries only the low byte of both length fields,
    so the session keeps its writes under 212 bytes, where those fields are exact.

The session: handshake (its first reply cut short by an injected fault), cyclic reads of
I_W, I_bit, Q_W and M_W, a word write, a bit write (read-modify-write), a recipe write and
read-back, and a condition read.

Usage: conformance.py --plcsim EXE --adshost EXE --driver LIB --workdir DIR
Exit status 0 when every check passed; the failures are listed otherwise.
"""

import argparse
import contextlib
import io
import os
import re
import shutil
import socket
import subprocess
import sys
import time

AMS_PORT = 851
HANDSHAKE_PORT = 100
PORT_HANDSHAKE_SOURCE = 0x80BB
PORT_SOURCE = 0x8147

GROUPS = {"I": 0xF020, "Q": 0xF030, "M": 0x4020}

# The session's addresses (adshost options). Word counts are 16-bit words, bit counts bits.
WATCHES = ["I_W:0:2", "I_bit:100.0:8", "Q_W:10:2", "M_W:100:4"]
WORD_WRITE = ("M_W:20", [0x1234])
BIT_WRITE = ("M_bit:30.3", 1)
RECIPE = ("M_W:200:2", [0x1111, 0x2222])
CONDITION = "M_W:300:2"


def block_of(addr):
    """(index group, byte offset, byte count) that a read of an address text covers."""
    parts = addr.split(":")
    reg, where = parts[0], parts[1]
    count = int(parts[2]) if len(parts) > 2 else 1
    group = GROUPS[reg[0]]
    if reg.endswith("_bit"):
        byte, bit = (int(x) for x in where.split("."))
        return group, byte, (bit + count + 7) // 8
    return group, int(where), 2 * count


def le_words(values):
    out = b""
    for v in values:
        out += bytes([v & 0xFF, v >> 8])
    return out


class Checker:
    def __init__(self):
        self.failures = []

    def check(self, ok, what):
        if not ok:
            self.failures.append(what)
        return ok


def u16(b, i):
    return b[i] | b[i + 1] << 8


def u32(b, i):
    return b[i] | b[i + 1] << 8 | b[i + 2] << 16 | b[i + 3] << 24


def netid(b, i):
    return ".".join(str(x) for x in b[i:i + 6])


def num(text):
    return int(text, 0) if text else None


def control(port, line):
    with socket.create_connection(("127.0.0.1", port), timeout=5) as s:
        s.sendall((line + "\n").encode())
        reply = b""
        deadline = time.monotonic() + 5
        while not reply.endswith(b"\n") and time.monotonic() < deadline:
            chunk = s.recv(4096)
            if not chunk:
                break
            reply += chunk
        return reply.decode().strip()


def start_plcsim(exe, args, folder, timeout=5.0):
    """Starts plcsim with --port-file in folder; returns (process, ports) once the file is
    there (plcsim renames it into place whole), or (None, reason)."""
    port_file = os.path.join(folder, "plcsim.ports")
    if os.path.exists(port_file):
        os.unlink(port_file)
    sim = subprocess.Popen([exe] + args + ["--port-file", port_file], stdout=subprocess.DEVNULL)
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if os.path.exists(port_file):
            with open(port_file) as f:
                ports = dict(line.strip().split("=", 1) for line in f if "=" in line)
            return sim, ports
        if sim.poll() is not None:
            return None, "plcsim ended with status %d before writing %s" % (sim.returncode, port_file)
        time.sleep(0.02)
    stop_plcsim(sim)
    return None, "plcsim wrote no %s within %.0f s" % (port_file, timeout)


def stop_plcsim(sim):
    """SIGTERM to its PID, at most 5 s, then SIGKILL. Returns its exit status."""
    sim.terminate()
    try:
        return sim.wait(timeout=5)
    except subprocess.TimeoutExpired:
        sim.kill()
        return sim.wait()


def local_ipv4_addresses():
    """This machine's IPv4 addresses in interface order (iproute2)."""
    try:
        out = subprocess.run(["ip", "-4", "-o", "addr", "show"], capture_output=True, text=True,
                             timeout=10).stdout
    except (OSError, subprocess.SubprocessError):
        return []
    return re.findall(r"\binet (\d+\.\d+\.\d+\.\d+)/", out)


def tshark(args, timeout=120):
    r = subprocess.run(["tshark"] + args, capture_output=True, text=True, timeout=timeout)
    if r.returncode != 0:
        raise RuntimeError("tshark %s failed (%d): %s" % (" ".join(args), r.returncode, r.stderr.strip()))
    return [l for l in r.stdout.splitlines() if l.strip()]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--plcsim")
    ap.add_argument("--adshost")
    ap.add_argument("--driver")
    ap.add_argument("--workdir")
    ap.add_argument("--seconds", type=int, default=2)
    # Checks an existing capture instead of recording one (e.g. a user's capture of
    # this session): --check PCAP --plc-port N --plc-netid X --panel-netid Y
    ap.add_argument("--check")
    ap.add_argument("--plc-port", type=int)
    ap.add_argument("--plc-netid")
    ap.add_argument("--panel-netid")
    a = ap.parse_args()
    if a.check:
        if not (a.plc_port and a.plc_netid and a.panel_netid):
            ap.error("--check needs --plc-port, --plc-netid and --panel-netid")
        return check_capture(Checker(), a.check, a.plc_port, a.plc_netid, a.panel_netid)
    if not (a.plcsim and a.adshost and a.driver and a.workdir):
        ap.error("--plcsim, --adshost, --driver and --workdir are required")

    if not shutil.which("tshark"):
        print("conformance: tshark is not installed (scripts/install-deps.sh installs it)")
        return 1
    os.makedirs(a.workdir, exist_ok=True)
    pcap = os.path.join(a.workdir, "session.pcap")
    simlog = os.path.join(a.workdir, "plcsim.log")
    for f in (pcap, simlog):
        if os.path.exists(f):
            os.unlink(f)

    # The PLC's Net ID starts with the first two numbers of one of this machine's
    # addresses, so that the driver finds a panel address for it (it sends 0.0.0.0.1.1
    # otherwise).
    plc_netid = "192.168.1.100.1.1"
    usable = [x for x in local_ipv4_addresses() if x not in ("127.0.0.1", "0.0.0.0")]
    if usable:
        p = usable[0].split(".")
        plc_netid = "%s.%s.1.100.1.1" % (p[0], p[1])

    c = Checker()
    sim, ports = start_plcsim(a.plcsim, ["--listen", "127.0.0.1:0", "--control", "127.0.0.1:0",
                                         "--netid", plc_netid, "--ports", str(AMS_PORT), "--log", simlog],
                              a.workdir)
    if sim is None:
        print("conformance: plcsim did not start: %s" % ports)
        return 1
    try:
        plc_port, ctl_port = int(ports["ads_port"]), int(ports["control_port"])
        c.check(ports.get("netid") == plc_netid, "plcsim reports Net ID %r, not %s" % (ports.get("netid"), plc_netid))

        # The panel's Net ID as the driver finds it; adshost --probe applies the same rule.
        probe = subprocess.run([a.adshost, "--probe", "--plc", "127.0.0.1:%d" % plc_port, "--netid", plc_netid,
                                "--ams-port", str(AMS_PORT)], capture_output=True, text=True, timeout=30)
        m = re.search(r"^source AMS Net ID (\S+) ", probe.stdout, re.M)
        if probe.returncode != 0 or not m:
            print("conformance: adshost --probe failed (%d): %s%s" % (probe.returncode, probe.stdout, probe.stderr))
            return 1
        panel_netid = m.group(1)
        if usable:
            c.check(panel_netid != "0.0.0.0.1.1",
                    "this machine has address %s, yet no panel address was found for %s" % (usable[0], plc_netid))

        # One injected fault: the next request (the driver's handshake) gets a reply one byte short.
        c.check(control(ctl_port, "fault short 1") == "ok", "control port: fault short 1")
        control(ctl_port, "reset-counters")

        cmd = [a.adshost, "--driver", a.driver, "--plc", "127.0.0.1:%d" % plc_port, "--netid", plc_netid,
               "--ams-port", str(AMS_PORT), "--duration", str(a.seconds), "--interval-ms", "5",
               "--pcap", pcap, "--quiet"]
        for w in WATCHES:
            cmd += ["--watch", w]
        cmd += ["--write", "%s=%s" % (WORD_WRITE[0], ",".join("0x%04X" % v for v in WORD_WRITE[1]))]
        cmd += ["--write", "%s=%d" % BIT_WRITE]
        cmd += ["--recipe", "%s=%s" % (RECIPE[0], ",".join("0x%04X" % v for v in RECIPE[1]))]
        cmd += ["--condition", CONDITION]
        host = subprocess.run(cmd, capture_output=True, text=True, timeout=a.seconds + 60)
        print("adshost:", " ".join(cmd[1:]))
        print(host.stdout.rstrip())
        if host.stderr.strip():
            print(host.stderr.rstrip())
        c.check(host.returncode == 0, "adshost exit status %d" % host.returncode)
        c.check("(matches the download)" in host.stdout, "recipe read-back does not match the download")
        c.check("condition read: done" in host.stdout, "condition read not done")
        counters = control(ctl_port, "counters")
        print("plcsim:", counters)
        c.check(" faults=1 " in counters, "plcsim applied not exactly one fault: " + counters)
        c.check(" unanswered=0 " in counters, "plcsim left requests unanswered: " + counters)
    finally:
        stop_plcsim(sim)

    if not os.path.exists(pcap):
        print("conformance: no capture written")
        return 1

    status = check_capture(c, pcap, plc_port, plc_netid, panel_netid)
    if status == 0:
        status = self_test(pcap, plc_port, plc_netid, panel_netid)
    return status


def self_test(pcap, plc_port, plc_netid, panel_netid):
    """The length checks can fail: copies of the capture with one length field of the word
    write changed must be rejected, with the reason."""
    data = open(pcap, "rb").read()
    # The word write's frame: AMS/TCP header with length 44 + n, command 3, flags 0x0004.
    n = 2 * len(WORD_WRITE[1])
    head = bytes([0, 0, 44 + n, 0, 0, 0])
    at = data.find(head)
    while at >= 0 and not (data[at + 22] == 3 and data[at + 24] == 4 and data[at + 50:at + 50 + n] ==
                           le_words(WORD_WRITE[1])):
        at = data.find(head, at + 1)
    if at < 0:
        print("self-test: the word write's frame is not in the capture")
        return 1
    cases = [(at + 26, 12 + n + 1, "AMS data length %d, frame has %d data bytes" % (12 + n + 1, 12 + n)),
             (at + 5, 1, "AMS/TCP length %d, frame has %d bytes after the header" % ((1 << 24) + 44 + n, 44 + n))]
    for i, (pos, value, reason) in enumerate(cases):
        bad = bytearray(data)
        bad[pos] = value
        path = pcap + ".bad%d" % i
        with open(path, "wb") as f:
            f.write(bad)
        c = Checker()
        with contextlib.redirect_stdout(io.StringIO()):
            status = check_capture(c, path, plc_port, plc_netid, panel_netid)
        if status == 0 or not any(reason in x for x in c.failures):
            print("self-test: a capture with byte %d set to %d was not rejected for '%s': %s"
                  % (pos - at, value, reason, c.failures))
            return 1
        os.unlink(path)
    print("self-test: captures with a wrong AMS/TCP length or AMS data length are rejected")
    return 0


def check_capture(c, pcap, plc_port, plc_netid, panel_netid):
    """Checks every frame of a capture of one session; prints the result, returns the exit status."""
    decode = ["-r", pcap, "-d", "tcp.port==%d,ams" % plc_port]

    # 1. Every segment with bytes decodes as AMS.
    all_frames = tshark(["-r", pcap, "-Y", "tcp", "-T", "fields", "-e", "frame.number"])
    data_frames = tshark(["-r", pcap, "-Y", "tcp.len > 0", "-T", "fields", "-e", "frame.number"])
    ams_frames = tshark(decode + ["-Y", "ams", "-T", "fields", "-e", "frame.number"])
    print("capture: %d TCP frames, %d with data, %d decoded as AMS" % (len(all_frames), len(data_frames),
                                                                      len(ams_frames)))
    c.check(len(data_frames) == len(ams_frames) and data_frames == ams_frames,
            "frames with data %d, decoded as AMS %d" % (len(data_frames), len(ams_frames)))

    # 2. No malformed frame and no expert mark, except TCP's notes on opening and closing
    #    the connection (segments without data, group Sequence, severity chat or note).
    seq_group, note = 0x02000000, 0x00400000
    for line in tshark(decode + ["-Y", "_ws.malformed || _ws.expert", "-T", "fields", "-E", "separator=,",
                                 "-E", "aggregator=;", "-e", "frame.number", "-e", "tcp.len", "-e",
                                 "_ws.expert.group", "-e", "_ws.expert.severity", "-e", "_ws.malformed",
                                 "-e", "_ws.expert.message"]):
        f = line.split(",", 5)
        groups = [int(x) for x in f[2].split(";") if x]
        sev = [int(x) for x in f[3].split(";") if x]
        benign = (f[1] == "0" and not f[4] and groups and all(g == seq_group for g in groups)
                  and all(s <= note for s in sev))
        c.check(benign, "frame %s is malformed or has an expert mark: %s" % (f[0], line))

    # 3. Frame by frame.
    fields = ["frame.number", "tcp.srcport", "tcp.dstport", "ams.cmdid", "ams.stateflags", "ams.targetnetid",
              "ams.targetport", "ams.sendernetid", "ams.senderport", "ams.ads_indexgroup",
              "ams.ads_indexoffset", "ams.ads_cblength", "ams.cbdata", "ams.invokeid", "ams.errorcode",
              "tcp.payload"]
    rows = []
    for line in tshark(decode + ["-Y", "ams", "-T", "fields", "-E", "separator=,", "-E", "aggregator=;"]
                       + [x for f in fields for x in ("-e", f)]):
        v = line.split(",")
        if not c.check(len(v) == len(fields), "unexpected field line: " + line):
            continue
        rows.append(dict(zip(fields, v)))

    plc_addr = (plc_netid, AMS_PORT)
    cyclic = {block_of(w) for w in WATCHES}
    condition = block_of(CONDITION)
    recipe_block = block_of(RECIPE[0])
    word_write = block_of(WORD_WRITE[0] + ":%d" % len(WORD_WRITE[1]))
    bit_group, bit_byte, _ = block_of(BIT_WRITE[0])
    bit_no = int(BIT_WRITE[0].split(".")[1])
    expected_reads = cyclic | {condition, recipe_block, (bit_group, bit_byte, 1)}
    # The bit write's data: the byte read just before it with the bit set (plcsim memory
    # starts at zero and nothing else writes that byte).
    expected_writes = {word_write: le_words(WORD_WRITE[1]), recipe_block: le_words(RECIPE[1]),
                       (bit_group, bit_byte, 1): bytes([1 << bit_no])}

    seen_reads, seen_writes = {}, {}
    requests = responses = 0
    pending = None  # the request waiting for its response
    kinds = []      # sequence of ("req"/"rsp", cmd, (group, offset, length) or None)
    short_replies = []
    for r in rows:
        n = r["frame.number"]
        raw = bytes.fromhex(r["tcp.payload"])
        what = "frame %s" % n
        if not c.check(len(raw) >= 38, what + ": %d bytes, shorter than the AMS headers" % len(raw)):
            continue
        # Raw length fields: AMS/TCP length = bytes after the 6-byte header; AMS data
        # length = bytes after the 32-byte AMS header; one frame per segment.
        c.check(u16(raw, 0) == 0, what + ": AMS/TCP reserved field %#06x" % u16(raw, 0))
        c.check(u32(raw, 2) == len(raw) - 6, what + ": AMS/TCP length %d, frame has %d bytes after the header"
                % (u32(raw, 2), len(raw) - 6))
        c.check(u32(raw, 26) == len(raw) - 38, what + ": AMS data length %d, frame has %d data bytes"
                % (u32(raw, 26), len(raw) - 38))
        cmd_id, flags, invoke = u16(raw, 22), u16(raw, 24), u32(raw, 34)
        tgt, src = (netid(raw, 6), u16(raw, 12)), (netid(raw, 14), u16(raw, 20))
        # tshark's decoding agrees with the raw bytes.
        c.check(num(r["ams.cmdid"]) == cmd_id and num(r["ams.stateflags"]) == flags
                and r["ams.targetnetid"] == tgt[0] and num(r["ams.targetport"]) == tgt[1]
                and r["ams.sendernetid"] == src[0] and num(r["ams.senderport"]) == src[1]
                and num(r["ams.cbdata"]) == u32(raw, 26) and num(r["ams.invokeid"]) == invoke,
                what + ": tshark's fields differ from the bytes: %r" % r)
        c.check(u32(raw, 30) == 0, what + ": AMS error code %#x" % u32(raw, 30))

        if int(r["tcp.dstport"]) == plc_port:  # request from the panel
            requests += 1
            c.check(pending is None, what + ": request sent while frame %s was unanswered"
                    % (pending["n"] if pending else "-"))
            c.check(flags == 0x0004, what + ": request state flags %#06x, expected 0x0004" % flags)
            c.check(src[0] == panel_netid, what + ": source Net ID %s, expected %s" % (src[0], panel_netid))
            c.check(tgt[0] == plc_netid, what + ": target Net ID %s, expected %s" % (tgt[0], plc_netid))
            block = None
            if cmd_id == 6:
                c.check(tgt[1] == HANDSHAKE_PORT, what + ": handshake target port %d" % tgt[1])
                c.check(src[1] == PORT_HANDSHAKE_SOURCE, what + ": handshake source port %#x" % src[1])
                c.check(invoke == 7, what + ": handshake invoke id %d" % invoke)
                c.check(len(raw) == 78 and u32(raw, 26) == 40, what + ": handshake of %d bytes" % len(raw))
                if len(raw) == 78:
                    c.check((u32(raw, 38), u32(raw, 42), u32(raw, 46), u32(raw, 50), u32(raw, 54), u32(raw, 58))
                            == (1, 0xFFFF, 1024, 3, 0, 0) and raw[62:78] == bytes(16),
                            what + ": handshake data %s" % raw[38:].hex())
                    c.check((num(r["ams.ads_indexgroup"]), num(r["ams.ads_indexoffset"]),
                             num(r["ams.ads_cblength"])) == (1, 0xFFFF, 1024), what + ": tshark reads %r" % r)
            elif cmd_id in (2, 3):
                c.check(tgt[1] == AMS_PORT, what + ": target port %d, expected %d" % (tgt[1], AMS_PORT))
                c.check(src[1] == PORT_SOURCE, what + ": source port %#x, expected %#x" % (src[1], PORT_SOURCE))
                c.check(invoke == 0, what + ": invoke id %d, expected 0" % invoke)
                if len(raw) < 50:
                    c.check(False, what + ": read/write request of %d bytes" % len(raw))
                    continue
                block = (u32(raw, 38), u32(raw, 42), u32(raw, 46))
                c.check((num(r["ams.ads_indexgroup"]), num(r["ams.ads_indexoffset"]), num(r["ams.ads_cblength"]))
                        == block, what + ": tshark reads group/offset/length %r, bytes say %r" % (r, block))
                if cmd_id == 2:
                    c.check(len(raw) == 50 and u32(raw, 26) == 12, what + ": read request of %d bytes" % len(raw))
                    c.check(block in expected_reads, what + ": read of group %#x offset %d length %d, not an "
                            "address of the session" % block)
                    seen_reads[block] = seen_reads.get(block, 0) + 1
                else:
                    nbytes = block[2]
                    c.check(nbytes < 212, what + ": write of %d bytes; keep the session's writes under 212" % nbytes)
                    # Only the low byte of both length fields is written; under 212 bytes that is exact.
                    c.check(raw[2] == (44 + nbytes) & 0xFF and raw[3:6] == bytes(3), what +
                            ": write AMS/TCP length bytes %s for %d data bytes" % (raw[2:6].hex(), nbytes))
                    c.check(raw[26] == (12 + nbytes) & 0xFF and raw[27:30] == bytes(3), what +
                            ": write AMS data length bytes %s for %d data bytes" % (raw[26:30].hex(), nbytes))
                    c.check(len(raw) == 50 + nbytes, what + ": write of %d data bytes in %d bytes"
                            % (nbytes, len(raw)))
                    data = raw[50:]
                    c.check(block in expected_writes, what + ": write of group %#x offset %d length %d, not an "
                            "address of the session" % block)
                    if block in expected_writes:
                        c.check(data == expected_writes[block], what + ": write data %s, expected %s"
                                % (data.hex(), expected_writes[block].hex()))
                    seen_writes[block] = seen_writes.get(block, 0) + 1
            else:
                c.check(False, what + ": request with command id %d (the driver sends 6, 2 and 3)" % cmd_id)
            pending = {"n": n, "cmd": cmd_id, "invoke": invoke, "tgt": tgt, "src": src, "block": block}
            kinds.append(("req", cmd_id, block))
        else:  # response from the PLC
            responses += 1
            c.check(int(r["tcp.srcport"]) == plc_port, what + ": neither from nor to the PLC's port")
            if not c.check(pending is not None, what + ": response without a request"):
                continue
            c.check(flags == 0x0005, what + ": response state flags %#06x, expected 0x0005" % flags)
            c.check(cmd_id == pending["cmd"], what + ": response command id %d to a request with %d"
                    % (cmd_id, pending["cmd"]))
            c.check(invoke == pending["invoke"], what + ": response invoke id %d to a request with %d"
                    % (invoke, pending["invoke"]))
            c.check(tgt == pending["src"] and src == pending["tgt"],
                    what + ": response %s:%d -> %s:%d does not swap request %s:%d -> %s:%d"
                    % (src + tgt + pending["src"] + pending["tgt"]))
            expected_len = {6: 46, 3: 42}.get(cmd_id, 46 + (pending["block"][2] if pending["block"] else 0))
            if len(raw) == expected_len - 1:
                short_replies.append(n)
            else:
                c.check(len(raw) == expected_len, what + ": response of %d bytes, expected %d"
                        % (len(raw), expected_len))
                if len(raw) >= 42:
                    c.check(u32(raw, 38) == 0, what + ": ADS result %#x" % u32(raw, 38))
            pending = None
            kinds.append(("rsp", cmd_id, None))

    # The injected fault: one reply, to the first handshake, one byte short; the driver
    # rejects it and sends the handshake again.
    c.check(len(short_replies) == 1, "short replies in frames %s, expected exactly one" % short_replies)
    c.check(len(kinds) >= 4 and kinds[0][:2] == ("req", 6) and kinds[2][:2] == ("req", 6),
            "the handshake is not repeated after its short reply: %r" % kinds[:4])
    for b in sorted(cyclic | {condition, recipe_block, (bit_group, bit_byte, 1)}):
        c.check(b in seen_reads, "no read of group %#x offset %d length %d" % b)
    for b in sorted(expected_writes):
        c.check(seen_writes.get(b) == 1, "write of group %#x offset %d length %d sent %d times"
                % (b + (seen_writes.get(b, 0),)))
    # A bit write is a read of the byte, then the write of it.
    for i, k in enumerate(kinds):
        if k == ("req", 3, (bit_group, bit_byte, 1)):
            c.check(i >= 2 and kinds[i - 2] == ("req", 2, (bit_group, bit_byte, 1)),
                    "the bit write is not preceded by a read of its byte")

    print("conformance: %d frames checked (%d requests, %d responses), panel %s, PLC %s:%d"
          % (len(rows), requests, responses, panel_netid, plc_netid, AMS_PORT))
    for b in sorted(seen_reads):
        print("  read  group %#06x offset %5d length %3d: %d requests" % (b + (seen_reads[b],)))
    for b in sorted(seen_writes):
        print("  write group %#06x offset %5d length %3d: %d requests" % (b + (seen_writes[b],)))
    if c.failures:
        print("conformance: %d FAILED checks:" % len(c.failures))
        for f in c.failures[:50]:
            print("  " + f)
        if len(c.failures) > 50:
            print("  ... and %d more" % (len(c.failures) - 50))
        print("capture kept: " + pcap)
        return 1
    print("conformance: all checks passed")
    return 0



if __name__ == "__main__":
    sys.exit(main())
