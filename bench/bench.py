#!/usr/bin/env python3
"""The relay's benchmarks: `bench.py measure BUILD` runs them and writes raw
rows to bench/results.csv; `bench.py report` turns those rows into
bench/REPORT.md and the data and script for the latency picture.

Rows are test,baud,size,ports,offered,name,value; baud 0 is an unpaced
line. Every process started here is ended here, by its own handle.
"""
import csv
import math
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
RESULTS = HERE / "results.csv"
FIELDS = ["test", "baud", "size", "ports", "offered", "name", "value"]

# The design's own timings, from which every floor below is built.
PAUSE_MS = 100.0      # the link sleeps this long between seeing data and reading it
READ_BUFFER = 1024    # and reads at most this many bytes at a time
POLL_MS = 1.0         # a host reader pauses this long after an empty poll
BITS_PER_BYTE = 10    # start, 8 data bits, stop
# dlsim paces its pseudo-terminal but lets an idle line catch up 10 ms of
# bytes at once, on each side.
SIM_READ_CREDIT_MS = 10.0
SIM_WRITE_CREDIT_MS = 10.0

BAUDS = [0, 19200, 38400, 115200]
SIZES = [64, 512, 1024]
THROUGHPUT_SIZE = 512
SUSTAIN_SECONDS = 20
SATURATE_SECONDS = 5
IDLE_SECONDS = 10
IDLE_PORTS = [1, 4, 16]
ROUTE_CLIENTS = 10000
ROUTE_REPEATS = 3
INSTR_SIZE = 512
INSTR_COUNT = 100
# Round-trip samples per cell, fewer where each one takes a second.
RTT_SAMPLES = {0: 50, 115200: 40, 38400: 30, 19200: 20}


# ---- the floor model -------------------------------------------------------------

def byte_ms(baud):
    return 1000.0 * BITS_PER_BYTE / baud if baud else 0.0


def frame_estimate(size):
    """Line bytes of a frame before one was measured: headers, two ENDs and
    the escapes of a payload that runs through every byte value."""
    return size + 28 + 2 + size // 128 + 1


def credit_bytes(baud, credit_ms):
    return int(credit_ms / byte_ms(baud)) if baud else 0


def reader_ms(frame, baud, first=1):
    """When the relay's link reader holds the whole frame, counted from the
    moment the frame's first `first` bytes are there: it pauses, reads what
    has come (at most one buffer), and pauses again while any is missing."""
    b = byte_ms(baud)
    first = frame if b == 0 else max(1, min(frame, first))

    def arrived(t):
        return frame if b == 0 else min(frame, first + int(t / b))

    t, got = 0.0, 0
    while True:
        t += PAUSE_MS
        got += min(READ_BUFFER, arrived(t) - got)
        if got >= frame:
            return t
        if arrived(t) <= got:           # nothing waiting: the next byte wakes it
            t = (got - first + 1) * b


def rtt_floors(baud, req, rep):
    """The floors of one round trip with frames of req and rep line bytes:
    (the sum of line time, pause and poll; the design floor on a real line;
    the design floor on dlsim's line)."""
    b = byte_ms(baud)
    simple = (req + rep) * b + PAUSE_MS + POLL_MS
    real = POLL_MS + req * b + reader_ms(rep, baud)
    sim_req = max(0.0, (req - credit_bytes(baud, SIM_READ_CREDIT_MS)) * b)
    sim = POLL_MS + sim_req + reader_ms(rep, baud, credit_bytes(baud, SIM_WRITE_CREDIT_MS))
    return simple, real, sim


def ceilings(baud, frame):
    """Line bytes/s of the line and of the link reader (one buffer per pause),
    and the datagrams/s each direction can carry with frames of that size."""
    line = baud / BITS_PER_BYTE if baud else math.inf
    reader = READ_BUFFER / (PAUSE_MS / 1000.0)
    return line, reader, line / frame, min(line, reader) / frame


# Where the programs are; set by measure().
PROG = {}


# ---- running things ----------------------------------------------------------------

class Rows:
    """The raw rows of this run, appended to results.csv as they come."""

    def __init__(self, path):
        self.lock = threading.Lock()
        self.file = open(path, "w", newline="")
        self.out = csv.writer(self.file)
        self.out.writerow(FIELDS)

    def add(self, *row):
        with self.lock:
            self.out.writerow(row)
            self.file.flush()

    def add_text(self, text):
        """Rows printed by kvload; returns them as name -> value."""
        got = {}
        for line in text.splitlines():
            parts = line.split(",")
            if len(parts) == 7:
                self.add(*parts)
                got[parts[5]] = float(parts[6])
        return got


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def say(text):
    print(f"bench: {text}", flush=True)


