"""Runs the benchmarks that bench/report has built, and makes docs/benchmarks.md and its charts of their figures.

A program prints each figure once in each round; the figures of one round are those that came at the same turn, and
every ratio is taken between two of them before the median is."""

import argparse
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys
import time

import svg

SOURCE = pathlib.Path(__file__).resolve().parent.parent
BIN = SOURCE / "build/bench/bin"
CHARTS = SOURCE / "docs/benchmarks"

ONE_CORE, ALL_CORES = "one-core", "all-cores"
DAEMON, ECHO, FAIR, READER = "daemon", "echo", "fair limit", "read and send"
PEER, BUS = "sd-bus, peer to peer", "dbus-daemon"
SUBJECTS = [DAEMON, ECHO, FAIR, READER, PEER, BUS]

# What each section runs: the command, and its arguments in a whole and in a quick report.
PROGRAMS = {
    ONE_CORE: ("taskset -c 0 {bin}/trips trips", "11 150", "3 50"),
    ALL_CORES: ("{bin}/trips trips", "11 150", "3 50"),
    "growth": ("taskset -c 0 {bin}/trips growth", "7 150", "3 40"),
    "codec": ("{bin}/codec_bench", "11 100", "3 40"),
    "log": ("{bin}/log_bench", "11 20000", "3 5000"),
    "b64": ("{bin}/b64_bench", "9 30", "3 10"),
    "pem": ("{bin}/pem_bench", "9 60", "3 20"),
    "start": ("{bin}/start_bench", "21", "5"),
    "ark": ("{bin}/ark_bench", "7 1000 10000 100000 1000000", "3 1000 10000 100000"),
    "sim": ("{bin}/sim_load", "5 10000", "3 1000"),
}


class Figures:
    """What one section's program printed: for each row, subject and unit a value a round."""

    def __init__(self, text):
        self.values = {}
        for line in text.splitlines():
            figure = json.loads(line)
            self.values.setdefault((figure["row"], figure["what"], figure["unit"]), []).append(figure["value"])
        rounds = {len(values) for values in self.values.values()}
        if len(rounds) != 1:
            sys.exit(f"report: figures are missing in some rounds: {sorted(rounds)}")
        self.rounds = rounds.pop()

    def has(self, row, what, unit):
        return (row, what, unit) in self.values

    def of(self, row, what, unit):
        return self.values[row, what, unit]

    def ratio(self, row, unit, what, peer, peer_row=None):
        return [a / b for a, b in zip(self.of(row, what, unit), self.of(peer_row or row, peer, unit))]

    def rows(self):
        return list(dict.fromkeys(row for row, _, _ in self.values))


def short(value):
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def spread(values, scale=1.0):
    scaled = [value / scale for value in values]
    return f"{short(statistics.median(scaled))} ({short(min(scaled))} to {short(max(scaled))})"


def summary(values, scale=1.0):
    scaled = [value / scale for value in values]
    return statistics.median(scaled), min(scaled), max(scaled)


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


