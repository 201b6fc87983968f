#!/usr/bin/env python3
"""Measures the module beside what people use instead, and beside the limits. Started by scripts/bench.

Rows 1 to 4 watch a program that captures a private X server's screen: several windows of time in a row, each from one
reading of clocks and counters to the next. The table shows medians, and for the sum of a row the least and the most.
"""
import argparse
import contextlib
import ctypes
import json
import mmap
import os
import pathlib
import re
import select
import signal
import socket
import statistics
import struct
import subprocess
import sys
import time

HOUSE = pathlib.Path(__file__).resolve().parent.parent
BUILD = HOUSE / "build-release"
RESULTS = BUILD / "bench-results"
SIZES = ["1920x1080", "3840x2160"]

processes = []


def progress(text):
    print(text, file=sys.stderr, flush=True)


def die_with_parent():
    PR_SET_PDEATHSIG = 1
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def start(*command, display=None, **options):
    environment = dict(os.environ, DISPLAY=display or "")
    options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL} | options
    process = subprocess.Popen([str(word) for word in command], env=environment,
                               stderr=subprocess.DEVNULL, start_new_session=True, preexec_fn=die_with_parent, **options)
    processes.append(process)
    return process


def stop(process):
    process.kill()
    process.wait()
    if process in processes:
        processes.remove(process)


@contextlib.contextmanager
def running(*command, **options):
    process = start(*command, **options)
    try:
        yield process
    finally:
        stop(process)


@contextlib.contextmanager
def x_server(size):
    """A private Xvfb; yields its process, with the name of its display."""
    reading, writing = os.pipe()
    with running("Xvfb", "-displayfd", writing, "-noreset", "-nolisten", "tcp", "-screen", "0", size + "x24",
                 pass_fds=[writing]) as server:
        os.close(writing)
        with os.fdopen(reading) as file:
            server.display = ":" + file.readline().strip()
        if server.display == ":":
            sys.exit("No X server starts here.")
        yield server


def own_program(name, *arguments, display):
    output = subprocess.run([str(BUILD / "bench" / name), *map(str, arguments)], stdout=subprocess.PIPE, check=True,
                            env=dict(os.environ, DISPLAY=display)).stdout
    return json.loads(output)


class Painter:
    """Draws, and knows what its draws cost the X server: the other work of the server is the tool's."""
    N_KEPT = 1023

    def __init__(self, server, area, count, rate):
        self.server, self.load, self.rate = server, (area, count, rate), rate
        self.path = RESULTS / "painter.costs"

    def __enter__(self):
        self.path.write_bytes(bytes(8 + 8 * self.N_KEPT))
        if self.rate:
            self.process = start(BUILD / "bench/painter", *self.load, self.server.pid, self.path,
                                 display=self.server.display)
        return self

    def __exit__(self, *_):
        if self.rate:
            stop(self.process)

    def count(self):
        return struct.unpack_from("Q", self.path.read_bytes())[0]

    def cost_since(self, count):
        """Nanoseconds. A draw beside which the server did something else as well does not count as dearer."""
        end = self.count()
        costs = struct.unpack_from(f"{self.N_KEPT}Q", self.path.read_bytes(), 8)
        recent = [costs[i % self.N_KEPT] for i in range(max(count, end - self.N_KEPT), end)]
        return statistics.median(recent) * (end - count) if recent else 0


def count_pixels(size):
    width, height = map(int, size.split("x"))
    return width * height


# The tools: how each is started, and how many frames it has delivered.

class Counters:
    """Of a program that keeps them in a file: frames, empty ones, and a third number."""

    def __init__(self, name):
        self.path = RESULTS / f"{name}.counters"
        self.path.write_bytes(bytes(24))
        with open(self.path, "r+b") as file:
            self.map = mmap.mmap(file.fileno(), 24)

    def read(self):
        return struct.unpack_from("QQQ", self.map)


class Tool:
    def prepare(self):
        pass

    def start(self, display, size, rate):
        self.prepare()
        self.process = start(*self.command(display, size, rate), display=display, stdout=subprocess.PIPE)

    def stop(self):
        stop(self.process)


