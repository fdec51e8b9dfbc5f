#!/usr/bin/env python3
"""Records hustctl sessions against hust-sim (with its faults) and turns the traffic into seeds.

Each session runs hust-sim with --log on a pseudo-terminal and hustctl on a second one; this
script relays the bytes between the two, recording every read in each direction as it arrived,
so the seeds carry the line's real chunking. The recordings become the inputs of the targets in
their own encodings (see the writers below) under fuzz/corpus/<target>/; the simulator's frame
logs go beside them as the parser's seeds.

Usage: fuzz/record-seeds.py BUILD_DIR   (BUILD_DIR holds bin/hust-sim and bin/hustctl)
"""
import hashlib
import json
import os
import pty
import select
import subprocess
import sys
import tempfile
import time
import tty

HERE = os.path.dirname(os.path.abspath(__file__))
DC2, DC4 = b"\x12", b"\x14"

PROGRAM = b"%\nO0001\nG00 X10. Y20.\nG01 Z-1. F100\n\nM30\n"

# (name, hust-sim options, hustctl arguments)
SESSIONS = [
    ("read", ["--set", "100=7", "--set", "101=0xFFFFFFFF"], ["read", "DW100", "-c", "4"]),
    ("read-cut", ["--cut", "0.3", "--repeat-h", "3"], ["read", "DW1", "-c", "10"]),
    ("watch-faults", ["--garbage", "0.3:12", "--short-values", "0.3"],
     ["watch", "DW100", "DW101", "I5:bit", "B10.3", "C32:word", "-n", "15", "-l", "50"]),
    ("watch-wide", ["--set", "10816=0x5A5A5A5A"],
     ["watch"] + ["DW%d" % (300 + 7 * i) for i in range(30)] + ["-n", "5", "-l", "50"]),
    ("write", [], ["write", "DW200", "7", "8", "-t", "dword"]),
    ("write-bit", [], ["write", "B10.3", "1", "-t", "bit"]),
    ("gcode-get", ["--programs", "@PROGRAMS", "--cut", "0.2"], ["gcode", "get"]),
    ("gcode-get-all", ["--programs", "@PROGRAMS", "--garbage", "0.5:20"],
     ["gcode", "get", "--all"]),
    ("gcode-put", [], ["gcode", "put", "@PROGRAM", "--burn"]),
]