class Report:
    def __init__(self, figures, with_charts):
        self.figures = figures
        self.with_charts = with_charts

    def chart(self, name, text):
        if not self.with_charts:
            return ""
        CHARTS.mkdir(exist_ok=True)
        (CHARTS / f"{name}.svg").write_text(text)
        return f"\n![{name}](benchmarks/{name}.svg)\n"

    # ---- aims ---------------------------------------------------------------------------------------------

    def aims(self):
        """(what, values a round, the bound as text, whether a median keeps it)."""
        most = lambda bound, unit="": (f"at most {bound:g}{unit}", lambda value: value <= bound)
        least = lambda bound, unit="": (f"at least {bound:,g}{unit}" if bound < 1e4 else f"at least {bound:,}{unit}",
                                        lambda value: value >= bound)
        more = lambda bound: (f"more than {bound:g}", lambda value: value > bound)
        result = []

        def aim(section, what, values, bound):
            if section in self.figures:
                figures = self.figures[section]
                result.append((what, values(figures), *bound))

        for cores in (ONE_CORE, ALL_CORES):
            def trip(what, values, bound):
                aim(cores, f"{what}, {self.words(cores)}", values, bound)
            one, eight, p50, rate = "64 bytes, 1 client", "64 bytes, 8 clients", "us, p50", "requests/s"
            if cores == ONE_CORE:  # on all cores one client's time depends on the scheduler's choice of a core
                trip("64 bytes, 1 client: p50 / fair limit", lambda f: f.ratio(one, p50, DAEMON, FAIR), most(1.15))
                trip("64 bytes, 1 client: p50 / echo", lambda f: f.ratio(one, p50, DAEMON, ECHO), most(2.1))
                trip("none stored, 1 client: p50, us", lambda f: f.of("none stored, 1 client", DAEMON, p50), most(10))
            trip("64 bytes, 1 client: dbus-daemon's p50 / p50", lambda f: f.ratio(one, p50, BUS, DAEMON), least(2))
            trip("64 bytes, 8 clients: requests/s / echo", lambda f: f.ratio(eight, rate, DAEMON, ECHO), least(0.5))
            trip("64 bytes, 8 clients: requests/s / dbus-daemon", lambda f: f.ratio(eight, rate, DAEMON, BUS), more(1))
            trip("64 bytes, pipelined: requests/s", lambda f: f.of("64 bytes, pipelined", DAEMON, rate), least(90000))
            trip("1 MiB, 1 client: p50 / read and send", lambda f: f.ratio("1 MiB, 1 client", p50, DAEMON, READER), most(1.5))
        for mebibytes in (4, 16):
            row = f"images {mebibytes << 20}"
            aim("growth", f"{mebibytes} MiB, 1 client: p50 / read and send",
                lambda f: f.ratio(row, "us, p50", DAEMON, READER), most(1.25))
        ours = "binary property list"
        aim("codec", "binary decode and free / RapidJSON's parse",
            lambda f: f.ratio("decode and free", "us", ours, "RapidJSON"), most(0.8))
        aim("codec", "binary encode / RapidJSON's write", lambda f: f.ratio("encode", "us", ours, "RapidJSON"), most(1))
        aim("codec", "XML to values / bare Expat scan",
            lambda f: f.ratio("XML", "us", "XML property list", "Expat, a bare scan"), most(1.5))
        aim("log", "a log line / spdlog, flushed", lambda f: f.ratio("log line", "us", "cv_log", "spdlog, flushed"), most(2.5))
        for what, unit_row, peer, bound in (("encode", "encode, 1 MiB", "EVP_EncodeBlock", 5),
                                            ("decode", "decode, 1 MiB", "EVP_DecodeBlock", 5),
                                            ("decode of 64 columns", "decode of 64 columns, 1 MiB", "EVP_DecodeUpdate", 15)):
            aim("b64", f"Base64 {what} at 1 MiB: speed / {peer}",
                lambda f: f.ratio(unit_row, "octets/ns", "b64_" + what[:6], peer), least(bound))
        for what in ("encode", "decode", "decode of 64 columns"):
            aim("b64", f"Base64 {what} of 48 B: speed / plain loop",
                lambda f: f.ratio(f"{what}, 48 B", "octets/ns", "b64_" + what[:6], "plain loop"), least(1))
        aim("start", "exec to the first answer, ms", lambda f: f.of("start", DAEMON, "ms"), most(5))
        for place, most_private in (("no bus", 1638), ("on a bus", 2048)):
            what = f"daemon on Linux, {place}"
            aim("start", f"{what}: exec to the first answer, ms", lambda f: f.of("start", what, "ms"), most(5))
            aim("start", f"{what}: private memory when idle, KiB",
                lambda f: f.of("memory", what, "KiB private"), most(most_private))
        for what, peer, bound in self.ark_aims():
            aim("ark", f"ark at 10^5: {what} / {peer}", lambda f: f.ratio("100000", "ns", what, peer), most(bound))
        aim("ark", "ark at 10^5: set dirtying - log line, ns",
            lambda f: [a - b for a, b in zip(f.of("100000", "set dirtying", "ns"), f.of("100000", "log line", "ns"))],
            most(1000))
        return result

    @staticmethod
    def ark_aims():
        return [("get", "LMDB get", 0.5), ("set equal", "map update", 2), ("set new", "map insert", 3),
                ("domain copy", "LMDB scan", 1.5), ("load", "SQLite WAL load into a map", 0.35),
                ("store", "write and rename", 3)]

    def aims_section(self):
        rows = [[what, text, spread(values), str(len(values)),
                 "reached" if keeps(statistics.median(values)) else "**not reached**"]
                for what, values, text, keeps in self.aims()]
        return "## Aims\n\nWhat was aimed at, and whether the median reached it.\n\n" + table(
            ["", "aim", "measured", "rounds", ""], rows)

    @staticmethod
    def words(section):
        return section.replace("-", " ")

    # ---- sections -----------------------------------------------------------------------------------------

    def trips_section(self):
        text = """## Round trips

The release daemon on the simulated device, below a root of its own in /tmp, asked for its regulatory images over its
public socket; it opens and reads their file for every request. "None stored": there is no file, and each such request
writes four lines to the log, one of which also goes to the system log where there is one. Beside it, each in a process
of its own:

- **echo**: a bare epoll loop on a local stream socket that takes as many bytes and answers as many as the daemon does
- **read and send**: the same, but it opens and reads the daemon's file for each request and sends that
- **fair limit**: the same with every call on the file that the daemon makes for a request: open, readlink, fstat twice,
  read, close. What a request takes beyond that is the daemon's own work
- **sd-bus, peer to peer**: a method that takes a string and returns as many bytes, over a local socket
- **dbus-daemon**: the same method through a dbus-daemon of our own, with the limits of a session's

The clients are the same for all that take bytes: threads with a socket each, which send a request that was made
beforehand, wait with poll(2), as the client library does, and count the bytes of the answer; those of sd-bus make a
message and call. So what is measured is the server, three system calls of the client's, and the switches between them.
Pipelined means one client with 32 to 64 requests under way. "One core" pins all processes to one; "all cores" leaves it
to the scheduler, which for one client wavers between waking the other side on the same core and on another: that is
what the wide ranges there show.

"""
        for cores in (ONE_CORE, ALL_CORES):
            if cores not in self.figures:
                continue
            figures = self.figures[cores]
            text += f"### On {self.words(cores)}\n\nEach figure was taken once in each of {figures.rounds} rounds; " \
                    "median (lowest to highest). Times in microseconds.\n\n"
            for images in ("64 bytes", "none stored", "1 MiB"):
                text += self.trips_table(figures, images) + "\n"
            text += self.trips_chart(figures, f"trips-{cores}-p50", f"A round trip's p50, one client, {self.words(cores)}", "us",
                                     "1 client", "us, p50")
            text += self.trips_chart(figures, f"trips-{cores}-throughput", f"Throughput, eight clients, {self.words(cores)}",
                                     "requests/s", "8 clients", "requests/s") + "\n"
        return text

    @staticmethod
    def trips_table(figures, images):
        rows = []
        for subject in SUBJECTS:
            row = [subject]
            for clients in ("1 client", "8 clients"):
                for unit in ("us, p50", "us, p99", "requests/s"):
                    key = (f"{images}, {clients}", subject, unit)
                    row.append(spread(figures.of(*key)) if figures.has(*key) else "")
            key = (f"{images}, pipelined", subject, "requests/s")
            if figures.has(f"{images}, pipelined", DAEMON, "requests/s"):
                row.append(spread(figures.of(*key)) if figures.has(*key) else "")
            if any(row[1:]):
                rows.append(row)
        for peer in (ECHO, FAIR):
            if figures.has(f"{images}, 1 client", peer, "us, p50"):
                row = [f"daemon / {peer}"]
                for clients in ("1 client", "8 clients"):
                    for unit in ("us, p50", "us, p99", "requests/s"):
                        row.append(spread(figures.ratio(f"{images}, {clients}", unit, DAEMON, peer)))
                if figures.has(f"{images}, pipelined", DAEMON, "requests/s"):
                    row.append(spread(figures.ratio(f"{images}, pipelined", "requests/s", DAEMON, peer)))
                rows.append(row)
        head = [images, "1 client: p50", "p99", "requests/s", "8 clients: p50", "p99", "requests/s", "pipelined: requests/s"]
        return table(head[:len(rows[0])], rows)

    def trips_chart(self, figures, name, title, unit, clients, figure_unit):
        groups = []
        for images in ("64 bytes", "none stored", "1 MiB"):
            row = f"{images}, {clients}"
            groups.append((images, [(subject, *summary(figures.of(row, subject, figure_unit)))
                                    for subject in SUBJECTS if figures.has(row, subject, figure_unit)]))
        return self.chart(name, svg.bars(title, unit, groups))

    def codec_section(self):
        figures = self.figures["codec"]
        size = lambda what, unit="bytes": f"{figures.of('document', what, unit)[0]:,.0f}"
        text = f"""## The codec

The same document of {size("nodes", "count")} nodes for everyone: an array of records with eight keys, whose values are texts, most
of them different, integers of all sizes, reals, Booleans and arrays. It has {size("binary property list")} bytes as a binary
property list, {size("XML property list")} as XML, {size("JSON")} as JSON and {size("MessagePack")} as MessagePack. Decoding is measured until the
tree stands, and until it is freed again; encoding starts from the tree and ends with the bytes in memory. The binary
property list writes each equal text and number once; JSON and MessagePack write them again each time. All readers check
what they read against its format, ours also against every bound in [limits.md](limits.md). The bare scan is Expat with three handlers that do nothing.
{figures.rounds} rounds; median (lowest to highest), in microseconds.

"""
        rows, groups = [], []
        for row in figures.rows()[1:]:
            subjects = [what for r, what, unit in figures.values if r == row]
            peers = subjects[1:]
            for what in subjects:
                ratio = "" if what == subjects[0] else spread(figures.ratio(row, "us", subjects[0], what))
                rows.append([row, what, spread(figures.of(row, what, "us")), ratio])
            if peers:
                groups.append((row, [(what, *summary(figures.of(row, what, "us"))) for what in subjects]))
        text += table(["", "", "us", "ours / theirs"], rows)
        return text + self.chart("codec", svg.bars("The codec, one document of about 40,000 nodes", "us", groups)) + "\n"

    def log_section(self):
        figures = self.figures["log"]
        rows = [[what, spread(figures.of(row, what, unit)),
                 "" if what == "cv_log" else spread(figures.ratio(row, unit, "cv_log", what))]
                for row, what, unit in figures.values]
        return f"""## The log

A line through `cv_log` and the real logger, to its rotating file; through spdlog's rotating file sink with a flush
after each line, of the same 65,536 bytes; and the work of syslog(3), which formats a line and sends it to a datagram
socket that another process reads (a private one, so as not to fill the journal of the machine). {figures.rounds} rounds; median
(lowest to highest).

""" + table(["", "us", "cv_log / it"], rows) + "\n"

    def b64_section(self):
        figures = self.figures["b64"]
        sizes = {"48 B": 48, "1 KiB": 1 << 10, "64 KiB": 1 << 16, "1 MiB": 1 << 20, "16 MiB": 1 << 24}
        text = f"""## Base64

Between buffers that are there, in octets of the decoded side a nanosecond (which is GB/s); more is better. The plain
loop is what one would write without thinking of speed; memcpy moves the decoded octets. Of 64 columns: with a line feed
after every 64 characters. {figures.rounds} rounds; median (lowest to highest).

"""
        for operation in ("encode", "decode", "decode of 64 columns"):
            subjects = [what for row, what, _ in figures.values if row == f"{operation}, 48 B"]
            rows = [[what] + [spread(figures.of(f"{operation}, {size}", what, "octets/ns")) for size in sizes]
                    for what in subjects]
            for peer in subjects[1:]:
                rows.append([f"ours / {peer}"] + [
                    spread(figures.ratio(f"{operation}, {size}", "octets/ns", subjects[0], peer)) for size in sizes])
            text += table([operation] + list(sizes), rows) + "\n"
            series = [(what, [(count, *summary(figures.of(f"{operation}, {size}", what, "octets/ns")))
                              for size, count in sizes.items()]) for what in subjects]
            name = "b64-" + operation.replace(" ", "-")
            text += self.chart(name, svg.lines(f"Base64, {operation}", "octets", "octets/ns", series)) + "\n"
        return text

    def pem_section(self):
        figures = self.figures["pem"]
        rows = [[row, spread(figures.of(row, "lockcrypto", "us")), spread(figures.of(row, "OpenSSL", "us")),
                 spread(figures.ratio(row, "us", "lockcrypto", "OpenSSL"))] for row in figures.rows()]
        return f"""## PEM

`lockcrypto_create_pem` and `lockcrypto_decode_pem` beside OpenSSL's PEM_write_bio and PEM_read_bio on a memory buffer,
with the memory of text and bytes made and freed each time; ours is wiped before that.
{figures.rounds} rounds; median (lowest to highest), in microseconds.

""" + table(["", "ours", "OpenSSL", "ours / OpenSSL"], rows) + "\n"

    def start_section(self):
        figures = self.figures["start"]
        subjects = list(dict.fromkeys(what for _, what, _ in figures.values))
        rows = [[what, spread(figures.of("start", what, "ms"))] +
                [spread(figures.of("memory", what, f"KiB {kind}"))
                 for kind in ("resident", "private", "written", "executable")] for what in subjects]
        skipped = "" if "systemd-hostnamed" in subjects else \
            "systemd-hostnamed is not installed here and was left out.\n\n"
        charts = [("start", "From exec to the first answer", "ms", "start", "ms"),
                  ("memory", "Private memory, idle", "KiB", "memory", "KiB private")]
        text = f"""## Start and memory

From exec to the first answer that a client got, which tried again every 50 us until it was served: the daemon's images,
dbus-daemon's and systemd-hostnamed's reply to a ping (the latter over a bus that was there), the byte that an empty C++
program writes. "daemon" alone is on the simulated device. Memory is what /proc/PID/smaps says 50 ms later. Private are
the pages that no other process has mapped at that moment, so a library counts for whoever has it to itself: here the
measuring program uses the C++ library as well, and on a machine with nobody else all of a program's libraries would be
its own. What was written to, and its own executable, are private in any company. {figures.rounds} rounds; median (lowest to highest).

{skipped}""" + table(["", "first answer, ms", "resident, KiB", "private, KiB", "of it written, KiB",
                            "of it the executable, KiB"], rows)
        for name, title, unit, row, figure_unit in charts:
            groups = [("", [(what, *summary(figures.of(row, what, figure_unit))) for what in subjects])]
            text += self.chart(name, svg.bars(title, unit, groups))
        return text + "\n"

    def growth_section(self):
        text = "## Growth\n\n"
        if "growth" in self.figures:
            figures = self.figures["growth"]
            text += f"""A round trip of one client on one core, by the size of the stored images, and with requests that go over many
connections in turn (images of 1 KiB). {figures.rounds} rounds; median (lowest to highest) of p50, in microseconds.

"""
            for kind, label, subjects in (("images", "bytes of images", [DAEMON, ECHO, FAIR, READER]),
                                          ("connections", "connections", [DAEMON, ECHO])):
                rows = [row for row in figures.rows() if row.startswith(kind + " ")]
                text += table([label] + subjects + [f"daemon / {peer}" for peer in subjects[1:]], [
                    [f"{int(row.split()[1]):,}"] + [spread(figures.of(row, what, "us, p50")) for what in subjects] +
                    [spread(figures.ratio(row, "us, p50", DAEMON, peer)) for peer in subjects[1:]]
                    for row in rows]) + "\n"
                series = [(what, [(int(row.split()[1]), *summary(figures.of(row, what, "us, p50"))) for row in rows])
                          for what in subjects]
                text += self.chart(f"growth-{kind}", svg.lines(f"A round trip by {label}", label, "us, p50", series)) + "\n"
        if "ark" in self.figures:
            figures = self.figures["ark"]
            series = [(what, [(int(row), *summary(figures.of(row, what, "ns"))) for row in figures.rows()])
                      for what in ("get", "set equal", "set changed, attribute 1", "set new", "domain copy")]
            text += self.chart("growth-ark", svg.lines("The ark's operations by its entries", "entries", "ns", series)) + "\n"
            series = [(what, [(int(row), *summary(figures.of(row, what, "ns"), 1e6)) for row in figures.rows()])
                      for what in ("load", "store")]
            text += self.chart("growth-ark-files", svg.lines("The ark's load and store by its entries", "entries", "ms", series))
        return text + "\n"

    def ark_section(self):
        figures = self.figures["ark"]
        sizes = figures.rows()
        aims = {(what, peer): bound for what, peer, bound in self.ark_aims()}
        pairs = [("get", "map get"), ("get", "LMDB get"), ("get", "SQLite WAL get"), ("get", "SQLite rollback get"),
                 ("set equal", "map update"), ("set new", "map insert"),
                 ("set changed, attribute 1", "LMDB put, one transaction"),
                 ("set changed, attribute 1", "SQLite WAL put, one transaction"),
                 ("set changed, attribute 1", "SQLite rollback put, one transaction"), ("set dirtying", "log line"),
                 ("domain copy", "LMDB scan"), ("domain copy", "SQLite WAL range"),
                 ("load", "SQLite WAL load into a map"), ("load", "read"), ("store", "write and rename")]
        ratios = [[f"{what} / {peer}"] + [spread(figures.ratio(size, "ns", what, peer)) for size in sizes] +
                  [f"{aims[what, peer]:g}" if (what, peer) in aims else ""] for what, peer in pairs]
        ours = ["get", "set equal", "set changed, attribute 1", "set dirtying", "log line", "set new", "domain copy",
                "load", "store"]
        times = [[what] + [spread(figures.of(size, what, "ns")) for size in sizes] for what in ours]
        names = ["10^" + str(len(size) - 1) for size in sizes]
        return f"""## The data ark

Everyone is asked for a domain and a key and composes what it looks up; domains have 100 keys. LMDB runs with MDB_NOSYNC
and a read transaction for each question, SQLite with prepared statements; writes of both are gathered in one
transaction. Ratios, below 1 the ark is the faster. {figures.rounds} rounds; median (lowest to highest).

""" + table(["entries"] + names + ["aim at 10^5"], ratios) + "\nIts own times in nanoseconds:\n\n" + \
            table(["entries"] + names, times) + "\n"

    def sim_section(self):
        figures = self.figures["sim"]
        changes = figures.of("SIM changes", DAEMON, "changes")[0]
        rows = [[unit, spread(values)] for (_, _, unit), values in figures.values.items() if unit != "changes"]
        return f"""## Under load

The real daemon while a simulated phone's SIM is changed {int(changes):,} times and eight clients ask for the regulatory
images without a pause. Every request was answered with images, and the ark ended with the last SIM each time, or there
would be no figures. {figures.rounds} rounds, a fresh daemon each; median (lowest to highest).

""" + table(["a client's wait, and rates", ""], rows) + "\n"

    def text(self):
        parts = [self.aims_section()]
        if ONE_CORE in self.figures or ALL_CORES in self.figures:
            parts.append(self.trips_section())
        for name, section in (("codec", self.codec_section), ("log", self.log_section),
                              ("b64", self.b64_section), ("pem", self.pem_section),
                              ("start", self.start_section), ("ark", self.ark_section), ("sim", self.sim_section)):
            if name in self.figures:
                parts.append(section())
        if "growth" in self.figures or "ark" in self.figures:
            parts.append(self.growth_section())
        return "\n".join(part.rstrip() + "\n" for part in parts)


