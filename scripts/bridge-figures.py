#!/usr/bin/env python3
"""The bridge's figures on one host, through a NATS server on a loopback port.

  latency     the feed on the simulator at each of --rates records a second,
              with quvo-bridge, a NATS server, a mirror and quvo-bridge-latency
              (which matches each book the mirror announces with the feed's
              announcement of it): p50 and p99 from ring to ring, and how much
              the bridge published and conflated; --plot writes the latency
              distributions as an SVG (gnuplot)
  throughput  the feed's live phase (bench/feed_bench BM_FeedLive, a million
              records at full speed) alone, with a bridge that only follows
              the ring (no NATS to reach), and with bridge, NATS and mirror;
              rounds interleave the three, the figure is the median

With two CPUs or more the feed gets CPU 0 and everything else the others, as
on a host where the feed has a core of its own; --no-pin shares them all.

  scripts/bridge-figures.py latency --rates 2000,20000,200000 --seconds 10 --plot docs/bridge-latency.svg
  scripts/bridge-figures.py throughput --rounds 5 --repetitions 5
"""
import argparse
import ctypes
import json
import os
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "scripts"))
import benchrun  # noqa: E402

KEY_FILES = ("key_f", "key_e")
SEGMENT_PROJECTS = ((b"key_f", 0x52), (b"key_e", 0x52), (b"key_e", 0x48))  # ring+area 'R', health 'H'


def parse_args():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("mode", choices=("latency", "throughput"))
    p.add_argument("--build", default=os.path.join(ROOT, "build", "release"))
    p.add_argument("--rates", default="2000,20000,200000", help="records a second, comma-separated (latency)")
    p.add_argument("--seconds", type=float, default=10, help="of records at each rate (latency)")
    p.add_argument("--shfe", type=int, default=300, help="SHFE instruments of the simulator (latency)")
    p.add_argument("--ine", type=int, default=60, help="INE instruments of the simulator (latency)")
    p.add_argument("--plot", help="write the latency distributions to this SVG (latency)")
    p.add_argument("--modes", default="gathered",
                   help="gathered (the library gathers messages for a write), at-once (--send-at-once) or "
                        "both, comma-separated (latency)")
    p.add_argument("--plot-rates", help="rates to plot (default all)")
    p.add_argument("--rounds", type=int, default=5, help="processes per setting (throughput)")
    p.add_argument("--repetitions", type=int, default=5, help="feed runs per process (throughput)")
    p.add_argument("--no-pin", action="store_true", help="let every process use every CPU")
    p.add_argument("--json", dest="json_out", help="also write the figures as JSON to this file")
    p.add_argument("--keep", action="store_true", help="keep the work directory")
    return p.parse_args()


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def remove_segments(key_dir):
    libc = ctypes.CDLL(None, use_errno=True)
    for name, project in SEGMENT_PROJECTS:
        key = libc.ftok(os.path.join(key_dir.encode(), name), project)
        segment = libc.shmget(key, 0, 0) if key != -1 else -1
        if segment >= 0:
            libc.shmctl(segment, 0, None)  # IPC_RMID


class Run:
    """A work directory, the processes started in it, and their placement."""

    def __init__(self, args):
        self.args = args
        self.work = tempfile.mkdtemp(prefix="quvo-bridge-figures.")
        self.children = []
        cpus = sorted(os.sched_getaffinity(0))
        self.pinned = not args.no_pin and len(cpus) >= 2
        self.feed_cpu = cpus[0]
        self.other_cpus = cpus[1:] if self.pinned else cpus

    def keys(self, name):
        path = os.path.join(self.work, name)
        os.makedirs(path, exist_ok=True)
        for f in KEY_FILES:
            open(os.path.join(path, f), "a").close()
        return path

    def program(self, name):
        path = os.path.join(self.args.build, name)
        if not os.access(path, os.X_OK):
            sys.exit(f"{path} is missing: build the release preset first")
        return path

    def start(self, argv, out, key_dir=None, feed=False):
        env = dict(os.environ)
        if key_dir is not None:
            env["QUVO_KEY_DIR"] = key_dir
        cpus = {self.feed_cpu} if (feed and self.pinned) else set(self.other_cpus)
        child = subprocess.Popen(argv, stdout=open(os.path.join(self.work, out), "w"), stderr=subprocess.STDOUT,
                                 env=env, cwd=self.work, preexec_fn=lambda: os.sched_setaffinity(0, cpus))
        self.children.append(child)
        return child

    def nats(self):
        port = free_port()
        server = shutil.which("nats-server") or "/usr/sbin/nats-server"
        child = self.start([server, "--addr", "127.0.0.1", "--port", str(port), "--jetstream", "--store_dir",
                            os.path.join(self.work, f"store-{port}")], f"nats-{port}.out")
        deadline = time.time() + 10
        while time.time() < deadline:
            with open(os.path.join(self.work, f"nats-{port}.out")) as f:
                if "Server is ready" in f.read():
                    return f"nats://127.0.0.1:{port}", child
            time.sleep(0.05)
        sys.exit("nats-server did not start")

    def stop(self, child, timeout=20):
        if child.poll() is None:
            child.send_signal(signal.SIGINT)
        try:
            child.wait(timeout)
        except subprocess.TimeoutExpired:
            child.kill()
            child.wait()

    def close(self):
        for child in reversed(self.children):
            self.stop(child)
        for name in os.listdir(self.work):
            if os.path.isdir(os.path.join(self.work, name)) and name.endswith("keys"):
                remove_segments(os.path.join(self.work, name))
        if self.args.keep:
            print(f"files in {self.work}", file=sys.stderr)
        else:
            shutil.rmtree(self.work, ignore_errors=True)

    def last_figures(self, out):
        lines = [line for line in open(os.path.join(self.work, out)) if line.startswith("{")]
        return json.loads(lines[-1]) if lines else {}