def relay(sim_args, ctl_args, bin_dir, work):
    """Runs one session; returns the simulator's frame log and [(direction, bytes)]."""
    log = os.path.join(work, "frames.jsonl")
    sim = subprocess.Popen([os.path.join(bin_dir, "hust-sim"), "--speed", "4", "--log", log]
                           + sim_args, stdout=subprocess.PIPE, text=True)
    try:
        sim_path = sim.stdout.readline().split()[1]
        sim_fd = os.open(sim_path, os.O_RDWR | os.O_NOCTTY)
        tty.setraw(sim_fd)
        master, slave = pty.openpty()
        ctl = subprocess.Popen([os.path.join(bin_dir, "hustctl"), "-p", os.ttyname(slave),
                                "--timeout", "3000"] + ctl_args,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        events = []
        quiet_since = None
        while True:
            ready, _, _ = select.select([master, sim_fd], [], [], 0.05)
            for fd in ready:
                data = os.read(fd, 4096)
                if fd == master:
                    os.write(sim_fd, data)
                    events.append(("tx", data))
                else:
                    os.write(master, data)
                    events.append(("rx", data))
            if ctl.poll() is not None:
                quiet_since = quiet_since or time.monotonic()
                if not ready and time.monotonic() - quiet_since > 0.2:
                    break
        for fd in (master, slave, sim_fd):
            os.close(fd)
    finally:
        sim.terminate()
        sim.wait()
    with open(log, "rb") as f:
        frames = [json.loads(line) for line in f if line.strip()]
    return frames, events


def script(groups):
    """The port script encoding: a length byte and the bytes per read, 255 between groups."""
    out = bytearray()
    for i, group in enumerate(groups):
        if i:
            out.append(255)
        for chunk in group:
            for at in range(0, max(len(chunk), 1), 254):
                piece = chunk[at:at + 254]
                out.append(len(piece))
                out += piece
    return bytes(out)


def provider_input(received, sizes, excluded):
    """The TxPackage target's encoding (libFuzzer's FuzzedDataProvider: strings from the front,
    numbers from the back): received bytes, then a section list, then a check sum."""
    front = received.replace(b"\\", b"\\\\") + b"\\;"
    back = [5, 6, len(sizes)]  # in the order they are taken, so laid out reversed
    for size in sizes:
        back += [size + 12, 0]
    back += [9, 0, excluded + 4]
    return front + bytes(reversed(back))


def answer_groups(events, is_request):
    """The controller's reads after each request that is_request() picks, one group each."""
    groups = None
    for direction, data in events:
        if direction == "tx" and is_request(data):
            groups = (groups or []) + [[]]
        elif direction == "rx" and groups is not None:
            groups[-1].append(data)
    return groups or []


# The targets whose seeds this script writes; their folders are emptied before it writes them.
TARGETS = [
    "fuzz_simparser", "fuzz_gcode", "fuzz_commands", "fuzz_hustctl", "fuzz_matcher",
    "fuzz_readcycle", "fuzz_txpackage"
]


def save(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    digest = hashlib.sha1(data).hexdigest()[:8]
    with open(os.path.join(folder, "%s-%s" % (name, digest)), "wb") as f:
        f.write(data)


def write_seeds(name, args, frames, events):
    # hustctl's arguments as they came in, separated by zero bytes as in argv.
    save("fuzz_hustctl", name, b"\0".join(a.encode() for a in args))
    sent = [data for direction, data in events if direction == "tx"]
    # Parser: the panel's bytes with the first read sizes as the cut lengths, and the frame log.
    cuts = bytes(min(len(d), 256) - 1 for d in sent[:7])
    save("fuzz_simparser", name, bytes([len(cuts)]) + cuts + b"".join(sent))
    save("fuzz_simparser", name + "-log",
         b"\x00" + b"".join(bytes.fromhex(f["raw"]) for f in frames))
    # Matcher: the count of the first read request and the bytes received after it, searched
    # strictly and leniently.
    requests = [f for f in frames if f["kind"] == "read_request"]
    if requests:
        n = len(requests[0]["addresses"])
        groups = answer_groups(events, lambda d: b"O9000\rN0\r" in d)
        stream = b"".join(b"".join(g) for g in groups)[:4000]
        for form in (0, 1):
            save("fuzz_matcher", "%s-%d" % (name, form), bytes([n, form]) + stream)
        # Read cycle: the reads answering each request, as four loop cycles and as an immediate
        # read.
        reads = script([[chunk[:2000] for chunk in g] for g in groups[:4]])
        save("fuzz_readcycle", name + "-loop", bytes([n, 12]) + reads[:6000])
        save("fuzz_readcycle", name + "-immediate", bytes([n, 1]) + reads[:6000])
        # TxPackage: the first answer as received bytes, a section list laid over its frame
        # layout (a reference to the "v" record's section in place of the first value's), and
        # the check sum over all but the closing bytes.
        frame = stream[max(stream.find(DC2), 0):][:256]
        sizes = [1, 2, 6, 10, 4] + [-4 if i == 0 else 10 for i in range(min(n, 14))] + [1, 1]
        save("fuzz_txpackage", name, provider_input(frame, sizes, 2))
    # Command records: the reads and writes that put these frames on the line.
    commands = []
    for f in frames:
        if f["kind"] == "read_request" and f["addresses"]:
            first = f["addresses"][0]
            commands += ["r 3 %d DW%d" % (len(f["addresses"]), first), "r 2 1 DW%d" % first]
            commands += ["r 0 1 B%d.%d" % (a, a % 32) for a in f["addresses"][:3]]
        elif f["kind"] == "write_dword":
            commands.append("w 3 1 DW%d %s" % (f["addresses"][0],
                                                f["values"][0].to_bytes(4, "little").hex()))
        elif f["kind"] in ("bit_set", "bit_clear"):
            commands.append("w 0 1 B%d.%d %s" % (f["addresses"][0], f["bit"],
                                                 "01" if f["kind"] == "bit_set" else "00"))
    if commands:
        save("fuzz_commands", name, "\n".join(commands).encode())
    # G-code: one group of reads per program request; sends carry the program text.
    program_requests = answer_groups(events, lambda d: b"N10768\rD000003" in d
                                     and b"D000003>9" not in d)
    if program_requests:
        mode = b"\x01" if any(b"D000003?1" in d for d in sent) else b"\x00"
        save("fuzz_gcode", name, mode + script(program_requests))
    for f in frames:
        if f["kind"] == "program_data":
            save("fuzz_gcode", name + "-send", b"\x03" + f["text"].encode("latin-1"))


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    bin_dir = os.path.join(os.path.abspath(sys.argv[1]), "bin")
    for target in TARGETS:
        folder = os.path.join(HERE, "corpus", target)
        for old in os.listdir(folder) if os.path.isdir(folder) else []:
            os.remove(os.path.join(folder, old))
    with tempfile.TemporaryDirectory() as work:
        programs = os.path.join(work, "programs")
        os.mkdir(programs)
        for i, text in enumerate([PROGRAM, PROGRAM.replace(b"X10.", b"X12.5") * 3]):
            with open(os.path.join(programs, "O%04d" % (i + 1)), "wb") as f:
                f.write(text)
        places = {"@PROGRAM": os.path.join(programs, "O0001"), "@PROGRAMS": programs}
        for name, sim_args, ctl_args in SESSIONS:
            args = [places.get(a, a) for a in ctl_args]
            frames, events = relay([places.get(a, a) for a in sim_args], args, bin_dir, work)
            seed_args = [a.replace("@PROGRAM", "part.nc") for a in ctl_args]
            write_seeds(name, ["-p", "PORT", "--timeout", "3000"] + seed_args, frames, events)
            print("%s: %d frames, %d reads" % (name, len(frames), len(events)))


if __name__ == "__main__":
    main()
