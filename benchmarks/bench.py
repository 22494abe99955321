#!/usr/bin/python3
"""Measures the library against bare libcurl, over an nginx on loopback.

    bench.py PROGRAMS             all figures, as text, as JSON and as a plot, beside PROGRAMS
    bench.py PROGRAMS check       the counts of instructions alone, against those kept here
    bench.py PROGRAMS keep        the same, kept from now on

PROGRAMS is the folder of the built programs. A ratio is that of the medians of alternating rounds.
"""

import json
import os
import re
import resource
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
KEPT = HERE / "instructions.json"
ROUNDS = 7
PROTOCOLS = ("HTTP/2", "HTTP/1.1")

NGINX = """
load_module /usr/lib/nginx/modules/ngx_http_echo_module.so;
daemon off; master_process off; pid {folder}/pid; error_log {folder}/error.log;
events {{ worker_connections 4096; }}
http {{
  access_log off; keepalive_requests 100000000; keepalive_timeout 3600; default_type application/json;
  client_body_temp_path {folder}/body; proxy_temp_path {folder}/proxy;
  fastcgi_temp_path {folder}/fastcgi; scgi_temp_path {folder}/scgi; uwsgi_temp_path {folder}/uwsgi;
  ssl_certificate {folder}/certificate.pem; ssl_certificate_key {folder}/key.pem;
  server {{
    listen 127.0.0.1:{http2} ssl http2; listen 127.0.0.1:{http1} ssl;
    location /app/api/v1/ {{ echo_read_request_body; echo '{{}}'; }}
    location /app/api/v1/retrieveDeviceId {{ echo_read_request_body;
      echo '{{"status":"success","uuid":"00000000-0000-4000-8000-000000000000"}}'; }}
    location /app/api/v1/create_link {{ echo_read_request_body;
      echo '{{"status":"success","message":"created","short_url":"https://go.shop.example/spring"}}'; }}
  }}
  server {{ listen 127.0.0.1:{status}; location / {{ stub_status; }} }}
}}
"""


def run(*command, **options):
    return subprocess.run(
        [str(part) for part in command], check=True, stdout=subprocess.PIPE, text=True, **options
    ).stdout


def free_ports(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [each.getsockname()[1] for each in sockets]
    for each in sockets:
        each.close()
    return ports


class Bench:
    """The programs, and a server for them as long as the `with` lasts."""

    def __init__(self, programs, folder):
        self.programs = programs
        self.folder = Path(folder)
        self.certificate = self.folder / "certificate.pem"
        http2, http1, self.status = free_ports(3)
        self.ports = {"HTTP/2": http2, "HTTP/1.1": http1}
        host = "subjectAltName=DNS:api.quorva.example,IP:127.0.0.1"
        run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
            "-subj", "/CN=Bench", "-addext", host, "-days", 2,
            "-keyout", self.folder / "key.pem", "-out", self.certificate, stderr=subprocess.DEVNULL)
        self.trusted = self.folder / "trusted"
        self.trusted.mkdir()
        (self.trusted / "certificate.pem").write_bytes(self.certificate.read_bytes())
        run("openssl", "rehash", self.trusted)
        configuration = self.folder / "nginx.conf"
        configuration.write_text(
            NGINX.format(folder=folder, http2=http2, http1=http1, status=self.status))
        self.nginx = subprocess.Popen(["/usr/sbin/nginx", "-p", folder, "-c", configuration])

    def __enter__(self):
        while not self.connections():
            if self.nginx.poll() is not None:
                sys.exit("bench: nginx ended: " + (self.folder / "error.log").read_text())
        return self

    def __exit__(self, *_):
        self.nginx.send_signal(signal.SIGTERM)
        self.nginx.wait()

    def connections(self):
        """How many connections the server has accepted; 0 as long as it doesn't listen."""
        try:
            with socket.create_connection(("127.0.0.1", self.status)) as asking:
                asking.sendall(b"GET / HTTP/1.0\r\n\r\n")
                answer = b"".join(iter(lambda: asking.recv(4096), b"")).decode()
        except ConnectionRefusedError:
            return 0
        return int(re.search(r"requests\s+(\d+)", answer)[1])

    def library(self, protocol, calls, at_once, wrapper=(), home=None):
        with tempfile.TemporaryDirectory(dir=self.folder) as fresh:
            return json.loads(run(
                *wrapper, self.programs / "calls", self.ports[protocol], self.certificate, calls,
                at_once, env={**os.environ, "XDG_DATA_HOME": str(home or fresh)}))

    def bare(self, protocol, calls, at_once, *thread, wrapper=(), certificates=None):
        return json.loads(run(*wrapper, self.programs / "bare", self.ports[protocol],
                              certificates or self.certificate, calls, at_once, *thread))

    def instructions(self, program, few, many, rounds=3, **options):
        """Of one call, as the slope between few calls and many."""
        def count(calls):
            counted = self.folder / "callgrind"
            # The same code of OpenSSL's on every machine.
            wrapper = ("env", "OPENSSL_ia32cap=~0x1000000000000000:0", "valgrind", "--tool=callgrind", "-q",
                       "--callgrind-out-file=%s" % counted)
            program(calls=calls, wrapper=wrapper, **options)
            return int(re.search(r"^(?:summary|totals): (\d+)", counted.read_text(), re.M)[1])

        return statistics.median((count(many) - count(few)) / (many - few) for _ in range(rounds))