def introduction(seconds, load_before):
    model = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")),
                 platform.machine())
    compiler = subprocess.run(["g++", "-dumpfullversion"], capture_output=True, text=True, check=True).stdout.strip()
    return f"""# Benchmarks

`bench/report` made this page: it installs what the peers need, builds everything as `./run` does (-O2), runs it side by
side in rounds, and writes the tables and charts. It took {seconds / 60:.0f} minutes. `bench/report SECTION...` prints sections
instead, of {", ".join(f"`{name}`" for name in PROGRAMS)}; `--quick` shortens the rounds.

A figure is the median over the rounds, and in brackets the lowest and the highest. Ratios are taken inside a round,
between two things that were measured within a second or two, because machines are noisy. The whiskers of the charts,
which have logarithmic scales, go from the lowest to the highest.

Measured on {time.strftime("%Y-%m-%d")}: {model}, {os.cpu_count()} cores, a {platform.system()} {platform.release()} machine; g++ {compiler}. The load
average before the run was {load_before:.2f}; the run itself keeps them busy.

"""


def run(section, quick):
    command, whole, short_run = PROGRAMS[section]
    arguments = command.format(bin=BIN).split() + (short_run if quick else whole).split()
    print(f"report: {section}", file=sys.stderr)
    done = subprocess.run(arguments, stdout=subprocess.PIPE, text=True)
    if done.returncode != 0:
        sys.exit(f"report: {' '.join(arguments)} ended with status {done.returncode}")
    return Figures(done.stdout)


def main():
    parser = argparse.ArgumentParser(prog="bench/report")
    parser.add_argument("--quick", action="store_true", help="short rounds; the tables go to standard output")
    parser.add_argument("sections", nargs="*", metavar="SECTION", help=", ".join(PROGRAMS))
    options = parser.parse_args()
    sections = options.sections or list(PROGRAMS)
    for section in sections:
        if section not in PROGRAMS:
            parser.error(f"there is no section {section}")
    writes = not options.quick and not options.sections
    load_before = os.getloadavg()[0]
    start = time.monotonic()
    report = Report({section: run(section, options.quick) for section in sections}, writes)
    text = report.text()
    if not writes:
        print(text)
        return
    remarks = (SOURCE / "bench/remarks.md").read_text()
    (SOURCE / "docs/benchmarks.md").write_text(introduction(time.monotonic() - start, load_before) + text + "\n" + remarks)


main()
