#!/usr/bin/python3
"""The studio's memory under attack stays under a documented bound.

Starts `ostrel studio` on the shipped pictures, works as a person would
(trains, detects on every picture), then runs, phase by phase, the attacks
that used to fill its memory, and reads the studio's peak resident memory
(VmHWM in /proc/PID/status) after each:

  json      three 34 MB JSON bodies at once ('[' x 17 M then ']' x 17 M) to
            /api/train, three more sent in chunks without a length, and then
            40 small but deeply nested ones;
  bombs     ten uploads at once of a 39 KB PNG that unpacks to 16384 x 2441
            pixels (above the studio's picture limit);
  at-limit  ten uploads at once of PNG pictures just inside the limit (tiny
            files of 24 megapixels each), then detection on every one of
            them, which decodes each, from two clients at once;
  bodies    eight 32 MiB uploads at once (the largest file the studio takes),
            refused after reading, and sixteen downloads at once of a 32 MiB
            picture of the folder;
  all       24 clients at once, each with one of the attacks above.

A watchdog stops the studio at once should it pass 4 GiB, so that a studio
without the bounds cannot take the machine down. Prints the figures (MiB)
and exits 1 when the peak passes the bound.

Usage: memory_attacks.py OSTREL DATA_DIR [--bound-mib N]
"""
import argparse
import http.client
import os
import shutil
import struct
import sys
import tempfile
import threading
import time
import zlib
from concurrent.futures import ThreadPoolExecutor

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from studio_client import TOKEN_HEADER, Client  # noqa: E402
from studio_process import StudioProcess  # noqa: E402

# The documented bound: the studio's resident memory never passes this under
# the attacks below (docs/studio.md, "Memory").
BOUND_MIB = 700
WATCHDOG_MIB = 4096

TRAINING = "BloodImage_00000.jpg"
CELLS = [[83, 336, 97, 100], [68, 237, 97, 100], [219, 362, 97, 100], [412, 349, 97, 100],
         [153, 75, 97, 100], [9, 74, 97, 100], [538, 40, 97, 100], [386, 12, 97, 100]]


def status_kib(pid, field):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return 0