def latency_at(run, rate, seconds, mode):
    args = run.args
    name = f"{mode}-{rate}"
    feed_keys, mirror_keys = run.keys(f"feed-{name}-keys"), run.keys(f"mirror-{name}-keys")
    url, server = run.nats()
    config = os.path.join(run.work, f"feed-{name}.ini")
    with open(config, "w") as f:
        f.write(f"[config]\ndevice = sim:shfe={args.shfe},ine={args.ine},rate={rate},seconds={seconds:g},exit=1\n"
                f"cpucore = {run.feed_cpu if run.pinned else -1}\ninsts = all\nshfe2ps = enabled\n"
                "ine2ps = enabled\nlog_level = 1\n")
    feed = run.start([run.program("quvo-md"), config], f"feed-{name}.out", feed_keys, feed=True)
    extra = ["--send-at-once"] if mode == "at-once" else []
    bridge = run.start([run.program("quvo-bridge"), "--server", url, "--stats"] + extra, f"bridge-{name}.out",
                       feed_keys)
    mirror = run.start([run.program("quvo-bridge"), "--mirror", "--server", url, "--stats"], f"mirror-{name}.out",
                       mirror_keys)
    time.sleep(2.5)  # the snapshot, and the mirror's first read of the bucket
    samples = os.path.join(run.work, f"latency-{name}.txt")
    probe = subprocess.run([run.program("quvo-bridge-latency"), "--feed", feed_keys, "--mirror", mirror_keys,
                            "--seconds", f"{max(seconds - 3.5, 1):g}", "--out", samples],
                           capture_output=True, text=True, check=True,
                           preexec_fn=lambda: os.sched_setaffinity(0, set(run.other_cpus)))
    feed.wait(seconds + 60)
    time.sleep(1)
    for child in (bridge, mirror, server):
        run.stop(child)
    figures = json.loads(probe.stdout.strip().splitlines()[-1])
    published = run.last_figures(f"bridge-{name}.out")
    announced = published.get("announcements", 0)
    figures.update(rate=rate, mode=mode, announcements=announced, published=published.get("published", 0),
                   conflated=published.get("conflated", 0), laps=published.get("laps", 0),
                   conflated_percent=100.0 * published.get("conflated", 0) / announced if announced else 0.0,
                   samples=samples)
    return figures


def latency(run):
    rates = [int(r) for r in run.args.rates.split(",")]
    modes = run.args.modes.split(",")
    rows = [latency_at(run, rate, run.args.seconds, mode) for mode in modes for rate in rates]
    print(f"latency, feed ring to mirror ring; {run.args.shfe} SHFE and {run.args.ine} INE instruments, "
          f"{run.args.seconds:g} s at each rate; {placement(run)}")
    print("| writes | records/s | books matched | p50 | p90 | p99 | p99.9 | conflated | published/s |")
    print("|---|---|---|---|---|---|---|---|---|")
    for r in rows:
        print(f"| {r['mode']} | {r['rate']} | {r['count']} | {r['p50_us'] / 1e3:.2f} ms | {r['p90_us'] / 1e3:.2f} ms | "
              f"{r['p99_us'] / 1e3:.2f} ms | {r['p999_us'] / 1e3:.2f} ms | {r['conflated_percent']:.2f}% | "
              f"{r['published'] / run.args.seconds:.0f} |")
    if run.args.plot:
        plot(run, rows)
    return rows