def stop(proc, sig=signal.SIGTERM):
    if proc.poll() is None:
        proc.send_signal(sig)
    try:
        proc.wait(timeout=10)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()


def run_parallel(jobs):
    """Runs callables side by side; returns their results in order."""
    results = [None] * len(jobs)

    def one(i, job):
        results[i] = job()

    threads = [threading.Thread(target=one, args=(i, j)) for i, j in enumerate(jobs)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return results


# ---- 1. round trips through dlsim's echo -----------------------------------------

def dlsim_counters(errfile):
    """The last counters line dlsim logged: (frames in, bytes in, frames out, bytes out)."""
    text = Path(errfile).read_text()
    m = re.findall(r"counters: frames in (\d+), bytes in (\d+), accepted \d+; frames out (\d+), "
                   r"bytes out (\d+)", text)
    return tuple(int(x) for x in m[-1]) if m else (0, 0, 0, 0)


def start_pair(baud, work):
    """dlsim (echo) on a new pseudo-terminal and the relay on it, one port."""
    sim_err = open(work / "dlsim.err", "w")
    args = [PROG["dlsim"]] + (["--baud", str(baud)] if baud else [])
    sim = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=sim_err, text=True)
    line = sim.stdout.readline().split()[-1]
    port = free_port()
    (work / "korvane.pf").write_text(
        f"default {{\n mode slip\n device {line}\n baud {baud or 115200}\n flow none\n"
        f" q330_ip_address 192.168.1.50\n port_translations {{\n  {port} 5330\n }}\n}}\n")
    relay = subprocess.Popen([PROG["korvane"]], cwd=work, stdout=subprocess.DEVNULL,
                             stderr=open(work / "korvane.log", "w"))
    time.sleep(0.5)
    return sim, relay, port


def rtt_cell(rows, sim, work, baud, size, port, before):
    """dlping through the relay for one payload size; returns the counters after."""
    n = RTT_SAMPLES[baud]
    req = frame_estimate(size)
    expect = rtt_floors(baud, req, req)[1]
    interval = expect + 100.0
    args = [PROG["dlping"], "-c", str(n + 1), "-s", str(size), "-i", f"{interval:.0f}",
            "-W", f"{3 * expect + 1000:.0f}", f"127.0.0.1:{port}"]
    out = subprocess.run(args, capture_output=True, text=True, timeout=(n + 2) * interval / 1000 + 30).stdout
    # The first datagram also resolves the datalogger's address and
    # creates the route; it is left out.
    samples = [float(t) for s, t in re.findall(r"seq=(\d+) time=([\d.]+) ms", out) if int(s) > 0]
    for v in samples:
        rows.add("rtt", baud, size, 1, "", "sample_ms", v)
    sim.send_signal(signal.SIGUSR1)
    time.sleep(0.3)
    after = dlsim_counters(work / "dlsim.err")
    d = [a - b for a, b in zip(after, before)]
    if d[0] and d[2]:
        rows.add("rtt", baud, size, 1, "", "req_frame_bytes", d[1] / d[0])
        rows.add("rtt", baud, size, 1, "", "rep_frame_bytes", d[3] / d[2])
    rows.add("rtt", baud, size, 1, "", "sent", n)
    rows.add("rtt", baud, size, 1, "", "received", len(samples))
    return after


def rtt_group(rows, baud):
    with tempfile.TemporaryDirectory(prefix="kvbench-") as tmp:
        work = Path(tmp)
        sim, relay, port = start_pair(baud, work)
        try:
            counters = (0, 0, 0, 0)
            for size in SIZES:
                counters = rtt_cell(rows, sim, work, baud, size, port, counters)
        finally:
            stop(relay)
            stop(sim)


def measure_rtt(rows):
    say("round trips through dlsim's echo, four line speeds side by side")
    run_parallel([lambda b=b: rtt_group(rows, b) for b in BAUDS])


# ---- 2. sustained throughput, 3. and 4. CPU and memory under load ------------------

