#!/usr/bin/python3
"""Takes docs/studio.md's screenshots of the studio as a labelling tool, in the
real browser (headless Chromium through selenium), from the shipped pictures:

  docs/studio-zoom.png   a 1920 x 1080 frame (the shipped chess pictures at
                         their own size on a larger table) zoomed in, with
                         the pawns marked in two classes, white-pawn and
                         black-pawn;
  docs/studio-dense.png  the blood pictures after training two classes (RBC
                         and WBC) from one picture's labels: the detections
                         of another picture at sensitivity 100 (many red
                         cells; a white cell where the detector finds one).

Everything happens as a person would do it: the labels are put through the
studio's JSON interface (as the page saves them), the frame is opened with
End, zoomed with the + key and moved with Space + drag, training is the T
key, the sensitivity the slider. The script checks what it shows (the
classes on the picture, the status) and fails rather than save a wrong
picture. Look at the pictures afterwards: the script cannot judge them.

Usage: scripts/studio-screenshots.py [OSTREL] [DATA_DIR] [OUT_DIR] [--profile P]
       (defaults build/tools/ostrel, data, docs; the studio's own profile)
"""
import argparse
import glob
import os
import shutil
import sys
import tempfile
import time
import xml.etree.ElementTree as ET

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "studio"))
from studio_process import StudioProcess  # noqa: E402
from studio_client import Client  # noqa: E402
from test_studio_browser import start_browser  # noqa: E402
from test_studio_labelling import picture_to_client, settle, stage_centre, drag_with, view  # noqa: E402

import cv2  # noqa: E402
import numpy as np  # noqa: E402
from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402
from selenium.webdriver.support.ui import WebDriverWait  # noqa: E402

FRAME = "table_fullhd.png"
TILE = 416             # the shipped chess pictures' side
TABLE = (1920, 1080)
PAWN_CLASSES = ("white-pawn", "black-pawn")
TRAIN_ON = "BloodImage_00000.jpg"
DENSE_ON = "BloodImage_00002.jpg"
WINDOW = (1600, 1000)


def voc_objects(path, keep=None):
    objects = []
    for obj in ET.parse(path).getroot().iter("object"):
        name = obj.findtext("name")
        if keep is not None and name not in keep:
            continue
        b = obj.find("bndbox")
        x0, y0, x1, y1 = (int(float(b.findtext(k))) for k in ("xmin", "ymin", "xmax", "ymax"))
        objects.append({"class": name, "x": x0 - 1, "y": y0 - 1, "w": x1 - x0 + 1, "h": y1 - y0 + 1})
    return objects