class Ryx(Tool):
    def __init__(self, mode="dirty", block_size=64):
        self.name = "ryx" if mode == "dirty" else "ryx, comparing"
        self.arguments = mode, block_size

    def prepare(self):
        self.counters = Counters("ryx")

    def command(self, display, size, rate):
        return BUILD / "bench/capturer", self.counters.path, *self.arguments

    def count_frames(self):
        return self.counters.read()[0]


class Narrator(Tool):
    """Says on its standard output how many frames it has delivered, now and then."""

    def count_frames(self):
        """Waits for the next line, so that the clocks that are read next belong to the count."""
        output = self.process.stdout.fileno()
        while select.select([output], [], [], 0)[0] and os.read(output, 65536):
            pass
        while select.select([output], [], [], 5)[0]:
            counts = re.findall(self.pattern, os.read(output, 65536))
            if counts:
                return int(counts[-1])
        return 0


class Ffmpeg(Narrator):
    name = "ffmpeg x11grab"
    pattern = rb"frame=\s*(\d+)"

    def command(self, display, size, rate):
        return ["ffmpeg", "-loglevel", "error", "-nostats", "-stats_period", "0.25", "-progress", "pipe:1", "-f",
                "x11grab", "-draw_mouse", "0", "-framerate", rate, "-video_size", size, "-i", display, "-c:v", "copy",
                "-f", "null", "-"]


class Gstreamer(Narrator):
    pattern = rb"(\d+) buffers"

    def __init__(self, damage):
        self.name = "ximagesrc, " + ("damage" if damage else "no damage")
        self.damage = damage

    def command(self, display, size, rate):
        return ["gst-launch-1.0", "ximagesrc", f"display-name={display}", f"use-damage={str(self.damage).lower()}",
                "show-pointer=false", "!", f"video/x-raw,framerate={rate}/1", "!", "progressreport", "update-freq=1",
                "do-query=false", "format=buffers", "!", "fakesink"]


