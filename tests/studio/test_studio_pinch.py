#!/usr/bin/python3
"""Pinch zoom in a real browser (headless Chromium): both pinches a person makes.

  - a touchpad pinch, which Chromium hands the page as wheel events with
    Ctrl held (sent here through the DevTools protocol as the browser's own
    input, Input.dispatchMouseEvent with the Ctrl modifier), zooms around the
    pointer: the picture point under it stays under it, and the picture is
    larger by the factor the page gives a Ctrl+wheel step;
  - two fingers on a touch screen (Input.dispatchTouchEvent, touch emulated):
    spreading them zooms by the ratio of their distances around their middle,
    moving both pans; neither marks a box (the label file stays absent).

Usage: test_studio_pinch.py OSTREL DATA_DIR [--timeout S]
Exits 0 when every check passed, 1 otherwise.
"""
import argparse
import math
import os
import shutil
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from studio_process import StudioProcess  # noqa: E402
from test_studio_browser import report_failure, start_browser  # noqa: E402
from test_studio_labelling import (FRAME, Failed, check, client_to_picture, make_folder, settle,  # noqa: E402
                                   stage_centre, view)

from selenium.common.exceptions import TimeoutException  # noqa: E402
from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402
from selenium.webdriver.support.ui import WebDriverWait  # noqa: E402


def close(a, b, tolerance):
    return abs(a - b) <= tolerance


def trackpad_pinch(driver, x, y, delta_y):
    """One pinch step of a touchpad: a wheel event with Ctrl, as Chromium makes it."""
    driver.execute_cdp_cmd("Input.dispatchMouseEvent", {
        "type": "mouseWheel", "x": x, "y": y, "deltaX": 0, "deltaY": delta_y, "modifiers": 2})
    settle(driver)


def touch(driver, kind, points):
    driver.execute_cdp_cmd("Input.dispatchTouchEvent", {
        "type": kind, "touchPoints": [{"x": px, "y": py, "id": i} for i, (px, py) in enumerate(points)]})


def run(ostrel, data, timeout):
    work = tempfile.mkdtemp(prefix="ostrel-studio-pinch-")
    folder = os.path.join(work, "pictures")
    make_folder(data, folder)
    studio = StudioProcess(ostrel, folder)
    driver = start_browser(os.path.join(work, "profile"), os.path.join(work, "downloads"))
    try:
        driver.set_window_size(1600, 1000)
        wait = WebDriverWait(driver, timeout, poll_frequency=0.02)
        driver.get(studio.url)
        wait.until(lambda d: d.execute_script("return document.body.dataset.ready === 'true'"))
        ActionChains(driver).send_keys(Keys.END).perform()
        wait.until(lambda d: d.execute_script(
            "return document.querySelector('#picture-list li.selected').dataset.name") == FRAME)
        wait.until(lambda d: d.execute_script("return window.studioViewer.source !== null"))
        settle(driver)

        # ----------------------------------------------- touchpad: Ctrl+wheel
        cx, cy = stage_centre(driver)
        x, y = int(cx + 150), int(cy - 80)  # off the centre, so zooming around it differs from zooming around the centre
        before = view(driver)
        under = client_to_picture(driver, x, y)
        trackpad_pinch(driver, x, y, -50)  # fingers apart: zoom in
        after = view(driver)
        # The page's Ctrl+wheel step: the scale times exp(-deltaY * 0.01).
        check(close(after["scale"] / before["scale"], math.exp(0.5), 1e-6),
              f"a touchpad pinch zooms in by exp(0.5): {before['scale']:.4f} -> {after['scale']:.4f}")
        still = client_to_picture(driver, x, y)
        check(close(still["x"], under["x"], 0.01) and close(still["y"], under["y"], 0.01),
              f"the picture point under the pointer stays there: {under} -> {still}")
        trackpad_pinch(driver, x, y, 50)  # and back together: zoom out
        check(close(view(driver)["scale"], before["scale"], 1e-6), "the opposite pinch zooms back out")

        # -------------------------------------------------- two fingers on a touch screen
        driver.execute_cdp_cmd("Emulation.setTouchEmulationEnabled", {"enabled": True, "maxTouchPoints": 2})
        mx, my = int(cx - 120), int(cy + 60)
        before = view(driver)
        middle = client_to_picture(driver, mx, my)
        touch(driver, "touchStart", [(mx - 50, my), (mx + 50, my)])
        for spread in (60, 75, 100):  # the fingers move apart in steps, 100 -> 200 pixels
            touch(driver, "touchMove", [(mx - spread, my), (mx + spread, my)])
        touch(driver, "touchEnd", [])
        settle(driver)
        after = view(driver)
        check(close(after["scale"] / before["scale"], 2.0, 1e-3),
              f"spreading two fingers from 100 to 200 pixels apart doubles the zoom: "
              f"{before['scale']:.4f} -> {after['scale']:.4f}")
        still = client_to_picture(driver, mx, my)
        check(close(still["x"], middle["x"], 0.05) and close(still["y"], middle["y"], 0.05),
              f"the picture point between the fingers stays there: {middle} -> {still}")
        # Both fingers moved together: the picture follows them.
        start = client_to_picture(driver, mx, my)
        touch(driver, "touchStart", [(mx - 40, my), (mx + 40, my)])
        touch(driver, "touchMove", [(mx - 40 + 30, my + 20), (mx + 40 + 30, my + 20)])
        touch(driver, "touchMove", [(mx - 40 + 60, my + 40), (mx + 40 + 60, my + 40)])
        touch(driver, "touchEnd", [])
        settle(driver)
        moved = client_to_picture(driver, mx + 60, my + 40)
        check(close(moved["x"], start["x"], 0.05) and close(moved["y"], start["y"], 0.05)
              and close(view(driver)["scale"], after["scale"], 1e-6),
              f"two fingers moved together pan the picture with them: {start} -> {moved}")
        label_file = os.path.join(folder, os.path.splitext(FRAME)[0] + ".xml")
        boxes = driver.execute_script("return document.querySelectorAll('#marks rect.mark').length")
        check(boxes == 0 and not os.path.exists(label_file), "pinching marks no box (no label file written)")
        print("pinch zoom browser test: 1 passed, 0 failed")
        return 0
    except (Failed, TimeoutException) as e:
        return report_failure(driver, e)
    finally:
        driver.quit()
        studio.stop()
        shutil.rmtree(work, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("ostrel")
    parser.add_argument("data")
    parser.add_argument("--timeout", type=float, default=30)
    args = parser.parse_args()
    sys.exit(run(args.ostrel, args.data, args.timeout))


if __name__ == "__main__":
    main()