def alternating(*measure, rounds=ROUNDS):
    """The medians of what each gives, measured in turn."""
    results = [[] for _ in measure]
    for _ in range(rounds):
        for each, values in zip(measure, results):
            values.append(each())
    return [statistics.median(values) for values in results]


class Report:
    def __init__(self):
        self.figures = {}

    def add(self, name, value, unit, limit=None):
        figure = {"value": value, "unit": unit}
        line = "%s: %.4g %s" % (name, value, unit)
        if limit is not None:
            figure.update(limit=limit, ratio=value / limit)
            line += " (limit %.4g %s, ratio %.3f)" % (limit, unit, value / limit)
        self.figures[name] = figure
        print(line, flush=True)


def count_instructions(bench, report, beside_bare=True):
    for protocol in PROTOCOLS:
        own, limit = (
            bench.instructions(program, 100, 1100, protocol=protocol, at_once=1) if program else None
            for program in (bench.library, beside_bare and bench.bare))
        report.add("instructions per creation, %s" % protocol, own, "instructions", limit)


def wire(bench, report):
    for protocol in PROTOCOLS:
        def own(field, calls, at_once):
            return lambda: bench.library(protocol, calls, at_once)[field] / calls

        def limit(calls, at_once, *thread):
            return lambda: bench.bare(protocol, calls, at_once, *thread)["seconds"] / calls

        ours, theirs = alternating(own("seconds", 6000, 64), limit(6000, 64))
        report.add("requests per second, 64 at once, %s" % protocol, 1 / ours, "1/s", 1 / theirs)
        ours, theirs = alternating(own("seconds", 3000, 1), limit(3000, 1, "thread"))
        report.add("latency, one after another, %s" % protocol, ours * 1e6, "µs", theirs * 1e6)
        (work,) = alternating(own("work", 3000, 64))
        report.add("main thread's work per creation, %s" % protocol, work * 1e6, "µs")


def in_flight(bench, report):
    for protocol in PROTOCOLS:
        before = bench.connections()
        result = bench.library(protocol, 10000, 10000)
        opened = bench.connections() - before - 1  # the one that asks
        report.add("memory per call, 10,000 at once, %s" % protocol,
                   (result["peak"] - result["before"]) / 10000, "KiB")
        report.add("connections, 10,000 at once, %s" % protocol, opened, "connections")
        one = bench.instructions(bench.library, 500, 1500, 1, protocol=protocol, at_once=1)
        many = bench.instructions(bench.library, 5000, 10000, 1, protocol=protocol, at_once=10000)
        report.add("instructions per creation, 10,000 at once, against one, %s" % protocol,
                   many, "instructions", one)