def plot(run, rows):
    """The share of books slower than each latency, per rate, on log axes:
    the median and the tail in one picture."""
    data = []
    shown = {int(r) for r in run.args.plot_rates.split(",")} if run.args.plot_rates else None
    for r in rows:
        if shown is not None and r["rate"] not in shown:
            continue
        with open(r["samples"]) as f:
            values = sorted(int(line) / 1e3 for line in f if line.strip())
        path = r["samples"] + ".ccdf"
        with open(path, "w") as f:
            n = len(values)
            step = max(1, n // 2000)
            for i in list(range(0, n, step)) + ([n - 1] if n else []):
                f.write(f"{values[i]} {max(1.0 - i / n, 1.0 / n)}\n")
        data.append((path, f"{r['rate']} records/s, {r['mode']}", len(data) % len(shown or rows) + 1,
                     2 if r["mode"] == "at-once" else 1))
    curves = ", ".join(f"'{path}' using 1:2 with lines linewidth 2 linecolor {color} dashtype {dash} title '{title}'"
                       for path, title, color, dash in data)
    script = (
        "set terminal svg size 800,480 dynamic font 'sans,12'\n"
        f"set output '{os.path.abspath(run.args.plot)}'\n"
        "set logscale xy\nset grid\n"
        "set xlabel 'latency, feed ring to mirror ring (microseconds)'\n"
        "set ylabel 'share of books slower'\n"
        f"set title 'quvo-bridge on loopback, {placement(run)}'\n"
        "set key top right\n"
        "set yrange [0.0001:1]\nset xrange [10:*]\n"
        f"plot {curves}\n")
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    print(f"plot: {run.args.plot}")


def throughput(run):
    bench = run.program(os.path.join("bench", "feed_bench"))
    settings = ("alone", "follow", "bridge")
    rates = {s: [] for s in settings}
    bridge_seen = {s: [] for s in settings}
    for round_ in range(run.args.rounds):
        for setting in settings:
            session = os.path.join(run.work, "session")
            os.environ["QUVO_FEED_BENCH_DIR"] = session
            feed_keys = os.path.join(session, "keys")
            started = []
            if setting != "alone":
                # follow: a port nothing listens on, so the bridge only follows the ring.
                url = f"nats://127.0.0.1:{free_port()}"
                if setting == "bridge":
                    url, server = run.nats()
                    started.append(server)
                    started.append(run.start([run.program("quvo-bridge"), "--mirror", "--server", url],
                                             f"mirror-{round_}.out", run.keys(f"mirror-{round_}-keys")))
                os.makedirs(feed_keys, exist_ok=True)
                for f in KEY_FILES:
                    open(os.path.join(feed_keys, f), "a").close()
                bridge_out = f"bridge-{setting}-{round_}.out"
                started.append(run.start([run.program("quvo-bridge"), "--server", url, "--stats"], bridge_out,
                                         feed_keys))
            os.sched_setaffinity(0, {run.feed_cpu} if run.pinned else set(run.other_cpus))
            try:
                figures = benchrun.medians(bench, "BM_FeedLive", run.args.repetitions, interleave=False)
            finally:
                os.sched_setaffinity(0, set([run.feed_cpu] + list(run.other_cpus)))
            for child in reversed(started):
                run.stop(child)
            rates[setting].append(next(iter(figures.values()))["live_records_per_s"])
            if setting != "alone":
                bridge_seen[setting].append(run.last_figures(bridge_out))
            print(f"round {round_ + 1} {setting}: {rates[setting][-1] / 1e6:.2f} M records/s", file=sys.stderr)
    alone = statistics.median(rates["alone"])
    print(f"the feed's live phase, median over {run.args.rounds} processes of {run.args.repetitions} runs; "
          f"{placement(run)}")
    print("| setting | records/s (median) | range over processes | against alone | bridge read |")
    print("|---|---|---|---|---|")
    rows = []
    for s in settings:
        median = statistics.median(rates[s])
        seen = bridge_seen[s]
        read = (f"{statistics.median(f.get('announcements', 0) for f in seen) / 1e6:.2f} M announcements, "
                f"{statistics.median(f.get('laps', 0) for f in seen):.0f} laps" if seen else "")
        print(f"| {s} | {median / 1e6:.2f} M | {min(rates[s]) / 1e6:.2f} to {max(rates[s]) / 1e6:.2f} M | "
              f"{median / alone:.3f} | {read} |")
        rows.append({"setting": s, "records_per_s": rates[s], "median": median, "ratio": median / alone,
                     "bridge": seen})
    return rows


def placement(run):
    if run.pinned:
        return f"feed on CPU {run.feed_cpu}, bridge, NATS and mirror on CPU {','.join(map(str, run.other_cpus))}"
    return "every process on every CPU"


def main():
    args = parse_args()
    run = Run(args)
    try:
        rows = latency(run) if args.mode == "latency" else throughput(run)
    finally:
        run.close()
    if args.json_out:
        with open(args.json_out, "w") as f:
            json.dump(rows, f, indent=1)


if __name__ == "__main__":
    main()
