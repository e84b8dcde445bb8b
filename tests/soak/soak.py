#!/usr/bin/env python3
"""Fault-tolerance soak (README.md): soak_driver.exe fetches a multi-block package under Wine from a fault
server of its own, through the faults and kills that a run's seed and mix alone schedule; every run must end
completed with a tree byte-identical to the source. Default: the ctest runs; --full: 100 kills in 20 runs.
A mix counts k kills, e early kills, f FINs, r resets, s stalls, h single and H double 500 answers, p
expired proxy logins (any p makes the run go through the proxy), d full disks (the destination lies on a
small tmpfs that a filler fills up, freed some seconds after the download paused; needs root)."""
import argparse, contextlib, filecmp, functools, json, os, queue, random, re, shutil, signal, subprocess, sys, threading, time
import urllib.request, zlib

HERE = os.path.dirname(os.path.abspath(__file__))
FIXTURES = os.path.join(HERE, "..", "fixtures")
BLOCKS, SAVE_INTERVAL, RATE, PROCESS_S, SILENCE_S = 6, 1024 * 1024, 12 * 1024 * 1024, 120, 30
SHORT_RUNS = [(4101, "k3f1r1s1h1d1"), (4102, "k1e1f1r1H1p1")]
FULL_RUNS = [(5001 + i, "k4e1f1r1s1h1d1" if i % 2 == 0 else "k4e1f2r1h1H1p1d1") for i in range(20)]
VOLUME_MB, FULL_FOR_S, PAUSED = 48, 3, "DONE 536870915 620756997"  # a download paused for lack of disk space
PROXY = ("127.0.0.1", "soaker", "Pr0xy-soak-pw")  # not the URL's host: Wine would send a relative request line
KILLS = ("terminate", "sigkill", "early")
HARNESS = KILLS + ("diskfull",)  # faults of the harness's own, not the server's


Failure, log = type("Failure", (Exception,), {}), functools.partial(print, flush=True)


def win(path):  # the Wine path of a Linux one
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def wine(build, *cmd, **kw):  # a Windows program under Wine, in a session of its own
    return (subprocess.Popen if kw.pop("popen", False) else subprocess.run)(
        [os.path.join(build, "wine-run")] + list(cmd), stdin=subprocess.DEVNULL, start_new_session=True, **kw)


