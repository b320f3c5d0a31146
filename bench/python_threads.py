#!/usr/bin/python3
"""Detection rate of the Python package on one thread and on two threads,
each thread with its own Detector (ctypes releases the GIL during each
library call). The shipped blood pictures, decoded once, each detected as a
new picture; serial and threaded runs alternate RUNS times and the median
ratio is printed with the load average before and after.

Usage: bench/python_threads.py [ROUNDS] [RUNS]   (run with the package
installed, e.g. build/python-venv/bin/python after scripts/test-python.sh)
"""
import os
import statistics
import sys
import threading
import time

import cv2

import ostrel

HERE = os.path.dirname(os.path.abspath(__file__))
BCCD = os.path.join(HERE, "..", "data", "bccd")


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 25
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    images = os.path.join(BCCD, "images")
    pictures = [cv2.imread(os.path.join(images, n)) for n in sorted(os.listdir(images))]
    model = os.path.join("/tmp", f"ostrel-python-threads-{os.getpid()}.model")
    marked = [(83, 336, 97, 100), (68, 237, 97, 100), (219, 362, 97, 100), (412, 349, 97, 100),
              (153, 75, 97, 100), (9, 74, 97, 100), (538, 40, 97, 100), (386, 12, 97, 100)]
    with ostrel.Detector(seed=1) as trainer:
        trainer.train(pictures[0], marked)
        trainer.save(model)

    def work(share):
        with ostrel.Detector.load(model) as detector:
            for _ in range(rounds):
                for picture in share:
                    detector.detect(picture)

    halves = [pictures[0::2], pictures[1::2]]
    work(pictures[:1])  # warm-up
    load_before = os.getloadavg()[0]
    ratios, serial_rates, threaded_rates = [], [], []
    count = rounds * len(pictures)
    for _ in range(runs):
        started = time.perf_counter()
        for half in halves:
            work(half)
        serial = time.perf_counter() - started
        threads = [threading.Thread(target=work, args=(half,)) for half in halves]
        started = time.perf_counter()
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        threaded = time.perf_counter() - started
        ratios.append(serial / threaded)
        serial_rates.append(count / serial)
        threaded_rates.append(count / threaded)
    os.unlink(model)
    print(f"load average before {load_before:.2f}, after {os.getloadavg()[0]:.2f}")
    print(f"{count} detections a run, {runs} runs: one thread median {statistics.median(serial_rates):.0f}/s, "
          f"two threads median {statistics.median(threaded_rates):.0f}/s")
    print(f"ratio two threads / one: median {statistics.median(ratios):.2f}x; runs: "
          + " ".join(f"{r:.2f}" for r in ratios))


if __name__ == "__main__":
    main()