def kvload(rows, *args):
    cmd = [PROG["kvload"], "--relay", PROG["korvane"]] + [str(a) for a in args]
    res = subprocess.run(cmd, capture_output=True, text=True, timeout=600)
    if res.returncode != 0:
        say(f"kvload {' '.join(str(a) for a in args)} failed: {res.stderr.strip()}")
    return rows.add_text(res.stdout)


def offered_to_saturate(direction, baud):
    if direction == "up" and baud == 0:
        return 100000     # an unpaced line: as fast as the client can send
    frame = frame_estimate(THROUGHPUT_SIZE)
    up, down = ceilings(baud, frame)[2:]
    return round(1.5 * (up if direction == "up" else down), 2)


def throughput_jobs(rows, configs, label, seconds, rates, extra=()):
    return [lambda d=d, b=b: kvload(rows, "--mode", d, "--label", f"{label}_{d}", "--baud", b,
                                     "--size", THROUGHPUT_SIZE, "--rate", rates[(d, b)],
                                     "--seconds", seconds, *extra)
            for d, b in configs]


# Fractions of the measured capacity offered for SUSTAIN_SECONDS, the next
# only after a loss. An unpaced line is no field case: there the last step
# asks only whether the relay keeps up far beyond any serial line.
LADDER = [0.95, 0.85]
LADDER_UNPACED_UP = [0.95, 0.85, 0.10]
BASELINE_SECONDS = 5


def measure_throughput(rows):
    # Paced runs wait on the line far more than they compute, so they share
    # the machine; the unpaced client->datalogger run uses a core and runs alone.
    quiet = [(d, b) for d in ("up", "down") for b in BAUDS if b] + [("down", 0)]
    busy = [("up", 0)]
    say(f"saturating each direction for {SATURATE_SECONDS} s (delivered rate = capacity)")
    rates = {c: offered_to_saturate(*c) for c in quiet + busy}
    capacity = {}
    for group in (quiet, busy):
        got = run_parallel(throughput_jobs(rows, group, "saturate", SATURATE_SECONDS, rates, ["--saturate"]))
        capacity.update((c, r.get("delivered_per_s", 0)) for c, r in zip(group, got))
    pending = {c: (LADDER_UNPACED_UP if c == ("up", 0) else LADDER) for c in quiet + busy}
    step = 0
    while pending:
        say(f"offering {', '.join(sorted({f'{l[step]:.0%}' for l in pending.values()}))} of each capacity "
            f"for {SUSTAIN_SECONDS} s ({len(pending)} runs)")
        failed = {}
        for group in ([c for c in quiet if c in pending], [c for c in busy if c in pending]):
            if not group:
                continue
            label = {c: f"sustain{round(100 * pending[c][step])}" for c in group}
            got = run_parallel([lambda c=c: kvload(rows, "--mode", c[0], "--label", f"{label[c]}_{c[0]}",
                                                   "--baud", c[1], "--size", THROUGHPUT_SIZE,
                                                   "--rate", round(pending[c][step] * capacity[c], 2),
                                                   "--seconds", SUSTAIN_SECONDS, "--baseline", BASELINE_SECONDS)
                                for c in group])
            failed.update((c, pending[c]) for c, r in zip(group, got) if r.get("pass") != 1)
        step += 1
        pending = {c: l for c, l in failed.items() if step < len(l)}


def measure_idle(rows):
    say(f"idle CPU over {IDLE_SECONDS} s with 1, 4, 16 ports, beside bare polling loops")
    jobs = []
    for n in IDLE_PORTS:
        jobs.append(lambda n=n: kvload(rows, "--mode", "idle", "--ports", n, "--seconds", IDLE_SECONDS))
        for recvs in (1, 2):
            jobs.append(lambda n=n, r=recvs: kvload(rows, "--mode", "bareloop", "--label",
                                                    f"bareloop{r}", "--ports", n, "--recvs", r,
                                                    "--seconds", IDLE_SECONDS))
    run_parallel(jobs)