def table_frame(data, folder):
    """A 1920 x 1080 frame: the chess pictures at their own size (pawns of
    about 20 x 40 pixels) laid four by two on a plain table; returns the
    pawns' boxes in the frame and the frame point to zoom to."""
    pictures = sorted(glob.glob(os.path.join(data, "chess", "images", "*.jpg")))
    frame = np.full((TABLE[1], TABLE[0], 3), (92, 120, 146), np.uint8)  # a wooden table's brown, BGR
    left = (TABLE[0] - 4 * TILE) // 2
    top = (TABLE[1] - 2 * TILE) // 2
    boxes = []
    for i in range(8):
        path = pictures[i % len(pictures)]
        x, y = left + (i % 4) * TILE, top + (i // 4) * TILE
        frame[y:y + TILE, x:x + TILE] = cv2.imread(path)
        stem = os.path.splitext(os.path.basename(path))[0]
        for o in voc_objects(os.path.join(data, "chess", "annotations", stem + ".xml"), PAWN_CLASSES):
            boxes.append({**o, "x": o["x"] + x, "y": o["y"] + y})
    cv2.imwrite(os.path.join(folder, FRAME), frame)
    # The first picture's middle: both files of pawns show.
    return boxes, (left + 200, top + 190)


def wait_ready(driver, wait):
    wait.until(lambda d: d.execute_script("return document.body.dataset.ready === 'true'"))


def open_picture(driver, wait, name, keys):
    ActionChains(driver).send_keys(keys).perform()
    wait.until(lambda d: d.execute_script(
        "return document.querySelector('#picture-list li.selected').dataset.name") == name)
    wait.until(lambda d: d.execute_script("return window.studioViewer.source !== null"))


def require(condition, message):
    if not condition:
        raise SystemExit(f"studio-screenshots: {message}")
    print(f"  ok: {message}")


def zoomed_frame(driver, wait, studio, centre, out):
    driver.get(studio.url)
    wait_ready(driver, wait)
    open_picture(driver, wait, FRAME, Keys.END)
    ActionChains(driver).send_keys("0").perform()  # 1:1
    wait.until(lambda d: abs(view(d)["scale"] - 1) < 1e-9)
    for _ in range(3):
        ActionChains(driver).send_keys("+").perform()
    wait.until(lambda d: abs(view(d)["scale"] - 2 * 2 ** 0.5) < 1e-6)
    # Space + drag until the chosen point is in the stage's middle.
    cx, cy = stage_centre(driver)
    for _ in range(12):
        px, py = picture_to_client(driver, *centre)
        dx, dy = max(-300, min(300, cx - px)), max(-300, min(300, cy - py))
        if abs(dx) < 2 and abs(dy) < 2:
            break
        drag_with(driver, (cx, cy), (cx + dx, cy + dy), hold_space=True)
    ActionChains(driver).move_by_offset(0, 0).perform()
    driver.execute_script("document.activeElement.blur()")
    # The pointer rests on the header: no box shows a hover caption.
    ActionChains(driver).move_to_element(driver.find_element(By.TAG_NAME, "h1")).perform()
    settle(driver)
    time.sleep(0.3)
    shown = set(driver.execute_script(
        "return [...document.querySelectorAll('#marks rect.mark')].map(r => r.dataset.class)"))
    require(shown == set(PAWN_CLASSES), f"the frame shows the marked pawns of both classes {sorted(shown)}")
    driver.save_screenshot(os.path.join(out, "studio-zoom.png"))


def blood_labels(data):
    """The red cells of the training picture as annotated, and its white
    cell marked around its nucleus, as a person marks it for a detector of
    one window (the annotated box, the whole cell, is larger than a
    classic window may be)."""
    labels = voc_objects(os.path.join(data, "bccd", "annotations", TRAIN_ON[:-4] + ".xml"), ("RBC",))
    return labels + [{"class": "WBC", "x": 320, "y": 222, "w": 110, "h": 100}]


def dense_detections(driver, wait, studio, out):
    driver.get(studio.url)
    wait_ready(driver, wait)
    open_picture(driver, wait, TRAIN_ON, Keys.HOME)
    ActionChains(driver).send_keys("t").perform()
    wait.until(lambda d: d.execute_script("return window.studioMetrics.trainClickToDrawnMs !== null"))
    slider = driver.find_element(By.ID, "sensitivity")
    slider.send_keys(Keys.END)
    wait.until(lambda d: d.find_element(By.ID, "sensitivity-value").text == "100")
    driver.execute_script("document.activeElement.blur()")
    open_picture(driver, wait, DENSE_ON, Keys.ARROW_RIGHT + Keys.ARROW_RIGHT)
    wait.until(lambda d: d.execute_script("return document.getElementById('canvas').dataset.found !== ''"))
    ActionChains(driver).move_to_element(driver.find_element(By.TAG_NAME, "h1")).perform()
    time.sleep(0.3)
    found = int(driver.execute_script("return document.getElementById('canvas').dataset.found"))
    classes = set(driver.execute_script(
        "return [...document.querySelectorAll('#detections .det-group[data-kind=found]')].map(g => g.dataset.class)"))
    badge = driver.find_element(By.ID, "model-state").text
    require(found >= 10 and "RBC" in classes and "RBC, WBC" in badge,
            f"{found} boxes found at sensitivity 100, of {sorted(classes)}; badge '{badge}'")
    driver.save_screenshot(os.path.join(out, "studio-dense.png"))


def labelled_studio(ostrel, folder, picture, boxes, extra):
    """A studio on folder whose picture holds boxes as labels: put once
    through the JSON interface, then read back from the label files by a
    restarted studio, as a person finds a folder labelled the day before
    (the class list is the files' classes)."""
    studio = StudioProcess(ostrel, folder, extra)
    try:
        Client(studio.port).json("PUT", "/api/labels/" + picture, {"boxes": boxes})
    finally:
        studio.stop()
    return StudioProcess(ostrel, folder, extra)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("ostrel", nargs="?", default="build/tools/ostrel")
    parser.add_argument("data", nargs="?", default="data")
    parser.add_argument("out", nargs="?", default="docs")
    parser.add_argument("--profile", help="the studio's --profile (default: the studio's own default)")
    args = parser.parse_args()
    out = os.path.abspath(args.out)
    work = tempfile.mkdtemp(prefix="ostrel-studio-screenshots-")
    extra = ["--profile", args.profile] if args.profile else []
    studio = driver = None
    try:
        driver = start_browser(os.path.join(work, "profile"), os.path.join(work, "downloads"))
        driver.set_window_size(*WINDOW)
        wait = WebDriverWait(driver, 60, poll_frequency=0.02)
        for shot in ("zoom", "dense"):
            folder = os.path.join(work, shot)
            os.makedirs(folder)
            for path in sorted(glob.glob(os.path.join(args.data, "bccd", "images", "*.jpg"))):
                shutil.copy(path, folder)
            if shot == "zoom":
                boxes, centre = table_frame(args.data, folder)
                studio = labelled_studio(args.ostrel, folder, FRAME, boxes, extra)
                zoomed_frame(driver, wait, studio, centre, out)
            else:
                studio = labelled_studio(args.ostrel, folder, TRAIN_ON, blood_labels(args.data), extra)
                dense_detections(driver, wait, studio, out)
            studio.stop()
            studio = None
        errors = [e for e in driver.get_log("browser") if e["level"] == "SEVERE"]
        require(not errors, f"no script errors in the page {errors}")
        print(f"{out}/studio-zoom.png and {out}/studio-dense.png written: look at them")
    finally:
        if driver is not None:
            driver.quit()
        if studio is not None:
            studio.stop()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
