#!/usr/bin/env python3
"""Fault-tolerance soak: a multi-block LZMA2 tar package is downloaded by soak_driver.exe under Wine
while the soak server drops connections (FIN, RST), stalls past the receive time-out and answers 500
(in some runs also acting as the client's authenticating proxy, whose login expires: 407), and the
client process is killed (TerminateProcess from inside, SIGKILL of the Wine process from outside) and
restored in a new process. Every run must end with the download completed and a tree
byte-identical to the package's source; the report gives each fault's cost as the server saw it.

The schedule of a run comes from its seed alone, so a failing run can be replayed with
  soak.py --build BUILD --seed SEED --mix MIX
Modes: --short (5 kills and a few of each other fault, for ctest), --full (100 kills in 20 runs).
"""
import argparse
import json
import os
import queue
import random
import shutil
import signal
import subprocess
import sys
import threading
import time
import urllib.request
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
PACKAGE_VERSION = "soak-package-2"
BLOCKS = 6
SAVE_INTERVAL = 1024 * 1024
RATE = 12 * 1024 * 1024
PROCESS_LIMIT_S = 120     # one driver process, from start to DONE
SILENCE_LIMIT_S = 30      # the driver prints at least twice a second
MAX_EXTRA_PROCESSES = 3   # processes beyond one per kill plus the last

# (seed, mix) per run. A mix counts k kills (TerminateProcess or SIGKILL once the server has sent past
# a point), e early kills (SIGKILL of the next process just after it restored its download), f FIN drops, r resets,
# s stalls, h blocks whose first request is answered 500, H blocks whose first two requests are, p expired
# proxy logins. A mix with p runs through the server as an authenticating proxy: the first process gives
# the proxy lookup its credentials, and each process answers the 407s it meets from the credential store.
SHORT_RUNS = [(4101, "k3f1r1s1h1"), (4102, "k1e1f1r1H1p1")]
FULL_SEEDS = [5001 + i for i in range(20)]
FULL_RUNS = [(s, "k4e1f1r1s1h1" if i % 2 == 0 else "k4e1f2r1h1H1p1") for i, s in enumerate(FULL_SEEDS)]
PROXY_USER, PROXY_PASSWORD = "soaker", "Pr0xy-soak-pw"  # the server's, in soak_server.py
# Not the URL's host name: Wine sends a relative request line when proxy and target host names match.
PROXY_HOST = "127.0.0.1"


KILLS = ("terminate", "sigkill", "early")


class SoakFailure(Exception):
    pass


def log(text=""):
    print(text, flush=True)


def win_path(path):
    return "Z:" + os.path.abspath(path).replace("/", "\\")


# ---- the package ----

