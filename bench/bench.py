"""What does the server cost?

usage: bench.py            times, and ratios to a raw relay's, to compare before and after a change
       bench.py --check    instructions per unit of work, counted by valgrind; fails when a figure is
                           more than 5 % above the one in instructions.json
       bench.py --renew    writes that file

Instructions hardly depend on the machine or on what else it does, so that they can be compared from
day to day. They do not show what the kernel does, nor what a branch costs that was predicted wrongly;
the times do.
"""

import json
import os
import pathlib
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
BUILD = HERE.parent / "build" / "release"
COMMITTED = HERE / "instructions.json"
ALLOWED = 1.05  # of the committed figure
RENEWALS = 5  # counts, of which the middle one is committed: they differ by up to 3 %
ROUNDS = 7


def tool(name, **arguments):
    return "tools/call", {"name": name, "arguments": arguments}


PING, CALL, IMAGE, ROWS = ("ping", {}), tool("get_vm"), tool("capture_screen"), tool("list_vms")
BURST = 600  # events that the application writes at once: about as much as goes out in one write


def burst(events):
    return tool("job_wait", events=events)


# Two runs and by how many units they differ: what is not the unit's falls out.
INSTRUCTIONS = {
    "ping": ([PING] * 50, [PING] * 2050, 2000),
    "call": ([CALL] * 50, [CALL] * 250, 200),
    "event": ([burst(0)] * 100, [burst(BURST)] * 100, 100 * BURST),
    "image": ([IMAGE] * 2, [IMAGE] * 6, 4),
    "rows": ([ROWS], [ROWS] * 2, 1),
}
TIMES = {
    "ping": ([PING] * 3000, 3000),
    "call": ([CALL] * 2000, 2000),
    "event": ([burst(20_000)], 20_000),
    "image": ([IMAGE] * 20, 20),
    "rows": ([ROWS] * 5, 5),
}

VALGRIND = ("valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
            "--fair-sched=yes")  # so that the two threads meet in the same way, nearly
# The C library and Qt choose some of their code by the processor's features and cache, which makes a
# tenth of an image's count. These are what every processor of the architecture has.
PLAIN_PROCESSOR = {
    "GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX,-AVX2,-AVX512F,-AVX512VL,-AVX512BW,-BMI1,-BMI2,-ERMS,-FSRM:"
                      "glibc.cpu.x86_non_temporal_threshold=1000000000",
    "QT_NO_CPU_FEATURE": "sse3 ssse3 sse4.1 sse4.2 avx avx2 avx512f",
}


class Peer:
    """A server or relay with its application, in a folder of their own."""

    def __init__(self, program, *command):
        self.folder = tempfile.TemporaryDirectory(prefix="orrery-bench-")
        home = pathlib.Path(self.folder.name)
        shutil.copy(program, home)
        shutil.copy(BUILD / "bench" / "orrery-bench-peers", home / "orrery")
        self.command = [*command, home / program.name]
        self.environment = {"PATH": os.environ["PATH"], "TMPDIR": self.folder.name}
        if command:
            self.environment.update(PLAIN_PROCESSOR)
        self.application = subprocess.Popen([home / "orrery"], env=self.environment)
        while not list(home.glob("orrery-control-*")):
            if self.application.poll() is not None:
                raise SystemExit("bench: the application does not serve its pipe")
            time.sleep(0.01)
        self.process = self.start()
        self.id = 0

    def start(self):
        return subprocess.Popen(self.command, env=self.environment, bufsize=1 << 20, stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def ask(self, method, params, process=None):
        """Sends a request and reads up to its answer."""
        self.id += 1
        process = process or self.process
        request = {"id": self.id, "method": method, "params": params}
        process.stdin.write(json.dumps(request, separators=(",", ":")).encode() + b"\n")
        process.stdin.flush()
        events = 0
        while not (line := process.stdout.readline()).startswith(b'{"id":%d,' % self.id):
            events += 1
            if not line:
                raise SystemExit(f"bench: no answer to {request}")
        if b'"error":' in line[:60] or line.endswith(b'"isError":true}}\n') \
                or events != params.get("arguments", {}).get("events", 0):
            raise SystemExit(f"bench: no good answer to {request}: {events} events, {line[:200]}")

    def run(self, requests):
        for request in requests:
            self.ask(*request)

    def end(self):
        """Ends both; what the server said on standard error."""
        said = self.process.communicate()[1]
        self.application.kill()
        self.application.wait()
        self.folder.cleanup()
        return said


def instructions(name):
    *runs, units = INSTRUCTIONS[name]
    counts = []
    for requests in runs:
        server = Peer(BUILD / "server" / "orrery-mcp", *VALGRIND)
        server.run([CALL, PING, *requests])
        counts.append(int(re.search(rb"Collected : (\d+)", server.end())[1]))
    return round((counts[1] - counts[0]) / units)


def unlike_committed():
    """Why the figures of this machine cannot be compared with the committed ones; empty if they can."""
    system = platform.freedesktop_os_release()
    cache = (BUILD / "CMakeCache.txt").read_text()
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.MULTILINE)[1]
    version = subprocess.run([compiler, "--version"], stdout=subprocess.PIPE, text=True, check=True).stdout
    found = f"{system['NAME']} {system.get('VERSION_ID')}, {platform.machine()}, {version.splitlines()[0]}"
    same = (system["ID"], system.get("VERSION_ID"), platform.machine()) == ("debian", "12", "x86_64") \
        and re.match(r"[cg]\+\+ \(Debian 12\.", version)
    return "" if same else found