def start_up(bench, report):
    def elapsed(action):
        def measure():
            start = time.perf_counter()
            action()
            return time.perf_counter() - start
        return measure

    ours, theirs = alternating(
        elapsed(lambda: bench.library("HTTP/2", 0, 1)),
        elapsed(lambda: bench.bare("HTTP/2", 0, 1, certificates=bench.trusted)), rounds=25)
    report.add("fresh process to the identifier", ours * 1e3, "ms", theirs * 1e3)

    home = bench.folder / "home"
    bench.library("HTTP/2", 0, 1, home=home)
    (initialize,) = alternating(
        lambda: bench.library("HTTP/2", 0, 1, home=home)["initialize"], rounds=25)
    report.add("initialize, identifier stored", initialize * 1e6, "µs")

    counted = bench.folder / "callgrind"
    bench.library("HTTP/2", 0, 1, home=home, wrapper=(
        "valgrind", "--tool=callgrind", "-q", "--callgrind-out-file=%s" % counted,
        "--toggle-collect=quorva::Quorva::initialize*"))
    objects = run("callgrind_annotate", "--threshold=100", "--show-percs=no", counted)
    own = sum(int(match[1].replace(",", "")) for match in
              re.finditer(r"^\s*([\d,]+)\s.*\[[^\]]*libQuorvaSDK[^\]]*\]$", objects, re.M))
    report.add("initialize, the library's own part", own, "instructions")

    library = (bench.programs / "unused_quorva",)
    limit = (bench.programs / "unused_curl",)
    ours, theirs = alternating(elapsed(lambda: run(*library)), elapsed(lambda: run(*limit)), rounds=101)
    report.add("start of a program that never uses it", ours * 1e3, "ms", theirs * 1e3)

    def calls_after_loading(program):
        trace = bench.folder / "trace"
        run("strace", "-f", "-o", trace, *program)
        lines = trace.read_text().splitlines()
        loaded = max(i for i, line in enumerate(lines) if "munmap(" in line)  # the loader's cache
        return len(lines) - loaded, sum("clone" in line.split("(")[0] for line in lines)
    calls, threads = calls_after_loading(library)
    report.add("system calls beyond loading, never used",
               calls - calls_after_loading(limit)[0], "calls")
    report.add("threads, never used", threads, "threads")


def size(bench, report):
    library = bench.programs.parent / "QuorvaSDK" / "libQuorvaSDK.so"
    stripped = bench.folder / "stripped.so"
    run("strip", "-o", stripped, library)
    report.add("shared library, stripped", stripped.stat().st_size / 1000, "KB")


def coding(bench, report):
    results = json.loads(run(bench.programs / "coding", "--benchmark_format=json",
                             "--benchmark_repetitions=5", stderr=subprocess.DEVNULL))
    for each in results["benchmarks"]:
        if each.get("aggregate_name") == "median":
            name = each["run_name"]
            report.add(name, each["cpu_time"], "ns")
            report.add(name + ", allocations", each["allocations"], "allocations")


def plot(bench):
    import matplotlib
    matplotlib.use("svg")
    from matplotlib import pyplot

    counts = (1, 2, 4, 8, 16, 64, 256, 1000, 10000)
    figure, (speed, memory) = pyplot.subplots(1, 2, figsize=(9, 3.4), layout="constrained")
    for protocol in PROTOCOLS:
        ours, bare, peaks = [], [], []
        for count in counts:
            calls = max(3000, count)
            results = [bench.library(protocol, calls, count) for _ in range(3)]
            ours.append(calls / statistics.median(each["seconds"] for each in results))
            peaks.append(statistics.median(each["peak"] - each["before"] for each in results) / 1024)
            bare.append(calls / statistics.median(
                bench.bare(protocol, calls, count)["seconds"] for _ in range(3)))
        speed.plot(counts, ours, "o-", label=protocol)
        speed.plot(counts, bare, ":", color=speed.lines[-1].get_color(), label="bare libcurl, " + protocol)
        memory.plot(counts, peaks, "o-", label=protocol)
    speed.set(xscale="log", ylim=(0, None), xlabel="calls in flight", title="Creations per second")
    memory.set(xscale="log", yscale="log", xlabel="calls in flight", title="Memory above idle, MiB")
    speed.legend(fontsize="small")
    memory.legend(fontsize="small")
    figure.savefig(bench.programs.parent / "in-flight.svg")


def main(programs, mode="all"):
    if mode not in ("all", "check", "keep"):
        sys.exit(__doc__)
    resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))
    programs = Path(programs).resolve()
    report = Report()
    with tempfile.TemporaryDirectory() as folder, Bench(programs, folder) as bench:
        if mode == "all":
            for measure in (count_instructions, wire, in_flight, start_up, size, coding):
                measure(bench, report)
            plot(bench)
            (programs.parent / "figures.json").write_text(json.dumps(report.figures, indent=1) + "\n")
            return
        count_instructions(bench, report, beside_bare=False)
    counts = {name: figure["value"] for name, figure in report.figures.items()}
    if mode == "keep":
        KEPT.write_text(json.dumps(counts, indent=1) + "\n")
        return
    for name, kept in json.loads(KEPT.read_text()).items():
        if counts[name] > 1.05 * kept:
            sys.exit("bench: %s: %d, more than 5 %% above the %d that are kept in %s"
                     % (name, counts[name], kept, KEPT.name))


main(*sys.argv[1:])