def make_tree(src):
    rnd = random.Random(77)
    words = [b"alpha ", b"beta ", b"gamma ", b"delta ", b"tarnwick ", b"quorvel ", b"block ", b"\n"]

    def text(size):
        return b"".join(rnd.choices(words, k=size // 4 + 1))[:size]

    def put(rel, data):
        path = os.path.join(src, rel)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data)

    put("readme.txt", text(5000))
    put("data/random.bin", rnd.randbytes(13 * 1024 * 1024 + 11))
    put("data/words.txt", text(5 * 1024 * 1024 + 1))
    put("data/empty.txt", b"")
    put("data/exact.bin", rnd.randbytes(512 * 9))
    put(os.path.join("d" * 50, "e" * 50, "long-" + "f" * 60 + ".txt"), text(1234))
    for i in range(120):
        put("notes/n%03d.txt" % i, text(rnd.randrange(1, 3000)))
    put("tail/random2.bin", rnd.randbytes(3 * 1024 * 1024 + 5))
    os.makedirs(os.path.join(src, "emptydir"), exist_ok=True)


def lzma2(data):
    """A raw LZMA2 stream of data: pieces that compress go through xz, the others are stored as
    uncompressed chunks (xz would spend long on them for nothing). Each piece resets the dictionary."""
    piece = 2 * 1024 * 1024
    out = []
    for begin in range(0, len(data), piece):
        part = data[begin:begin + piece]
        if len(zlib.compress(part[:65536], 1)) < 0.9 * min(len(part), 65536):
            xz = subprocess.run(["xz", "--format=raw", "--lzma2=preset=1,dict=8MiB", "-c"], input=part, check=True,
                                stdout=subprocess.PIPE).stdout
            if xz[0] < 0xE0 and xz[0] != 1:
                raise SoakFailure("xz began its stream with chunk 0x%02x" % xz[0])
            out.append(xz[:-1])  # without the end marker
        else:
            for i in range(0, len(part), 65536):
                chunk = part[i:i + 65536]
                out.append(bytes([1 if i == 0 else 2]) + (len(chunk) - 1).to_bytes(2, "big") + chunk)
    out.append(b"\x00")
    return b"".join(out)


def make_package(work):
    """The source tree and its package split into BLOCKS blocks, made once per package version."""
    src, www = os.path.join(work, "src"), os.path.join(work, "www")
    stamp = os.path.join(work, "package.stamp")
    names = ["soak_%03d_%03d.tar.lzma2" % (i + 1, BLOCKS) for i in range(BLOCKS)]
    if os.path.exists(stamp) and open(stamp).read() == PACKAGE_VERSION:
        return src, www, names
    shutil.rmtree(src, ignore_errors=True)
    shutil.rmtree(www, ignore_errors=True)
    make_tree(src)
    tar = subprocess.run(["tar", "--format=gnu", "--sort=name", "--owner=0", "--group=0", "--numeric-owner",
                          "--mtime=@1577836800", "-C", src, "-cf", "-", "."],
                         check=True, stdout=subprocess.PIPE).stdout
    package = b"\x16" + lzma2(tar)  # the property byte of an 8 MiB dictionary
    rnd = random.Random(78)
    cuts = sorted(rnd.sample(range(len(package) // 10, len(package) - len(package) // 10), BLOCKS - 1))
    cuts = [0] + cuts + [len(package)]
    os.makedirs(www)
    for i, name in enumerate(names):
        with open(os.path.join(www, name), "wb") as f:
            f.write(package[cuts[i]:cuts[i + 1]])
    with open(stamp, "w") as f:
        f.write(PACKAGE_VERSION)
    return src, www, names


def same_tree(expected, actual):
    """Differences between two trees (names, kinds, bytes); empty when identical."""
    def listing(root):
        out = {}
        for base, dirs, files in os.walk(root):
            for d in dirs:
                out[os.path.relpath(os.path.join(base, d), root)] = None
            for f in files:
                out[os.path.relpath(os.path.join(base, f), root)] = os.path.join(base, f)
        return out

    if not os.path.isdir(actual):
        return ["destination %s is missing" % actual]
    want, have = listing(expected), listing(actual)
    problems = ["missing: " + p for p in sorted(set(want) - set(have))]
    problems += ["extra: " + p for p in sorted(set(have) - set(want))]
    for rel in sorted(set(want) & set(have)):
        a, b = want[rel], have[rel]
        if (a is None) != (b is None):
            problems.append("kind differs: " + rel)
        elif a is not None:
            with open(a, "rb") as fa, open(b, "rb") as fb:
                if fa.read() != fb.read():
                    problems.append("content differs: " + rel)
    return problems


# ---- the server ----

class Server:
    def __init__(self, work, www, names, port):
        self.port = port
        self.pidfile = os.path.join(work, "server.pid")
        self.names = names
        self.sizes = [os.path.getsize(os.path.join(www, n)) for n in names]
        if os.path.exists(self.pidfile):
            os.remove(self.pidfile)
        out = open(os.path.join(work, "server.out"), "wb")
        # Detached from the soak's own output: ctest waits for every holder of a test's pipes.
        self.process = subprocess.Popen(
            [sys.executable, os.path.join(HERE, "soak_server.py"), str(port), www, self.pidfile, ",".join(names),
             str(RATE)], stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT, start_new_session=True)
        out.close()
        deadline = time.monotonic() + 15
        while time.monotonic() < deadline:
            try:
                self.control("/__report")
                return
            except OSError:
                if self.process.poll() is not None:
                    break
                time.sleep(0.1)
        self.stop()
        raise SoakFailure("the soak server did not start on port %d" % port)

    def control(self, path):
        with urllib.request.urlopen("http://127.0.0.1:%d%s" % (self.port, path), timeout=10) as answer:
            return answer.read().decode()

    def url(self):
        return "http://localhost:%d/%s" % (self.port, self.names[0])

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(5)
        if os.path.exists(self.pidfile):
            os.remove(self.pidfile)


# ---- the schedule ----

def parse_mix(mix):
    counts = {"k": 0, "e": 0, "f": 0, "r": 0, "s": 0, "h": 0, "H": 0, "p": 0}
    i = 0
    while i < len(mix):
        key = mix[i]
        j = i + 1
        while j < len(mix) and mix[j].isdigit():
            j += 1
        if key not in counts or j == i + 1:
            raise SystemExit("bad mix %r: use letters k e f r s h H p, each followed by a count" % mix)
        counts[key] = int(mix[i + 1:j])
        i = j
    return counts


def make_schedule(seed, mix, total, block_count):
    """Kill points and stream faults at global offsets, all apart, and the 500 answers. Early kills
    come right after another kill: the restarted process is killed again just after its restore."""
    counts = parse_mix(mix)
    rnd = random.Random(seed)
    kinds = (["kill"] * counts["k"] + ["fin"] * counts["f"] + ["rst"] * counts["r"] + ["stall"] * counts["s"] +
             ["p407"] * counts["p"])
    rnd.shuffle(kinds)
    gap = total // (3 * (len(kinds) + 1))
    points = []
    for _ in range(10000):
        if len(points) == len(kinds):
            break
        p = rnd.randrange(total // 25, total - total // 12)
        if all(abs(p - q) >= gap for q in points):
            points.append(p)
    if len(points) < len(kinds):
        raise SoakFailure("no room for %d faults in %d bytes" % (len(kinds), total))
    points.sort()
    events = []
    for kind, at in zip(kinds, points):
        if kind == "kill":
            events.append({"kind": rnd.choice(["terminate", "sigkill"]), "at": at})
        else:
            events.append({"kind": kind, "at": at})
    kills = [i for i, e in enumerate(events) if e["kind"] in ("terminate", "sigkill")]
    if counts["e"] and not kills:
        raise SoakFailure("early kills need a kill before them")
    for after in sorted(rnd.choices(kills, k=counts["e"]), reverse=True):
        events.insert(after + 1, {"kind": "early", "at": events[after]["at"], "delay": round(rnd.uniform(0.0, 0.4), 2)})
    answers = []
    wanted = [1] * counts["h"] + [2] * counts["H"]
    if len(wanted) > block_count - 1:
        raise SoakFailure("no room for %d 500 answers in %d block changes" % (len(wanted), block_count - 1))
    for block, count in zip(rnd.sample(range(1, block_count), len(wanted)), wanted):
        answers.append({"kind": "http500", "block": block, "count": count})
    return events, answers


# ---- the client ----

class Driver:
    """One soak_driver.exe process under Wine with its standard output read line by line."""

    def __init__(self, build, args, stderr_path, proxy_port=None):
        self.err = open(stderr_path, "ab")
        self.process = subprocess.Popen([os.path.join(build, "wine-run"), os.path.join(build, "bin", "soak_driver.exe")]
                                        + args, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self.err,
                                        start_new_session=True, env=driver_environment(proxy_port))
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for raw in self.process.stdout:
            self.lines.put(raw.decode(errors="replace").strip())
        self.lines.put(None)

    def next_line(self, timeout):
        try:
            return self.lines.get(timeout=max(0.01, timeout))
        except queue.Empty:
            return ""

    def sigkill(self):
        # The Wine loader execs into the Windows process: this pid is the process itself.
        try:
            os.kill(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def finish(self, timeout=20):
        try:
            code = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.sigkill()
            code = self.process.wait(10)
        self.err.close()
        return code


def driver_environment(proxy_port):
    """The machine's own proxy never applies; a proxy run names the soak server through http_proxy,
    which Wine's WinINet and WinHTTP both read. WPAD would ask the name service: off."""
    env = {k: v for k, v in os.environ.items() if k.lower() not in ("http_proxy", "https_proxy", "no_proxy")}
    env["QRVL_QRVL_WPAD_PROXY_CHECK"] = "FALSE"
    if proxy_port:
        env["http_proxy"] = "http://%s:%d" % (PROXY_HOST, proxy_port)
    return env


def forget_proxy_credential(build):
    subprocess.run([os.path.join(build, "wine-run"), os.path.join(build, "bin", "soak_driver.exe"), "forget",
                    PROXY_HOST], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                   start_new_session=True, timeout=60, env=driver_environment(None))


def run_once(args, server, src, index, seed, mix, deadline):
    proxied = parse_mix(mix)["p"] > 0
    try:
        return run_schedule(args, server, src, index, seed, mix, deadline, proxied)
    finally:
        if proxied:
            forget_proxy_credential(args.build)


def run_schedule(args, server, src, index, seed, mix, deadline, proxied):
    total = sum(server.sizes)
    events, answers = make_schedule(seed, mix, total, len(server.sizes))
    kills = [e for e in events if e["kind"] in KILLS]
    stream = [e for e in events if e not in kills]
    log("run %d: seed %d mix %s, package %d bytes in %d blocks" % (index, seed, mix, total, len(server.sizes)))
    log("  replay: tests/soak/run --seed %d --mix %s" % (seed, mix))
    log("  schedule: " + ", ".join(["%s+%.2fs" % (e["kind"], e["delay"]) if e["kind"] == "early" else
                                    "%s@%d" % (e["kind"], e["at"]) for e in events] +
                                   ["http500x%d@block%d" % (a["count"], a["block"] + 1) for a in answers]))

    run_dir = os.path.join(args.work, "run-%d-%d" % (index, seed))
    shutil.rmtree(run_dir, ignore_errors=True)
    os.makedirs(run_dir)
    store = win_path(os.path.join(run_dir, "store", "download.info"))
    dest = os.path.join(run_dir, "dest")
    server.control("/__reset?proxy=1" if proxied else "/__reset")
    for e in stream:
        server.control("/__arm?kind=%s&at=%d" % (e["kind"], e["at"]))
    for a in answers:
        server.control("/__arm?kind=http500&block=%d&count=%d" % (a["block"], a["count"]))

    began = time.monotonic()
    kill_log = []
    done = None
    pending = list(kills)
    die_file = os.path.join(run_dir, "die")
    for process_no in range(len(kills) + 1 + MAX_EXTRA_PROCESSES):
        if time.monotonic() > deadline:
            raise SoakFailure("run %d (seed %d): out of time" % (index, seed))
        target = pending[0] if pending else None
        if os.path.exists(die_file):
            os.remove(die_file)
        if process_no == 0:
            cmd = ["start", store, server.url(), win_path(dest), str(SAVE_INTERVAL), win_path(die_file),
                   str(PROCESS_LIMIT_S)] + ([PROXY_USER, PROXY_PASSWORD] if proxied else [])
        else:
            cmd = ["resume", store, win_path(die_file), str(PROCESS_LIMIT_S)]
        high_at_start = int(server.control("/__high"))
        driver = Driver(args.build, cmd, os.path.join(run_dir, "driver-%d.err" % (process_no + 1)),
                        server.port if proxied else None)
        started = time.monotonic()
        last_seen = started
        held = 0
        restored = "-"  # no restore line yet
        restored_at = None
        killed = False
        while True:
            now = time.monotonic()
            if now - started > PROCESS_LIMIT_S + 15 or now - last_seen > SILENCE_LIMIT_S or now > deadline:
                driver.sigkill()
                driver.finish()
                raise SoakFailure("run %d (seed %d): process %d stopped answering (held %d bytes)"
                                  % (index, seed, process_no + 1, held))
            if target and not killed:
                # A kill point counts once the server has sent past it, and only to a process that
                # has fetched something new itself, so that every process moves the download on.
                if target["kind"] == "early":
                    due = restored_at is not None and now - restored_at >= target["delay"]
                else:
                    high = int(server.control("/__high"))
                    due = high >= target["at"] and (high > high_at_start or
                                                    (high_at_start >= total and now - started >= 1.5))
                if due:
                    server.control("/__mark?kind=" + target["kind"])
                    killed = True
                    if target["kind"] == "terminate":
                        open(die_file, "w").close()  # the driver ends itself at its next look
                    else:
                        driver.sigkill()
                        break
            line = driver.next_line(0.02)
            if line is None:
                break
            if not line:
                continue
            last_seen = time.monotonic()
            if line.startswith("P "):
                held = int(line.split()[1])
            elif line.startswith("R "):
                restored = line.split()[1]
                restored_at = time.monotonic()
            elif line.startswith("KILL "):
                held = int(line.split()[1])
                break
            elif line.startswith("DONE"):
                done = line
                break
        code = driver.finish()
        if killed and done is None:
            kill_log.append({"kind": target["kind"], "target": target["at"], "held": held, "restored": restored})
            pending.pop(0)
            continue
        if done is None:
            raise SoakFailure("run %d (seed %d): process %d ended without finishing (exit %s, held %d)"
                              % (index, seed, process_no + 1, code, held))
        if not done.startswith("DONE 0 ") or code != 0:
            raise SoakFailure("run %d (seed %d): the download ended as %r (exit %s)" % (index, seed, done, code))
        if pending:
            log("  note: the download finished before %d of its kills" % len(pending))
        if kill_log:
            kill_log[-1]["next_restored"] = restored
        break
    else:
        raise SoakFailure("run %d (seed %d): not finished after %d processes" % (index, seed, process_no + 1))
    finished_at = time.time()
    # Where each restarted process began: the restore point of the one after the kill.
    for k in range(len(kill_log) - 1):
        kill_log[k]["next_restored"] = kill_log[k + 1]["restored"]
    seconds = time.monotonic() - began

    problems = same_tree(src, dest)
    if problems:
        raise SoakFailure("run %d (seed %d): the tree differs from its source:\n    %s\n  kept in %s"
                          % (index, seed, "\n    ".join(problems[:20]), run_dir))
    report = json.loads(server.control("/__report"))
    if report["unfired"]:
        raise SoakFailure("run %d (seed %d): faults armed but never met: %s" % (index, seed, report["unfired"]))
    if proxied and report["proxy"]["answered"] < 1 + parse_mix(mix)["p"]:
        raise SoakFailure("run %d (seed %d): the client answered %d of the proxy's %d 407s"
                          % (index, seed, report["proxy"]["answered"], report["proxy"]["challenges"]))
    marked = len([f for f in report["faults"] if f["kind"] in KILLS])
    if marked < len(kill_log):
        raise SoakFailure("run %d (seed %d): %d kills made, the server saw %d" % (index, seed, len(kill_log), marked))
    for f in report["faults"][1:]:
        if f["seconds"] is None:
            # Nothing new was left to send: the fault's cost runs to the end of the download.
            f["seconds"] = round(finished_at - f["t0"], 3)
            f["to_end"] = True
    log("  finished in %.1f s with %d processes; tree identical (%d bytes served for %d, %d requests)"
        % (seconds, len(kill_log) + 1, report["high"] + sum(f["refetched"] for f in report["faults"]), total,
           report["requests"]))
    if proxied:
        log("  through the proxy: %d 407 answers given, %d answered with the stored credentials"
            % (report["proxy"]["challenges"], report["proxy"]["answered"]))
    log("  %-10s %12s %14s %9s %9s" % ("fault", "at", "served again", "seconds", "requests"))
    log("  (at: the server's high-water mark when the fault struck; seconds: until a new request was back there,"
        " * until the download ended)")
    kill_iter = iter(kill_log)
    for f in report["faults"]:
        extra = ""
        if f["kind"] in KILLS:
            k = next(kill_iter, None)
            if k:
                extra = "  (client held %d, restarted from %s)" % (k["held"], k.get("next_restored", "?"))
        secs = "-" if f["seconds"] is None else "%.2f%s" % (f["seconds"], "*" if f.get("to_end") else "")
        log("  %-10s %12d %14d %9s %9d%s" % (f["kind"], f["at"], f["refetched"], secs, f["requests"], extra))
    # The drivers' event lines stay for a look afterwards; the tree and the store go.
    shutil.rmtree(dest, ignore_errors=True)
    shutil.rmtree(os.path.join(run_dir, "store"), ignore_errors=True)
    return report["faults"]


def summary(all_faults, runs, seconds):
    log()
    log("soak summary: %d runs finished with an identical tree, %.1f s" % (runs, seconds))
    log("  %-10s %6s %16s %16s %10s %10s" % ("fault", "count", "again mean", "again max", "s mean", "s max"))
    for kind in KILLS + ("fin", "rst", "stall", "p407", "http500", "none"):
        rows = [f for f in all_faults if f["kind"] == kind]
        if not rows:
            continue
        again = [f["refetched"] for f in rows]
        secs = [f["seconds"] for f in rows if f["seconds"] is not None]
        log("  %-10s %6d %16.0f %16d %10s %10s" % (
            kind, len(rows), sum(again) / len(again), max(again),
            "%.2f" % (sum(secs) / len(secs)) if secs else "-", "%.2f" % max(secs) if secs else "-"))
    kills = len([f for f in all_faults if f["kind"] in KILLS])
    log("  kill/restart cycles: %d" % kills)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="the build folder (wine-run, bin/soak_driver.exe)")
    parser.add_argument("--work", help="scratch folder (default: BUILD/test-work/soak)")
    parser.add_argument("--port", type=int, help="server port (default: QVDLM_TEST_PORT_BASE + 7)")
    group = parser.add_mutually_exclusive_group()
    group.add_argument("--short", action="store_true", help="5 kills and a few of each other fault")
    group.add_argument("--full", action="store_true", help="100 kills in 20 runs")
    group.add_argument("--seed", type=int, help="one run with this seed (with --mix)")
    parser.add_argument("--mix", default="k5f1r1s1h1", help="counts for --seed, e.g. k5f1r1s1h1")
    parser.add_argument("--budget", type=float, help="seconds for the whole soak")
    args = parser.parse_args()

    args.build = os.path.abspath(args.build)
    args.work = os.path.abspath(args.work or os.path.join(args.build, "test-work", "soak"))
    if args.port is None:
        args.port = int(os.environ.get("QVDLM_TEST_PORT_BASE", "19200")) + 7
    if args.full:
        runs, budget = FULL_RUNS, 1800
    elif args.seed is not None:
        runs, budget = [(args.seed, args.mix)], 900
    else:
        runs, budget = SHORT_RUNS, 170
    budget = args.budget or budget
    os.makedirs(args.work, exist_ok=True)
    if not os.path.exists(os.path.join(args.build, "bin", "soak_driver.exe")):
        log("soak: %s/bin/soak_driver.exe is missing; build first" % args.build)
        return 2

    began = time.monotonic()
    deadline = began + budget
    src, www, names = make_package(args.work)
    # Wine's background services start here, apart from the drivers' pipes.
    subprocess.run([os.path.join(args.build, "wine-run"), "cmd", "/c", "exit"], stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True, timeout=120)
    try:
        server = Server(args.work, www, names, args.port)
    except SoakFailure as failure:
        log("SOAK FAILED: %s" % failure)
        return 1
    all_faults = []
    failures = []
    finished = 0
    try:
        log("soak: %d runs, budget %d s, server on 127.0.0.1:%d, rate %d B/s per response"
            % (len(runs), budget, args.port, RATE))
        for index, (seed, mix) in enumerate(runs, 1):
            if time.monotonic() > deadline:
                failures.append("out of time before run %d" % index)
                break
            # A failed run is reported and the others still run: one soak shows every failing seed.
            try:
                all_faults += run_once(args, server, src, index, seed, mix, deadline)
                finished += 1
            except SoakFailure as failure:
                log("  RUN FAILED: %s" % failure)
                failures.append(str(failure))
        summary(all_faults, finished, time.monotonic() - began)
    finally:
        server.stop()
    if failures:
        log("SOAK FAILED: %d of %d runs" % (len(failures), len(runs)))
        for failure in failures:
            log("  " + failure.splitlines()[0])
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