def grey_png(width, height):
    """A PNG of one grey level, built row by row: a few KB for many pixels."""
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)
    compressor = zlib.compressobj(9)
    row = b"\0" + b"\x80" * width
    parts = [compressor.compress(row) for _ in range(height)]
    parts.append(compressor.flush())
    header = struct.pack(">IIBBBBB", width, height, 8, 0, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", b"".join(parts)) + chunk(b"IEND", b""))


class Watchdog(threading.Thread):
    def __init__(self, studio):
        super().__init__(daemon=True)
        self.studio = studio
        self.tripped = False
        self.running = True

    def run(self):
        pid = self.studio.process.pid
        while self.running and self.studio.process.poll() is None:
            if status_kib(pid, "VmRSS") > WATCHDOG_MIB * 1024:
                self.tripped = True
                self.studio.kill()
                return
            time.sleep(0.02)


def at_once(count, function):
    with ThreadPoolExecutor(max_workers=count) as pool:
        return list(pool.map(function, range(count)))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("ostrel")
    parser.add_argument("data")
    parser.add_argument("--bound-mib", type=int, default=BOUND_MIB)
    args = parser.parse_args()

    work = tempfile.mkdtemp(prefix="ostrel-studio-memory-")
    folder = os.path.join(work, "pictures")
    shutil.copytree(os.path.join(args.data, "bccd", "images"), folder)
    # A listed picture of the largest file size the studio serves: a JPEG
    # with 32 MiB of padding after its end.
    with open(os.path.join(folder, TRAINING), "rb") as f:
        padded = f.read()
    with open(os.path.join(folder, "padded.jpg"), "wb") as f:
        f.write(padded + b"\0" * ((32 << 20) - len(padded) - 1024))
    studio = StudioProcess(args.ostrel, folder)
    pid = studio.process.pid
    c = Client(studio.port)
    watchdog = Watchdog(studio)
    watchdog.start()
    figures = []
    failures = []

    def measure(phase):
        if studio.process.poll() is not None:
            raise RuntimeError(f"the studio ended during '{phase}'" + (" (stopped by the watchdog at "
                               f"{WATCHDOG_MIB} MiB)" if watchdog.tripped else ""))
        figures.append((phase, status_kib(pid, "VmHWM") / 1024, status_kib(pid, "VmRSS") / 1024))

    try:
        measure("started")
        c.json("POST", "/api/train", {"picture": TRAINING, "boxes": CELLS})
        for p in c.json("GET", "/api/pictures"):
            c.json("GET", "/api/detect?picture=" + p["name"])
        measure("a person's session")

        deep = "[" * 17_000_000 + "]" * 17_000_000

        def json_attack(_):
            status, _, _ = c.request("POST", "/api/train", deep, "application/json", timeout=300)
            return status
        statuses = at_once(3, json_attack)
        if any(s < 400 or s >= 500 for s in statuses):
            failures.append(f"34 MB JSON bodies answered {statuses}")

        def chunked_json_attack(_):
            # The same body without a length, in 1 MB chunks: read no further than the limit.
            chunks = (deep[k:k + 1000000].encode() for k in range(0, len(deep), 1000000))
            connection = http.client.HTTPConnection("127.0.0.1", c.port, timeout=300)
            try:
                connection.request("POST", "/api/train", body=chunks, encode_chunked=True,
                                   headers={"Content-Type": "application/json", TOKEN_HEADER: c.token()})
                return connection.getresponse().status
            except (ConnectionError, OSError):
                return 413  # closed once the limit was passed, before the rest was sent
            finally:
                connection.close()
        statuses = at_once(3, chunked_json_attack)
        if any(s != 413 for s in statuses):
            failures.append(f"34 MB chunked JSON bodies answered {statuses}")
        nested = "[" * 30000 + "]" * 30000
        statuses = at_once(40, lambda _: c.request("POST", "/api/train", nested, "application/json", timeout=300)[0])
        if any(s != 400 for s in statuses):
            failures.append(f"deeply nested JSON answered {sorted(set(statuses))}")
        measure("json")

        bomb = grey_png(16384, 2441)
        print(f"  the bomb: a {len(bomb) / 1024:.0f} KB PNG of 16384 x 2441 pixels")
        statuses = at_once(10, lambda i: c.request("POST", f"/api/pictures?name=bomb{i}.png", bomb,
                                                   "application/octet-stream", timeout=300)[0])
        if any(s < 400 or s >= 500 for s in statuses):
            failures.append(f"uploads of 16384 x 2441 pictures answered {statuses}")
        measure("bombs")

        limit = c.json("GET", "/api/status").get("limits", {})
        megapixels = limit.get("megapixels", 24)
        side = int((megapixels * 1e6 / 1.5) ** 0.5)
        width, height = int(side * 1.5), side
        while width * height > megapixels * 1000000:
            height -= 1
        large = grey_png(width, height)
        print(f"  at the limit: {width} x {height} pixels ({width * height / 1e6:.1f} MP) in {len(large) / 1024:.0f} KB")
        names = at_once(10, lambda i: c.json("POST", f"/api/pictures?name=large{i}.png", large,
                                             "application/octet-stream", expect=201, timeout=300)["name"])
        measure("at-limit uploads")
        for _ in range(2):
            at_once(2, lambda k: [c.json("GET", "/api/detect?picture=" + n, timeout=300)
                                  for n in (names if k == 0 else reversed(names))])
        measure("at-limit detections")

        junk = b"\xff\xd8\xff" + os.urandom(1 << 20) * 31 + b"\0" * ((1 << 20) - 3)
        statuses = at_once(8, lambda i: c.request("POST", f"/api/pictures?name=junk{i}.jpg", junk,
                                                  "application/octet-stream", timeout=300)[0])
        if any(s < 400 or s >= 500 for s in statuses):
            failures.append(f"32 MiB junk uploads answered {statuses}")
        sizes = at_once(16, lambda _: len(c.request("GET", "/api/pictures/padded.jpg", timeout=300)[2]))
        if any(s != os.path.getsize(os.path.join(folder, "padded.jpg")) for s in sizes):
            failures.append(f"downloads of the 32 MiB picture gave {sorted(set(sizes))} bytes")
        measure("bodies")

        def everything(i):
            kind = i % 4
            if kind == 0:
                return c.request("POST", "/api/train", deep, "application/json", timeout=300)[0]
            if kind == 1:
                return c.request("POST", f"/api/pictures?name=more{i}.png", large, "application/octet-stream",
                                 timeout=300)[0]
            if kind == 2:
                return c.request("POST", f"/api/pictures?name=junk{i}.jpg", junk, "application/octet-stream",
                                 timeout=300)[0]
            return c.request("GET", "/api/detect?picture=" + names[i % len(names)], timeout=300)[0]
        statuses = at_once(24, everything)
        if any(s >= 500 and s != 503 for s in statuses):
            failures.append(f"all at once answered {sorted(set(statuses))}")
        measure("all at once")
        c.json("GET", "/api/status")
    except Exception as e:  # noqa: BLE001 - reported below with the figures
        failures.append(f"{type(e).__name__}: {e}")
    finally:
        watchdog.running = False
        if studio.process.poll() is None:
            code, _, err, _ = studio.stop()
            if code != 0:
                failures.append(f"the studio ended with {code}: {err}")
        shutil.rmtree(work, ignore_errors=True)

    print("  peak resident memory of the studio (VmHWM; VmRSS now), MiB:")
    for phase, peak, now in figures:
        print(f"    {phase:22s} {peak:7.0f}  ({now:.0f})")
    peak = max((f[1] for f in figures), default=0)
    if watchdog.tripped:
        failures.append(f"the studio passed {WATCHDOG_MIB} MiB and was stopped")
    elif peak > args.bound_mib:
        failures.append(f"peak {peak:.0f} MiB is above the bound of {args.bound_mib} MiB")
    for f in failures:
        print(f"  FAILED: {f}")
    if not failures:
        print(f"  ok: the peak, {peak:.0f} MiB, stays under the bound of {args.bound_mib} MiB")
    print("studio memory attacks: " + ("0 failed" if not failures else f"{len(failures)} failed"))
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
