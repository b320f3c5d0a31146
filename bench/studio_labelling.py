#!/usr/bin/python3
"""Timings of the studio as a labelling tool, as a person feels them.

1. A 1920 x 1080 frame drawn after a zoom step: the page (headless Chromium)
   times each step from the wheel event (or the + / - key) to the end of
   the frame's drawing (the picture's visible part on the canvas and the
   boxes), over zoom levels from fit to 3200% and back. Goal: under 50 ms.
2. Accept found on 100 pictures: a folder of 101 pictures (copies of the
   shipped blood pictures), trained on one, then every picture without
   labels detected and its boxes saved as Pascal VOC files, timed over HTTP.
   Goal: under 5 s.

Where a zoom step's time went: the page draws only the visible part of the
picture (drawImage of a sub-rectangle) and the boxes are an SVG overlay, so
the script's part of a step is a few milliseconds at either device pixel
ratio; the rest was painting the canvas with the best resampling filter
('high'), which at ratio 2 (four times the pixels) made the frame reach the
screen in about 40 ms at the median and over 100 ms at the 90th percentile.
The view now resamples bilinearly ('low') while it moves and paints once
more with the best filter when it has stood still for 200 ms (viewer.js).

Prints the figures with the machine's load average; the machine is shared,
so read them with it.

Usage: bench/studio_labelling.py [OSTREL] [DATA_DIR]   (default build/tools/ostrel, data)
"""
import glob
import json
import os
import shutil
import statistics
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "studio"))
from studio_process import StudioProcess  # noqa: E402
from test_studio_labelling import make_folder, FRAME  # noqa: E402
from test_studio_labels_api import Client, boxes_of, CELLS  # noqa: E402
from test_studio_browser import start_browser  # noqa: E402

from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.common.actions.wheel_input import ScrollOrigin  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402
from selenium.webdriver.support.ui import WebDriverWait  # noqa: E402


def load():
    return os.getloadavg()[0]


def zoom_steps(ostrel, data, work, pixel_ratio):
    folder = os.path.join(work, "frame")
    make_folder(data, folder)
    studio = StudioProcess(ostrel, folder)
    driver = start_browser(os.path.join(work, "profile"), os.path.join(work, "downloads"))
    try:
        driver.set_window_size(1920, 1080)
        if pixel_ratio != 1:
            # A screen of pixel_ratio device pixels a CSS pixel, as a high-density laptop's.
            driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
                "width": 1920, "height": 1080, "deviceScaleFactor": pixel_ratio, "mobile": False})
        wait = WebDriverWait(driver, 30, poll_frequency=0.02)
        driver.get(studio.url)
        wait.until(lambda d: d.execute_script("return document.body.dataset.ready === 'true'"))
        ActionChains(driver).send_keys(Keys.END).perform()
        wait.until(lambda d: d.execute_script(
            "return document.querySelector('#picture-list li.selected').dataset.name") == FRAME)
        wait.until(lambda d: d.execute_script("return window.studioViewer.source !== null"))
        # A few boxes on the frame, so that the overlay is drawn too.
        c = Client(studio.port)
        c.json("PUT", "/api/labels/" + FRAME, {"boxes": boxes_of([[100 + 60 * i, 200 + 30 * (i % 7), 20, 40]
                                                                 for i in range(25)], "marker")})
        driver.refresh()
        wait.until(lambda d: d.execute_script("return document.body.dataset.ready === 'true'"))
        ActionChains(driver).send_keys(Keys.END).perform()
        wait.until(lambda d: d.execute_script("return window.studioViewer.source !== null"))
        rect = driver.execute_script(
            "const r = document.getElementById('stage').getBoundingClientRect(); return [r.left, r.top, r.width, r.height];")
        driver.execute_script("window.studioMetrics.zoomToDrawnMs = []; window.studioMetrics.zoomToPaintedMs = []")
        x, y = int(rect[0] + rect[2] * 0.55), int(rect[1] + rect[3] * 0.45)
        scales = []
        for direction in (-1, 1):
            for _ in range(14):  # wheel notches in, then out
                n = len(driver.execute_script("return window.studioMetrics.zoomToDrawnMs"))
                ActionChains(driver).scroll_from_origin(ScrollOrigin.from_viewport(x, y), 0, 120 * direction).perform()
                wait.until(lambda d: len(d.execute_script("return window.studioMetrics.zoomToDrawnMs")) > n)
                scales.append(driver.execute_script("return window.studioViewer.scale"))
        for k in ["+"] * 8 + ["-"] * 8:
            n = len(driver.execute_script("return window.studioMetrics.zoomToDrawnMs"))
            ActionChains(driver).send_keys(k).perform()
            wait.until(lambda d: len(d.execute_script("return window.studioMetrics.zoomToDrawnMs")) > n)
        time.sleep(0.2)
        times = driver.execute_script("return window.studioMetrics.zoomToDrawnMs")
        painted = driver.execute_script("return window.studioMetrics.zoomToPaintedMs")
        ratio = driver.execute_script("return window.devicePixelRatio")
        return times, painted, min(scales), max(scales), ratio
    finally:
        driver.quit()
        studio.stop()


def accept_hundred(ostrel, data, work):
    folder = os.path.join(work, "hundred")
    os.makedirs(folder)
    shipped = sorted(glob.glob(os.path.join(data, "bccd", "images", "*.jpg")))
    for i in range(101):  # one to train on, 100 to accept
        shutil.copy(shipped[i % len(shipped)], os.path.join(folder, f"cells_{i:03d}.jpg"))
    studio = StudioProcess(ostrel, folder)
    try:
        c = Client(studio.port)
        first = "cells_000.jpg"
        c.json("PUT", "/api/labels/" + first, {"boxes": boxes_of(CELLS)})
        c.json("POST", "/api/train/labels", {"picture": first})
        start = time.monotonic()
        reply = c.json("POST", "/api/accept", {"unlabelled": True, "sensitivity": 80})
        wall = time.monotonic() - start
        files = len(glob.glob(os.path.join(folder, "*.xml")))
        return wall, reply["ms"] / 1000, len(reply["pictures"]), reply["added"], files
    finally:
        studio.stop()


def main():
    ostrel = sys.argv[1] if len(sys.argv) > 1 else "build/tools/ostrel"
    data = sys.argv[2] if len(sys.argv) > 2 else "data"
    work = tempfile.mkdtemp(prefix="ostrel-bench-studio-")
    try:
        load_before = load()
        for pixel_ratio in (1, 2):
            times, painted, low, high, ratio = zoom_steps(ostrel, data, os.path.join(work, f"ratio{pixel_ratio}"),
                                                          pixel_ratio)
            for what, values in (("drawn", times), ("on the screen (next frame begun)", painted)):
                print(f"zoom step -> 1920x1080 frame {what} ({len(values)} steps, {low * 100:.0f}% to "
                      f"{high * 100:.0f}%, device pixel ratio {ratio}): median {statistics.median(values):.1f} ms, "
                      f"90th percentile {sorted(values)[int(len(values) * 0.9)]:.1f} ms, max {max(values):.1f} ms "
                      f"(goal < 50 ms)")
        wall, server, pictures, added, files = accept_hundred(ostrel, data, work)
        print(f"accept found on {pictures} pictures without labels: {wall:.2f} s over HTTP "
              f"({server:.2f} s in the studio), {added} boxes, {files} VOC files written (goal < 5 s)")
        print(f"load average: {load_before:.1f} before, {load():.1f} after (2 cores)")
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