def check(renew):
    elsewhere = unlike_committed()
    if renew and elsewhere:
        raise SystemExit(f"bench: figures are those of Debian 12's g++ on x86_64, not of {elsewhere}")
    committed = json.loads(COMMITTED.read_text()) if COMMITTED.exists() else {}
    figures, worse = {}, []
    for name in INSTRUCTIONS:
        figures[name] = statistics.median_low(instructions(name) for _ in range(RENEWALS if renew else 1))
        line = f"{name:6}{figures[name]:12,} instructions"
        if old := committed.get(name):
            line += f"{old:12,} committed{100 * figures[name] / old - 100:+8.1f} %"
            if figures[name] > old * ALLOWED:
                worse.append(name)
        print(line, flush=True)
    if renew:
        COMMITTED.write_text(json.dumps(figures, indent=1) + "\n")
    elif elsewhere:
        print(f"bench: not judged: the figures are those of Debian 12's g++ on x86_64, this is {elsewhere}")
    elif worse or committed.keys() != figures.keys():
        names = ", ".join(worse) or "a figure with nothing committed, or the reverse"
        raise SystemExit(f"bench: FAILED: more than 5 % above what is committed: {names}. If it is worth "
                         "that, commit what script/bench --renew writes, and say why")


def microseconds(units, run):
    begin = time.perf_counter()
    run()
    return (time.perf_counter() - begin) * 1e6 / units


def start_up(peer):
    process = peer.start()
    peer.ask("initialize", {}, process)
    process.communicate()


def measure():
    # On one processor only the work counts, and not where the scheduler puts it.
    os.sched_setaffinity(0, [min(os.sched_getaffinity(0))])
    with tempfile.TemporaryDirectory(prefix="orrery-bench-") as folder:
        relay = pathlib.Path(folder) / "relay"
        shutil.copy(BUILD / "bench" / "orrery-bench-peers", relay)
        peers = [Peer(BUILD / "server" / "orrery-mcp"), Peer(relay)]
    runs = {"start": (1, start_up)}
    for name, (requests, units) in TIMES.items():
        runs[name] = units, lambda peer, requests=requests: peer.run(requests)
    for name, (units, run) in runs.items():
        # In turns: a slow spell of the machine hits both.
        rounds = [[microseconds(units, lambda: run(peer)) for peer in peers] for _ in range(ROUNDS)]
        ratio = statistics.median(server / floor for server, floor in rounds)
        print(f"{name:6}{statistics.median(server for server, _ in rounds):12,.1f} us{ratio:8.2f} x relay",
              flush=True)
    for peer in peers:
        peer.end()


if sys.argv[1:] in (["--check"], ["--renew"]):
    check(renew=sys.argv[1] == "--renew")
elif len(sys.argv) == 1:
    measure()
else:
    raise SystemExit(__doc__)