def measure_syscalls(rows):
    """System calls of an idle relay with one port, by strace, when it is there."""
    strace = subprocess.run(["sh", "-c", "command -v strace"], capture_output=True, text=True).stdout.strip()
    if not strace:
        say("no strace: the system-call count of an idle relay is skipped")
        return
    say("system calls of an idle relay over 3 s (strace)")
    load = subprocess.Popen([PROG["kvload"], "--relay", PROG["korvane"], "--mode", "idle", "--label", "strace",
                             "--seconds", "5"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        time.sleep(1.5)
        kids = Path(f"/proc/{load.pid}/task/{load.pid}/children").read_text().split()
        if not kids:
            return
        trace = subprocess.Popen([strace, "-c", "-f", "-p", kids[0]], stdout=subprocess.DEVNULL,
                                 stderr=subprocess.PIPE, text=True)
        time.sleep(3)
        trace.send_signal(signal.SIGINT)
        text = trace.communicate(timeout=10)[1]
        for calls, errors, name in re.findall(r"^\s*[\d.]+\s+[\d.]+\s+\d+\s+(\d+)\s+(\d*)\s*(\w+)\s*$",
                                              text, re.M):
            rows.add("strace", 0, "", 1, "", f"{name}_calls", int(calls))
            rows.add("strace", 0, "", 1, "", f"{name}_errors", int(errors or 0))
    finally:
        load.wait(timeout=30)


def measure_routes(rows):
    say(f"routing map growth: {ROUTE_CLIENTS} clients, {ROUTE_REPEATS} fresh relays")
    for i in range(ROUTE_REPEATS):
        kvload(rows, "--mode", "routes", "--label", f"routes{i}", "--count", ROUTE_CLIENTS)


def measure_instructions(rows):
    say("instructions of one datagram through the SLIP layer (callgrind)")
    with tempfile.TemporaryDirectory(prefix="kvbench-") as tmp:
        out = Path(tmp) / "callgrind.out"
        subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}",
                        "--toggle-collect=kvslip_measured", PROG["kvslip"], "-n", str(INSTR_COUNT),
                        "-s", str(INSTR_SIZE)], capture_output=True, text=True, check=True)
        inclusive = subprocess.run(["callgrind_annotate", "--inclusive=yes", str(out)],
                                   capture_output=True, text=True).stdout
        exclusive = subprocess.run(["callgrind_annotate", str(out)], capture_output=True, text=True).stdout
    for fn in ("slip_sendto", "slip_recvfrom"):
        m = re.search(r"^\s*([\d,]+)\s.*:" + fn + r"\(", inclusive, re.M)
        if m:
            rows.add("instr", 0, INSTR_SIZE, 1, "", f"{fn}_per_datagram", int(m.group(1).replace(",", "")) / INSTR_COUNT)
    for fn, ir in own_self_costs(exclusive):
        rows.add("instr", 0, INSTR_SIZE, 1, "", f"self:{fn}", ir / INSTR_COUNT)


def own_self_costs(annotated):
    """(function, instructions) of the project's own functions, from the
    function table that heads callgrind_annotate's output."""
    table = annotated.split("file:function", 1)[-1].split("\n\n", 1)[0]
    out = []
    for ir, where in re.findall(r"^\s*([\d,]+)\s+(?:\([^)]*\)\s+)?(\S+?:.*?)\s*(?:\[.*\])?$", table, re.M):
        path, fn = where.split(":", 1)
        if re.match(r"(/work/main/)?(net|link|support|stats|relay)/", path):
            out.append((fn.split("(")[0], int(ir.replace(",", ""))))
    return out


def environment(rows, phase):
    load = os.getloadavg()[0]
    rows.add("env", 0, "", "", "", f"load_{phase}", load)
    return load


def measure(build):
    """build: the bench tree (bench/run's build-bench), holding kvload and
    kvslip, with the relay and its tools under korvane/."""
    for name in ("korvane", "dlsim", "dlping"):
        PROG[name] = str(build / "korvane" / name)
    for name in ("kvload", "kvslip"):
        PROG[name] = str(build / name)
    rows = Rows(RESULTS)
    t0 = time.time()
    environment(rows, "start")
    for step in (measure_rtt, measure_throughput, measure_idle, measure_syscalls, measure_routes,
                 measure_instructions):
        step(rows)
        environment(rows, step.__name__.replace("measure_", "after_"))
    rows.add("env", 0, "", "", "", "seconds", round(time.time() - t0, 1))
    say(f"measured in {time.time() - t0:.0f} s; raw rows in {RESULTS}")


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "measure":
        measure(Path(sys.argv[2]).resolve())
    elif len(sys.argv) == 2 and sys.argv[1] == "report":
        import report
        report.main()
    else:
        sys.exit("usage: bench.py measure BUILD | bench.py report")