def make_package(work):
    """The source tree and its package in BLOCKS blocks (made once). Pieces of the tar that compress go
    through xz, the others are stored as uncompressed LZMA2 chunks; each piece resets the dictionary."""
    src, www, stamp = os.path.join(work, "src"), os.path.join(work, "www"), os.path.join(work, "package-3")
    names = ["soak_%03d_%03d.tar.lzma2" % (i + 1, BLOCKS) for i in range(BLOCKS)]
    if os.path.exists(stamp):
        return src, www, names
    shutil.rmtree(src, ignore_errors=True), shutil.rmtree(www, ignore_errors=True)
    rnd, words = random.Random(77), [b"alpha ", b"beta ", b"gamma ", b"tarnwick ", b"quorvel ", b"\n"]
    files = {"readme.txt": 5000, "data/words.txt": 5 * 1024 * 1024 + 1, "data/empty.txt": 0,
             "d" * 50 + "/" + "e" * 50 + "/long-" + "f" * 60 + ".txt": 1234}
    files.update({"notes/n%03d.txt" % i: rnd.randrange(1, 3000) for i in range(120)})
    for rel, size in list(files.items()) + [("data/random.bin", -(13 * 1024 * 1024 + 11)), ("data/exact.bin", -4608),
                                            ("tail/random2.bin", -(3 * 1024 * 1024 + 5))]:
        os.makedirs(os.path.dirname(os.path.join(src, rel)), exist_ok=True)
        open(os.path.join(src, rel), "wb").write(rnd.randbytes(-size) if size < 0 else b"".join(rnd.choices(words, k=size))[:size])
    os.makedirs(os.path.join(src, "emptydir"))
    tar = subprocess.run(["tar", "--format=gnu", "--sort=name", "--owner=0", "--group=0", "--numeric-owner",
                          "--mtime=@1577836800", "-C", src, "-cf", "-", "."], check=True, stdout=subprocess.PIPE).stdout
    out = [b"\x16"]  # the property byte of an 8 MiB dictionary
    for begin in range(0, len(tar), 2 * 1024 * 1024):
        part = tar[begin:begin + 2 * 1024 * 1024]
        if len(zlib.compress(part[:65536], 1)) < 0.9 * min(len(part), 65536):
            out.append(subprocess.run(["xz", "--format=raw", "--lzma2=preset=1,dict=8MiB", "-c"], input=part,
                                      check=True, stdout=subprocess.PIPE).stdout[:-1])  # without the end marker
        else:
            out += [bytes([1 if i == 0 else 2]) + (len(part[i:i + 65536]) - 1).to_bytes(2, "big") + part[i:i + 65536]
                    for i in range(0, len(part), 65536)]
    package = b"".join(out) + b"\x00"
    cuts = [0] + sorted(random.Random(78).sample(range(len(package) // 10, len(package) * 9 // 10), BLOCKS - 1))
    os.makedirs(www)
    for name, begin, end in zip(names, cuts, cuts[1:] + [len(package)]):
        open(os.path.join(www, name), "wb").write(package[begin:end])
    open(stamp, "w").close()
    return src, www, names


def differences(a, b):
    c = filecmp.dircmp(a, b)
    out = [os.path.join(b, n) for n in c.left_only + c.right_only + c.funny_files]
    out += [os.path.join(b, n) for n in filecmp.cmpfiles(a, b, c.common_files, shallow=False)[1]]
    return out + [d for n in c.common_dirs for d in differences(os.path.join(a, n), os.path.join(b, n))]


def schedule(seed, mix, total, names):
    """Kill points and armed faults at global offsets, all apart; an early kill follows a kill and
    strikes just after the next process restored; 500 answers go to blocks after the first."""
    counts = {k: int(n) for k, n in re.findall(r"([kefrshHpd])(\d+)", mix)}
    rnd = random.Random(seed)
    kinds = [k for key, k in zip("kfrspd", ("kill", "fin", "rst", "stall", "p407", "diskfull")) for _ in range(counts.get(key, 0))]
    rnd.shuffle(kinds)
    points, gap = [], total // (3 * (len(kinds) + 1))
    for _ in range(10000):
        p = rnd.randrange(total // 25, total - total // 12)
        if len(points) < len(kinds) and all(abs(p - q) >= gap for q in points):
            points.append(p)
    events = [{"kind": rnd.choice(["terminate", "sigkill"]) if k == "kill" else k, "at": p}
              for k, p in zip(kinds, sorted(points))]
    kills = [i for i, e in enumerate(events) if e["kind"] in KILLS]
    for after in sorted(rnd.choices(kills, k=counts.get("e", 0)) if kills else [], reverse=True):
        events.insert(after + 1, {"kind": "early", "at": events[after]["at"], "delay": round(rnd.uniform(0, 0.4), 2)})
    wanted = [1] * counts.get("h", 0) + [2] * counts.get("H", 0)
    return events, [(names[b], n) for b, n in zip(rnd.sample(range(1, len(names)), len(wanted)), wanted)]


class Driver:  # one soak_driver.exe under Wine, its output read line by line
    def __init__(self, args, cmd, err, proxied):
        env = {k: v for k, v in os.environ.items() if k.lower() not in ("http_proxy", "https_proxy", "no_proxy")}
        env.update({"QRVL_QRVL_WPAD_PROXY_CHECK": "FALSE"}, **({"http_proxy": "http://%s:%d" % (PROXY[0], args.port)} if proxied else {}))
        with open(err, "ab") as stderr:
            self.process = wine(args.build, args.driver, *cmd, popen=True, stdout=subprocess.PIPE, stderr=stderr, env=env)
        self.lines = queue.Queue()
        threading.Thread(target=lambda: [self.lines.put(raw.decode(errors="replace").strip()) for raw in self.process.stdout]
                         + [self.lines.put(None)], daemon=True).start()

    def line(self):
        with contextlib.suppress(queue.Empty):
            return self.lines.get(timeout=0.02)
        return ""

    def kill(self):  # the Wine loader execs into the Windows process: this pid is the process itself
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.process.pid, signal.SIGKILL)

    def finish(self):
        with contextlib.suppress(subprocess.TimeoutExpired):
            return self.process.wait(20)
        self.kill()
        return self.process.wait(10)


def run(args, control, src, names, index, seed, mix, deadline):
    proxied, total = "p" in mix, sum(os.path.getsize(os.path.join(args.work, "www", n)) for n in names)
    events, answers = schedule(seed, mix, total, names)
    events = [e for e in events if e["kind"] != "diskfull" or args.volume]
    kills = [e for e in events if e["kind"] in HARNESS]
    log("run %d: seed %d mix %s, %d bytes in %d blocks; replay: tests/soak/soak.py --seed %d --mix %s"
        % (index, seed, mix, total, len(names), seed, mix))
    log("  schedule: " + ", ".join(["%s@%d" % (e["kind"], e["at"]) for e in events] + ["http500x%d@%s" % a[::-1] for a in answers]))
    shutil.rmtree(folder := os.path.join(args.work, "run-%d-%d" % (index, seed)), ignore_errors=True)
    os.makedirs(folder)
    store, die = win(os.path.join(folder, "store", "download.info")), os.path.join(folder, "die")
    dest = os.path.join(args.volume, "dest") if args.volume else os.path.join(folder, "dest")
    filler = os.path.join(args.volume or folder, "filler")
    shutil.rmtree(dest, ignore_errors=True)
    control("/__reset?rate=%d&blocks=%s%s" % (RATE, ",".join(names), "&proxy=1" if proxied else ""))
    [control(arm) for arm in ["/__arm?kind=%s&at=%d" % (e["kind"], e["at"]) for e in events if e not in kills]
     + ["/__arm?kind=http500&name=%s&count=%d" % answer for answer in answers]]
    overtaken = []  # what the process met by a kill or a full disk fetched on to: faults armed there cannot fire
    for number in range(len(kills) + 4):
        _ = os.path.exists(die) and os.remove(die)
        cmd = (["start", store, "http://localhost:%d/file/%s" % (args.port, names[0]), win(dest), str(SAVE_INTERVAL)]
               if number == 0 else ["resume", store]) + [win(die), str(PROCESS_S)]
        cmd += list(PROXY[1:]) if proxied and number == 0 else []
        target, high0 = kills[0] if kills else None, json.loads(control("/__report"))["high"]
        driver, started, seen, restored, killed, last = Driver(args, cmd, os.path.join(folder, "driver.err"), proxied), time.monotonic(), time.monotonic(), None, False, ""
        while last is not None and not last.startswith(("KILL", "DONE")):
            now = time.monotonic()
            if now - started > PROCESS_S + 15 or now - seen > SILENCE_S or now > deadline:
                driver.kill()
                raise Failure("process %d stopped answering (last line %r)" % (number + 1, last))
            if target and not killed:
                # A kill point counts once the server has sent past it, and only to a process that has
                # fetched something new itself, so that every process moves the download on.
                high = json.loads(control("/__report"))["high"]
                killed = (restored is not None and now - restored >= target["delay"] if target["kind"] == "early"
                          else high >= target["at"] and (high > high0 or now - started >= 1.5 and high0 >= total))
                if killed:  # a terminate leaves the file at which the driver ends itself; a full disk, a filler
                    _ = target["kind"] != "diskfull" and control("/__mark?kind=" + target["kind"])
                    if target["kind"] == "diskfull":
                        free = os.statvfs(args.volume)
                        with open(filler, "wb") as f, contextlib.suppress(OSError):  # the driver may fill it first
                            f.write(b"\0" * max(free.f_bavail * free.f_frsize - 64 * 1024, 0))
                    else:
                        open(die, "w").close() if target["kind"] == "terminate" else driver.kill()
            last = driver.line()
            seen = now if last else seen
            restored = now if last and last.startswith("R ") else restored
        code = driver.finish()
        _ = killed and overtaken.append((target["at"], json.loads(control("/__report"))["high"]))
        if killed and target["kind"] == "diskfull":  # room again a while after the download paused
            log("  full disk: the process ended with %r" % last)
            _ = last == PAUSED and control("/__mark?kind=diskfull")  # the connection it had is gone only now
            time.sleep(FULL_FOR_S if last == PAUSED else 0)
            os.remove(filler)
            kills.pop(0)
            if last == PAUSED:
                continue
        if killed and not (last or "").startswith("DONE"):
            kills.pop(0)
            continue
        if last != "DONE 0 0" or code != 0:
            raise Failure("process %d ended with %r (exit %s)" % (number + 1, last, code))
        break
    else:
        raise Failure("not finished after %d processes" % (number + 1))
    if problems := differences(src, dest):
        raise Failure("the tree differs from its source: %s (kept in %s)" % (problems[:10], folder))
    report = json.loads(control("/__report"))
    unfired = [u for u in report["unfired"] if not (isinstance(u, list) and any(a <= u[1] <= b for a, b in overtaken))]
    _ = unfired != report["unfired"] and log("  overtaken, not fired: %s" % [u for u in report["unfired"] if u not in unfired])
    if unfired or (proxied and report["proxy"]["answered"] < 1 + int(re.search(r"p(\d+)", mix).group(1))):
        raise Failure("faults not met: %s, proxy %s" % (unfired, report["proxy"]))
    log("  completed with %d processes, tree identical; %d bytes served for %d in %d requests; proxy 407s %s"
        % (number + 1, report["high"] + sum(f["refetched"] for f in report["faults"]), total, report["requests"], report["proxy"]))
    for f in report["faults"]:
        log("  %-10s at %10d  served again %9d  back after %s s" % (f["kind"], f["at"], f["refetched"], f["seconds"]))
    shutil.rmtree(folder, ignore_errors=True), shutil.rmtree(dest, ignore_errors=True)
    return report["faults"]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for flag, options in {"--build": dict(default=os.environ.get("QVDLM_BUILD_DIR", os.path.join(HERE, "..", "..", "build"))), "--work": {}, "--seed": dict(type=int), "--mix": dict(default="k5f1r1s1h1"),
                          "--port": dict(type=int, default=int(os.environ.get("QVDLM_TEST_PORT_BASE", "19200")) + 7),
                          "--short": dict(action="store_true"), "--full": dict(action="store_true")}.items():
        parser.add_argument(flag, **options)
    args = parser.parse_args()
    args.build, args.work = os.path.abspath(args.build), os.path.abspath(args.work or os.path.join(args.build, "test-work", "soak"))
    args.driver = os.path.join(args.build, "bin", "soak_driver.exe")
    runs, budget = (FULL_RUNS, 1800) if args.full else ([(args.seed, args.mix)], 900) if args.seed else (SHORT_RUNS, 170)
    deadline, began = time.monotonic() + budget, time.monotonic()
    src, www, names = make_package(args.work)
    # The destination goes on a small volume of its own, which a full-disk fault fills (root only).
    args.volume = os.path.join(args.work, "volume")
    os.makedirs(args.volume, exist_ok=True)
    subprocess.run(["umount", args.volume], stderr=subprocess.DEVNULL)
    if os.geteuid() != 0 or subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%dm" % VOLUME_MB, "tmpfs", args.volume]).returncode:
        log("full-disk faults left out: no small volume (mounting one needs root)")
        args.volume = None
    # Wine's background services start here, apart from the drivers' pipes.
    wine(args.build, "cmd", "/c", "exit", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120)
    subprocess.run(["sh", os.path.join(FIXTURES, "faultserver-start.sh"), sys.executable, args.work, str(args.port), www],
                   check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    control = lambda path: urllib.request.urlopen("http://127.0.0.1:%d%s" % (args.port, path), timeout=10).read().decode()
    faults, failures = [], []
    try:
        for index, (seed, mix) in enumerate(runs, 1):
            try:  # a failed run is reported and the others still run
                faults += run(args, control, src, names, index, seed, mix, deadline)
            except Failure as failure:
                log("  RUN FAILED (seed %d): %s" % (seed, failure))
                failures.append(seed)
            finally:  # the proxy credential stored by the run goes
                _ = "p" in mix and wine(args.build, args.driver, "forget", PROXY[0], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, timeout=60)
    finally:
        subprocess.run(["sh", os.path.join(FIXTURES, "stop-pid.sh"), os.path.join(args.work, "faultserver.pid"), "faultserver.py"])
        _ = args.volume and subprocess.run(["umount", args.volume])
    log("\nsoak: %d of %d runs identical in %.0f s; per fault kind: count, served again mean/max, seconds max"
        % (len(runs) - len(failures), len(runs), time.monotonic() - began))
    for kind in HARNESS + ("fin", "rst", "stall", "p407", "http500"):
        rows = [f for f in faults if f["kind"] == kind]
        again, secs = [f["refetched"] for f in rows], [f["seconds"] for f in rows if f["seconds"] is not None]
        log("  %-10s %4d %12d %12d %8s" % (kind, len(rows), sum(again) / len(again), max(again), max(secs, default="-"))) if rows else None
    log("SOAK FAILED: seeds %s" % failures if failures else "soak passed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