class Vnc(Tool):
    """With a client that takes every update uncompressed: no encoder runs."""
    whole_frame = None  # in pixels, where a change comes in several updates

    def prepare(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.counters = Counters(self.name.split(",")[0])

    def client(self):
        return running(sys.executable, HOUSE / "bench/rfbclient.py", self.port, self.counters.path)

    def start(self, display, size, rate):
        super().start(display, size, rate)
        self.connection = self.client()
        self.connection.__enter__()

    def stop(self):
        self.connection.__exit__(None, None, None)
        super().stop()

    def count_frames(self):
        n_updates, _, n_pixels = self.counters.read()
        return n_pixels / self.whole_frame if self.whole_frame else n_updates


class X11vnc(Vnc):
    def __init__(self, damage=True):
        self.name = "x11vnc" + ("" if damage else ", no damage")
        self.damage = ["-xd_area", "0"] if damage else ["-noxdamage"]

    def command(self, display, size, rate):
        return ["x11vnc", "-display", display, "-rfbport", self.port, "-localhost", "-nopw", "-forever", "-shared",
                "-quiet", "-noipv6", "-wait", "16", "-defer", "1", *self.damage]


class X0vncserver(Vnc):
    name = "x0vncserver"

    def command(self, display, size, rate):
        return ["X0tigervnc", "-display", display, "-rfbport", self.port, "-localhost=1", "-SecurityTypes", "None",
                "-FrameRate", "60", "-CompareFB", "0"]


# One measurement

def own_clock(pid):
    """Nanoseconds of CPU time of all threads of a process, also of those that have ended."""
    return time.clock_gettime_ns((~pid << 3) | 2)


def count_wake_ups(pid):
    total = 0
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        total += int(re.search(r"\nvoluntary_ctxt_switches:\t(\d+)", (task / "status").read_text())[1])
    return total


def read_all(tool, server):
    return {"frames": tool.count_frames() if tool else 0, "time": time.monotonic(),
            "own": own_clock(tool.process.pid) if tool else 0, "server": own_clock(server.pid),
            "wake_ups": count_wake_ups(tool.process.pid) if tool else 0}


def wait_for_start(tool, expects_frames):
    deadline = time.monotonic() + 15
    while expects_frames and tool.count_frames() == 0 and time.monotonic() < deadline:
        time.sleep(0.05)
    time.sleep(1)


def watch(tool, server, size, painter, options):
    """Rates per second of what a tool does, one for each window; the server's without its drawing."""
    windows = []
    tool.start(server.display, size, painter.rate or 60)
    wait_for_start(tool, painter.rate > 0)
    before, n_draws = read_all(tool, server), painter.count()
    for _ in range(options.windows):
        time.sleep(options.seconds)
        after = read_all(tool, server)
        drawing, n_draws = painter.cost_since(n_draws), painter.count()
        seconds = after["time"] - before["time"]
        window = {key: (after[key] - before[key]) / seconds for key in before if key != "time"}
        window["server"] = max(0, window["server"] - drawing / seconds)
        windows.append(window)
        before = after
    tool.stop()
    return windows


def summarise(windows):
    """Medians in percent of a core and microseconds per frame."""
    medians = {key: statistics.median(window[key] for window in windows) for key in windows[0]}
    of_frames = [window for window in windows if window["frames"]]
    line = {"fps": medians["frames"], "own_percent": medians["own"] / 1e7, "server_percent": medians["server"] / 1e7,
            "wake_ups": medians["wake_ups"], "own_us": None, "server_us": None, "sum_us": None}
    if of_frames:
        own, server = ([window[key] / window["frames"] / 1e3 for window in of_frames] for key in ("own", "server"))
        sums = [a + b for a, b in zip(own, server)]
        line |= {"own_us": statistics.median(own), "server_us": statistics.median(server),
                 "sum_us": statistics.median(sums), "least_us": min(sums), "most_us": max(sums)}
    return line


def measure(tool, server, size, options, load=("1x1", 1, 0)):
    progress(f"  {tool.name}")
    if load[0] == size:
        tool.whole_frame = count_pixels(size)
    with Painter(server, *load) as painter:
        return dict(tool=tool.name, size=size, **summarise(watch(tool, server, size, painter, options)))


def count_requests(tool, server, size, rate):
    """Requests to the X server per second, in a run of its own through the proxy."""
    with contextlib.ExitStack() as stack:
        tool.prepare()
        if isinstance(tool, Vnc):
            stack.enter_context(tool.client())
        program = stack.enter_context(running(BUILD / "bench/requests", 3, 2, *tool.command("{display}", size, rate),
                                              display=server.display, stdout=subprocess.PIPE))
        return int(program.communicate()[0].split()[0]) / 2


def peers():
    return [Ffmpeg(), Gstreamer(True), Gstreamer(False), X11vnc(), X0vncserver()]


# The rows. Each returns its lines for the results.

def capture_row(loads_of, tools_of, options, with_requests=False):
    lines = []
    for size in options.sizes:
        with x_server(size) as server:
            progress(f" {size}")
            for tool in tools_of():
                line = measure(tool, server, size, options, loads_of(size))
                if with_requests and size == options.sizes[0]:
                    line["requests"] = count_requests(tool, server, size, 60)
                lines.append(line)
    return lines


def row_1(options):
    return capture_row(lambda size: ("1x1", 1, 0), lambda: [Ryx(), *peers()], options, with_requests=True)


def row_2(options):
    return capture_row(lambda size: ("16x16", 1, 60), lambda: [Ryx(), *peers()], options)


def row_3(options):
    return capture_row(lambda size: (size, 1, 30), lambda: [Ryx(), *peers()], options)


def row_4(options):
    idle = capture_row(lambda size: ("1x1", 1, 0), lambda: [Ryx("compare"), X11vnc(False)], options)
    full = capture_row(lambda size: (size, 1, 30), lambda: [Ryx("compare"), X11vnc(False)], options)
    return [dict(line, load="idle") for line in idle] + [dict(line, load="full change") for line in full]


def percentile(values, percent):
    return sorted(values)[min(len(values) - 1, len(values) * percent // 100)]


def row_5(options):
    lines = []
    for size in options.sizes:
        for fps in 25, 30:
            progress(f" {size}, target-fps {fps}")
            with x_server(size) as server:
                runs = [own_program("latency", 50 if options.quick else 100, fps, display=server.display)
                        for _ in range(3)]
            for name, share in ("with pacing", 0), ("beyond pacing", 1):
                values = [[whole - share * paced for whole, paced in run] for run in runs]
                medians = [statistics.median(run) for run in values]
                lines.append({"size": size, "fps": fps, "what": name, "median_us": statistics.median(medians),
                              "p95_us": statistics.median(percentile(run, 95) for run in values),
                              "least_us": min(medians), "most_us": max(medians)})
    return lines


def google_benchmark(program, pattern=".", repetitions=3):
    output = subprocess.run([str(BUILD / "bench" / program), "--benchmark_format=json", "--benchmark_min_time=0.2",
                             f"--benchmark_filter={pattern}", f"--benchmark_repetitions={repetitions}"],
                            stdout=subprocess.PIPE, check=True).stdout
    runs = json.loads(output)["benchmarks"]
    names = list(dict.fromkeys(run["run_name"] for run in runs))
    of_name = {name: [run for run in runs if run["run_name"] == name and run["run_type"] == "iteration"]
               for name in names}
    results = {}
    for name in names:
        medians = {key: statistics.median(run[key] for run in of_name[name])
                   for key, value in of_name[name][0].items() if isinstance(value, (int, float))}
        unit = of_name[name][0]["time_unit"].replace("us", "µs")
        results[re.sub(r"/(real_time|manual_time|iterations:\d+)", "", name)] = {"time_unit": unit, **medians}
    return results


def row_6(options):
    return [dict(what=name, **values) for name, values in google_benchmark("inputbench").items()]


def row_7(options):
    return [dict(what=name, **values) for name, values in google_benchmark("layoutbench").items()]


def row_8(options):
    return [dict(what=name, **values) for name, values in google_benchmark("cursorbench", "moving.*size:24", 1).items()]


def measure_limits(options):
    lines = []
    for size in options.sizes:
        progress(f" {size}")
        with x_server(size) as server:
            steps = own_program("steps", server.pid, 20 if options.quick else 100, display=server.display)
        for name, costs in steps.items():
            sums = [own + of_server for own, of_server in costs]
            lines.append({"size": size, "step": name, "own_us": statistics.median(own for own, _ in costs),
                          "server_us": statistics.median(of_server for _, of_server in costs),
                          "least_us": min(sums), "most_us": max(sums)})
    return lines


# In a browser

class RyxWeb:
    name = "ryx-web"

    def __init__(self, server):
        self.process = start(BUILD / "hosts/web/ryx-web", "--display", server.display, "--port", "0",
                             display=server.display, stdout=subprocess.PIPE)
        self.target = "ryx", self.process.stdout.readline().decode().strip()

    def pids(self):
        """The program that the browser talks to, and the one that talks to the X server."""
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text()
        return [self.process.pid, *map(int, children.split())]


class VncWeb:
    def __init__(self, tool, server):
        self.name = tool.name
        tool.prepare()
        self.process = start(*tool.command(server.display, SIZES[0], 60), display=server.display)
        self.target = "vnc", tool.port
        for _ in range(100):
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", tool.port)):
                break
            time.sleep(0.1)

    def pids(self):
        return [self.process.pid]


class Browser:
    def __init__(self, tool):
        self.process = start("node", HOUSE / "bench/web.js", *tool.target, stdin=subprocess.PIPE,
                             stdout=subprocess.PIPE)
        if not self.process.stdout.readline():
            sys.exit(f"No browser shows {tool.name}.")

    def ask(self, question):
        self.process.stdin.write(question.encode() + b"\n")
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())


def watch_scene(tool, browser, server, scene, options):
    def read():
        return {"time": time.monotonic(), "own": sum(map(own_clock, tool.pids())), **browser.ask("count")}

    windows = []
    with running(BUILD / "bench/scene", scene, display=server.display):
        time.sleep(2)
        before = read()
        for _ in range(options.windows):
            time.sleep(options.seconds)
            after = read()
            seconds = after["time"] - before["time"]
            windows.append({key: (after[key] - before[key]) / seconds for key in before if key != "time"})
            before = after
    return {key: statistics.median(window[key] for window in windows) for key in windows[0]}


def row_web(options):
    lines = []
    if not (BUILD / "hosts/web/ryx-web").exists():
        progress(" left out: ryx-web is not built here")
        return lines
    for make in RyxWeb, lambda server: VncWeb(X11vnc(), server), lambda server: VncWeb(X0vncserver(), server):
        with x_server("1280x1024") as server, contextlib.ExitStack() as stack:
            tool = make(server)
            stack.callback(stop, tool.process)
            progress(f"  {tool.name}")
            browser = Browser(tool)
            stack.callback(stop, browser.process)
            with running(BUILD / "bench/scene", "echo", display=server.display):
                time.sleep(1)
                latencies = browser.ask(f"latency {20 if options.quick else 40}")
            line = {"tool": tool.name, "median_ms": statistics.median(latencies), "p95_ms": percentile(latencies, 95)}
            for scene in "typing", "scrolling", "video":
                line[scene] = watch_scene(tool, browser, server, scene, options)
            lines.append(line)
    return lines


# How cost grows, at 1080p

AREAS = ["16x16", "128x128", "512x512", "960x540", "1920x1080"]
SCREENS = ["1280x720", "1920x1080", "2560x1440", "3840x2160"]


def row_area(options):
    lines = []
    with x_server(SIZES[0]) as server:
        for area in AREAS:
            progress(f" {area}")
            for tool in Ryx(), Ffmpeg(), X0vncserver():
                lines.append(dict(measure(tool, server, SIZES[0], options, (area, 1, 30)), area=area,
                                  pixels=count_pixels(area)))
    return lines


def row_screen(options):
    return [dict(line, pixels=count_pixels(line["size"]))
            for line in capture_row(lambda size: (size, 1, 30), lambda: [Ryx(), Ffmpeg(), X0vncserver()],
                                    argparse.Namespace(**dict(vars(options), sizes=SCREENS)))]


def row_blocks(options):
    lines = []
    with x_server(SIZES[0]) as server:
        for count, block_size in (1, 64), (10, 64), (100, 64), (500, 64), (500, 16), (500, 256):
            progress(f" {count} changes, blocks of {block_size}")
            load = "4x4", count, 30
            lines.append(dict(measure(Ryx(block_size=block_size), server, SIZES[0], options, load),
                              changes=count, block_size=block_size))
    return lines


def row_readers(options):
    """Every head has a reader of its own; here each takes the whole screen."""
    lines = []
    load = SIZES[0], 1, 30
    for n_readers in 1, 2, 4:
        progress(f" {n_readers} readers")
        with x_server(SIZES[0]) as server, contextlib.ExitStack() as stack:
            for i in range(1, n_readers):
                stack.enter_context(running(BUILD / "bench/capturer", RESULTS / f"other-{i}.counters",
                                            display=server.display))
            line = measure(Ryx(), server, SIZES[0], options, load)
            lines.append(dict(line, readers=n_readers))
    return lines


def read_memory(pid):
    """What is the process's own and shared with nobody but the X server, in bytes: not the code of its libraries."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return sum(int(re.search(rf"{name}:\s+(\d+) kB", status)[1]) * 1024 for name in ("RssAnon", "RssShmem"))


def row_memory(options):
    """As fast as frames come, each of them new from edge to edge."""
    lines = []
    many = 20_000 if options.quick else 100_000
    for size, rate, counts in (SIZES[0], 200, [1000]), ("640x480", 2500, [1000, many]):
        counters = Counters("memory")
        with x_server(size) as server, Painter(server, size, 1, rate), \
                running(BUILD / "bench/capturer", counters.path, "unpaced", display=server.display) as capturer:
            for count in counts:
                progress(f" {size}, {count} frames")
                while counters.read()[0] < count and capturer.poll() is None:
                    time.sleep(0.1)
                used = read_memory(capturer.pid)
                lines.append({"size": size, "frames": count, "bytes": used,
                              "beyond_frames_and_segment": used - 3 * 4 * count_pixels(size)})
    return lines


# What is printed

def number(value, digits=0):
    return "–" if value is None else f"{value:,.{digits}f}"


def spread(line, digits=0):
    return "–" if "least_us" not in line else f"{number(line['least_us'], digits)}–{number(line['most_us'], digits)}"


CAPTURE_COLUMNS = {
    "screen": lambda line: line["size"],
    "tool": lambda line: line["tool"],
    "frames/s": lambda line: number(line["fps"], 1),
    "process, %": lambda line: number(line["own_percent"], 2),
    "X server, %": lambda line: number(line["server_percent"], 2),
}
PER_FRAME_COLUMNS = CAPTURE_COLUMNS | {
    "process, µs/frame": lambda line: number(line["own_us"]),
    "X server, µs/frame": lambda line: number(line["server_us"]),
    "together": lambda line: number(line["sum_us"]),
    "spread": spread,
}
COUNTERS = {key: lambda line, key=key: number(line.get(key), 1)
            for key in ("requests", "round_trips", "right", "wrong", "missing", "items_per_second", "xrandr_requests",
                        "ryxctl_ms", "xrandr_ms", "core_percent", "server_percent")}


def benchmark_columns(*counters):
    return {"what": lambda line: line["what"],
            "time": lambda line: f"{line['real_time']:,.1f} {line['time_unit']}",
            **{name: COUNTERS[name] for name in counters}}


ROWS = {
    "1": ("An idle screen", row_1, CAPTURE_COLUMNS | {
        "wake-ups/s": lambda line: number(line["wake_ups"], 1),
        "requests/s": lambda line: number(line.get("requests"), 1)}),
    "2": ("16x16 pixels change 60 times a second", row_2, PER_FRAME_COLUMNS),
    "3": ("The whole screen changes 30 times a second", row_3, PER_FRAME_COLUMNS),
    "4": ("Compare mode, without damage", row_4, {"load": lambda line: line["load"]} | PER_FRAME_COLUMNS),
    "5": ("From a draw to its frame", row_5, {
        "screen": lambda line: line["size"], "target-fps": lambda line: str(line["fps"]),
        "latency": lambda line: line["what"], "median, µs": lambda line: number(line["median_us"]),
        "95th percentile": lambda line: number(line["p95_us"]), "spread of medians": spread}),
    "6": ("Typing", row_6,
          benchmark_columns("requests", "round_trips", "right", "wrong", "missing", "items_per_second")),
    "7": ("A change of layout, and the way back (ms)", row_7,
          benchmark_columns("requests", "xrandr_requests", "ryxctl_ms", "xrandr_ms")),
    "8": ("The cursor poll", row_8, benchmark_columns("core_percent", "server_percent")),
    "limits": ("The limits", measure_limits, {
        "screen": lambda line: line["size"], "step": lambda line: line["step"],
        "process, µs": lambda line: number(line["own_us"]), "X server, µs": lambda line: number(line["server_us"]),
        "spread of both": spread}),
    "web": ("In a browser, 1280x1024: from a key to its echo on the canvas, and what three scenes take", row_web, {
        "tool": lambda line: line["tool"], "median, ms": lambda line: number(line["median_ms"], 1),
        "95th percentile": lambda line: number(line["p95_ms"], 1),
        **{f"{scene}, {what}": lambda line, scene=scene, key=key, scale=scale: number(line[scene][key] / scale, 1)
           for scene in ("typing", "scrolling", "video")
           for what, key, scale in (("updates/s", "updates", 1), ("kB/s", "bytes", 1e3), ("CPU %", "own", 1e7))}}),
    "area": ("CPU against changed area, 1920x1080, 30 times a second", row_area,
             {"area": lambda line: line["area"]} | PER_FRAME_COLUMNS),
    "screen": ("CPU against screen size, all of it 30 times a second", row_screen, PER_FRAME_COLUMNS),
    "blocks": ("Changes of 4x4 pixels, 30 times a second", row_blocks,
               {"changes": lambda line: str(line["changes"]), "block size": lambda line: str(line["block_size"])}
               | PER_FRAME_COLUMNS),
    "readers": ("Readers, the whole screen 30 times a second", row_readers,
                {"readers": lambda line: str(line["readers"])} | PER_FRAME_COLUMNS),
    "memory": ("Memory of the capturing process", row_memory, {
        "screen": lambda line: line["size"], "after frames": lambda line: number(line["frames"]),
        "MB": lambda line: number(line["bytes"] / 1e6, 1),
        "beyond a segment and two frames, MB": lambda line: number(line["beyond_frames_and_segment"] / 1e6, 1)}),
}


def make_table(columns, lines):
    """As Markdown, aligned for a terminal."""
    rows = [list(columns)] + [[str(column(line)) for column in columns.values()] for line in lines]
    widths = [max(len(row[i]) for row in rows) for i in range(len(columns))]
    rows.insert(1, ["-" * width for width in widths])
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in rows)


def find(results, row, size, tool="ryx"):
    return next((line for line in results.get(row, []) if line["size"] == size and line["tool"] == tool), None)


def check_targets(results):
    """Each target with what was measured, as far as its rows ran."""
    for row in "2", "3":
        for ours in (line for line in results.get(row, []) if line["tool"] == "ryx"):
            others = [line for line in results[row]
                      if line["size"] == ours["size"] and line["tool"] != "ryx" and line["sum_us"]]
            best = min(others, key=lambda line: line["sum_us"])
            yield (f"row {row}, {ours['size']}: less CPU per frame than every peer",
                   f"{number(ours['sum_us'])} µs; the next, {best['tool']}, {number(best['sum_us'])} µs",
                   ours["sum_us"] < best["sum_us"])
    for ours in (line for line in results.get("3", []) if line["tool"] == "ryx" and "limits" in results):
        step = {line["step"]: line for line in results["limits"] if line["size"] == ours["size"]}
        memory = step["memcpy"]["own_us"] + step["memcmp"]["own_us"]
        both = memory + sum(step["CopyArea, checked"][key] for key in ("own_us", "server_us"))
        for what, value, limit in ("process", ours["own_us"], memory), ("together", ours["sum_us"], both):
            yield (f"row 3, {ours['size']}: {what} at most 1.3 times the limit",
                   f"{number(value)} µs of {number(limit)}: {value / limit:.2f} times", value <= 1.3 * limit)
    for line in results.get("5", []):
        if line["size"] == SIZES[0] and line["what"] == "beyond pacing":
            yield (f"row 5, {line['size']}, target-fps {line['fps']}: below 1 ms at the median",
                   f"{number(line['median_us'])} µs", line["median_us"] < 1000)
    for line in results.get("6", []):
        if line["what"].startswith("ryxctl/"):
            peer = next(peer for peer in results["6"] if peer["what"] == line["what"].replace("ryxctl", "xdotool"))
            yield (f"row 6, {line['what'].removeprefix('ryxctl/')}: at least xdotool's rate, no wrong character",
                   f"{number(line['items_per_second'])} characters/s, {number(line['wrong'])} wrong; "
                   f"xdotool {number(peer['items_per_second'])}, {number(peer['wrong'])} wrong",
                   line["items_per_second"] >= peer["items_per_second"] and line["wrong"] == 0)
    for line in results.get("memory", []):
        yield (f"memory, {line['size']}: 10 MB beyond the segment and the frames in use",
               f"{line['beyond_frames_and_segment'] / 1e6:.1f} MB", line["beyond_frames_and_segment"] <= 10e6)
    for before, after in zip(results.get("memory", []), results.get("memory", [])[1:]):
        if before["size"] == after["size"]:
            growth = after["bytes"] - before["bytes"]
            yield (f"memory: no growth over {after['frames']:,} frames", f"{growth / 1e6:.1f} MB", growth < 1e6)


def describe_machine():
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return (f"{model[1] if model else 'unknown processor'}, {os.cpu_count()} cores; "
            f"{time.strftime('%Y-%m-%d %H:%M', time.gmtime())} UTC; load before: {os.getloadavg()[0]:.1f}")


def make_report(results, machine, arguments):
    parts = ["# Measurements", f"Measured by `scripts/bench{''.join(' ' + argument for argument in arguments)}` on: {machine}."]
    for row, (title, _, columns) in ROWS.items():
        if results.get(row):
            title = f"Row {row}: {title[0].lower()}{title[1:]}" if row.isdigit() else title
            parts.append(f"### {title}\n\n{make_table(columns, results[row])}")
    targets = list(check_targets(results))
    if targets:
        columns = {"target": lambda t: t[0], "measured": lambda t: t[1], "met": lambda t: "yes" if t[2] else "no"}
        parts.append(f"### Targets\n\n{make_table(columns, targets)}")
    return "\n\n".join(parts) + "\n"


def plot(lines, x_title, output):
    """CPU time per frame, process and X server together, against pixels; both axes logarithmic."""
    tools = list(dict.fromkeys(line["tool"] for line in lines))
    data = ["\n".join(f"{line['pixels']} {line['sum_us'] / 1e3} {line['least_us'] / 1e3} {line['most_us'] / 1e3}"
                      for line in lines if line["tool"] == tool and line["sum_us"]) for tool in tools]
    commands = [
        "set terminal svg size 760,420 font 'sans-serif,13' background 'white'", f"set output '{output}'",
        f"set xlabel '{x_title}'", "set ylabel 'ms of CPU per frame'", "set logscale xy", "set key left top",
        "set grid", "set format x '%.0s%c'",
        "plot " + ", ".join(f"'-' with yerrorlines title '{tool}' lw 2" for tool in tools),
    ]
    subprocess.run(["gnuplot"], input="\n".join(commands) + "\n" + "".join(part + "\ne\n" for part in data), text=True,
                   check=True)


def write_files(results, report, options):
    (RESULTS / "results.json").write_text(json.dumps(results, indent=1))
    if options.markdown:
        pathlib.Path(options.markdown).write_text(report)
    images = pathlib.Path(options.images) if options.images else RESULTS
    for row, title in ("area", "changed pixels"), ("screen", "pixels of the screen"):
        if row in results:
            plot(results[row], title, images / f"cpu-against-{row}.svg")


def parse_arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="short windows, 1080p only: to see that all works")
    parser.add_argument("--rows", default=",".join(ROWS), metavar="ROW,…", help="some of: %(default)s")
    parser.add_argument("--markdown", metavar="FILE", help="write the tables to a file too")
    parser.add_argument("--images", metavar="FOLDER", help="where the plots go (build-release/bench-results)")
    options = parser.parse_args()
    options.rows = options.rows.split(",")
    unknown = set(options.rows) - set(ROWS)
    if unknown:
        parser.error(f"no such rows: {', '.join(sorted(unknown))}")
    options.sizes = SIZES[:1] if options.quick else SIZES
    options.windows, options.seconds = (3, 0.75) if options.quick else (4, 1)
    return options


def main():
    options = parse_arguments()
    machine = describe_machine()
    RESULTS.mkdir(exist_ok=True)
    os.environ |= {"RYX_MODULE_DIR": str(BUILD / "modules/x11"), "GSETTINGS_SCHEMA_DIR": str(BUILD / "ryx/data"),
                   "GSETTINGS_BACKEND": "memory"}
    results = {}
    for row, (title, run, _) in ROWS.items():
        if row in options.rows:
            progress(f"{row}: {title}")
            results[row] = run(options)
            report = make_report(results, machine, sys.argv[1:])
            write_files(results, report, options)
    print(report, end="")


try:
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    main()
except KeyboardInterrupt:
    sys.exit(130)
finally:
    for process in list(processes):
        stop(process)
