#!/usr/bin/python3
"""The studio's profile, in a real browser (headless Chromium), started with
default options as a person starts it:

  - it trains with the accurate profile, and the header and the profile
    buttons say so (and agree);
  - "Open model" of an accurate model file (made by `ostrel train --profile
    accurate`) detects: boxes are drawn on the picture, the header names the
    model and its profile. (A studio that keeps its own profile for a model
    of the other one answers every detection with an error instead.)
  - "Open model" of a classic model file: the file decides, the studio now
    runs the classic profile, detects, and says so;
  - switching the profile before training just switches; after training it
    asks what becomes of the taught detector: Keep changes nothing, "Train
    again" learns the taught pictures under the other profile.

Usage: test_studio_profile.py OSTREL DATA_DIR OUT_DIR [--timeout S]
Exits 0 when every check passed, 1 otherwise.
"""
import argparse
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from studio_process import StudioProcess  # noqa: E402

from selenium.common.exceptions import TimeoutException  # noqa: E402
from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402
from selenium.webdriver.support.ui import WebDriverWait  # noqa: E402

from test_studio_browser import start_browser  # noqa: E402

TRAINING = "BloodImage_00000.jpg"
OTHER = "BloodImage_00001.jpg"
# Red cells of the training picture, one size.
CELLS = [[83, 336, 97, 100], [68, 237, 97, 100], [219, 362, 97, 100], [412, 349, 97, 100],
         [153, 75, 97, 100], [9, 74, 97, 100], [538, 40, 97, 100], [386, 12, 97, 100]]


class Failed(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failed(message)
    print(f"  ok: {message}")


def train_model(ostrel, data, profile, path):
    boxes = [a for b in CELLS for a in ("--box", ",".join(map(str, b)))]
    done = subprocess.run([ostrel, "train", "--profile", profile, os.path.join(data, "bccd", "images", TRAINING),
                           *boxes, "--model", path], capture_output=True, text=True)
    if done.returncode != 0:
        raise Failed(f"ostrel train --profile {profile} failed: {done.stderr.strip()}")


def status(studio):
    with urllib.request.urlopen(studio.url + "api/status", timeout=60) as response:
        return json.loads(response.read())


def badge(driver):
    return driver.find_element(By.ID, "model-state").text


def checked_profile(driver):
    return driver.execute_script(
        "const c = document.querySelector('#profile-choice input:checked'); return c ? c.value : null")


def found(driver):
    value = driver.execute_script("return document.getElementById('canvas').dataset.found")
    return int(value) if value else None


def open_model(driver, path):
    file_input = driver.find_element(By.ID, "model-file")
    driver.execute_script("arguments[0].hidden = false", file_input)
    file_input.send_keys(path)
    driver.execute_script("arguments[0].hidden = true", file_input)


def run(args):
    work = tempfile.mkdtemp(prefix="ostrel-studio-profile-")
    folder = os.path.join(work, "pictures")
    os.makedirs(folder)
    for path in sorted(glob.glob(os.path.join(args.data, "bccd", "images", "*.jpg"))):
        shutil.copy(path, folder)
    accurate_model = os.path.join(work, "cells-accurate.model")
    classic_model = os.path.join(work, "cells-classic.model")
    train_model(args.ostrel, args.data, "accurate", accurate_model)
    train_model(args.ostrel, args.data, "classic", classic_model)
    studio = StudioProcess(args.ostrel, folder)  # default options, as a person starts it
    driver = None
    try:
        driver = start_browser(os.path.join(work, "profile"), os.path.join(work, "downloads"))
        driver.set_window_size(1440, 1000)
        wait = WebDriverWait(driver, args.timeout, poll_frequency=0.02)
        driver.get(studio.url)
        wait.until(lambda d: d.execute_script("return document.body.dataset.ready === 'true'"))

        # What the page says at first, checked once the model step (which a
        # studio of the classic default fails) has run.
        first_status, first_badge, first_button = status(studio), badge(driver), checked_profile(driver)

        # ------------------------------------------ open an accurate model
        # A click on a picture it was not trained on.
        driver.find_element(By.CSS_SELECTOR, f"#picture-list li[data-name='{OTHER}'] button").click()
        wait.until(lambda d: d.execute_script(
            "return document.querySelector('#picture-list li.selected').dataset.name") == OTHER)
        open_model(driver, accurate_model)
        try:
            wait.until(lambda d: (found(d) or 0) > 0)
        except TimeoutException:
            notice = driver.find_element(By.ID, "notice").text
            raise Failed(f"no detection drawn after opening the accurate model; the page says '{notice}', "
                         f"the header '{badge(driver)}'")
        boxes = driver.execute_script("return document.querySelectorAll(\"#detections .det-group[data-kind='found']\").length")
        st = status(studio)
        check(st["trained"] and st["profile"] == "accurate" and
              all(d["profile"] == "accurate" for d in st["detectors"] if d["trained"]),
              "the studio reports the accurate profile of the opened model")
        check(boxes == found(driver) > 0 and "cells-accurate.model" in badge(driver) and "accurate profile" in badge(driver),
              f"Open model of an accurate model detects: {boxes} boxes drawn on {OTHER}; header '{badge(driver)}'")

        check(first_status["profile"] == "accurate" and "accurate profile" in first_badge
              and first_button == "accurate",
              f"started with default options it trains with the accurate profile ('{first_badge}', "
              f"the accurate button chosen)")

        # ------------------------------------------- open a classic model
        open_model(driver, classic_model)
        wait.until(lambda d: "cells-classic.model" in badge(d))
        wait.until(lambda d: (found(d) or 0) > 0)
        wait.until(lambda d: checked_profile(d) == "classic")
        check(status(studio)["profile"] == "classic" and "classic profile" in badge(driver),
              f"a classic model file brings the classic profile; it detects ({found(driver)} boxes) and the page "
              f"says so ('{badge(driver)}', the classic button chosen)")

        # ------------------------------------------- switching the profile
        driver.execute_script("document.getElementById('start-over').click()")
        alert = WebDriverWait(driver, args.timeout).until(lambda d: d.switch_to.alert)
        alert.accept()
        wait.until(lambda d: "Not trained yet" in badge(d))
        driver.find_element(By.ID, "profile-accurate").click()
        wait.until(lambda d: checked_profile(d) == "accurate" and "accurate profile" in badge(d))
        check(status(studio)["profile"] == "accurate", "before training the profile switches at once")
        # Train on the shown picture's labels (marked through the interface).
        ActionChains(driver).send_keys(Keys.ARROW_LEFT).perform()
        wait.until(lambda d: d.execute_script(
            "return document.querySelector('#picture-list li.selected').dataset.name") == TRAINING)
        token = driver.execute_script("return fetch('/api/session').then(r => r.json()).then(j => j.token)")
        driver.execute_script(
            "return fetch('/api/labels/' + arguments[0], {method: 'PUT', headers: {'X-Ostrel-Token': arguments[1],"
            " 'Content-Type': 'application/json'}, body: JSON.stringify({boxes: arguments[2]})})",
            TRAINING, token, CELLS)
        driver.refresh()
        wait.until(lambda d: d.execute_script("return document.body.dataset.ready === 'true'"))
        wait.until(lambda d: d.execute_script("return document.querySelectorAll('#marks rect.mark').length") == len(CELLS))
        ActionChains(driver).send_keys("t").perform()
        wait.until(lambda d: d.execute_script("return window.studioMetrics.trainClickToDrawnMs !== null"))
        check(status(studio)["trained"] and "accurate profile" in badge(driver), f"trained: '{badge(driver)}'")
        samples = status(studio)["samples"]

        driver.find_element(By.ID, "profile-classic").click()
        wait.until(lambda d: not d.find_element(By.ID, "profile-dialog").get_attribute("hidden"))
        text = driver.find_element(By.ID, "profile-dialog-text").text
        check("accurate profile" in text and "labels stay" in text and checked_profile(driver) == "accurate",
              f"after training a switch asks first: '{text}'")
        driver.find_element(By.ID, "profile-cancel").click()
        wait.until(lambda d: d.find_element(By.ID, "profile-dialog").get_attribute("hidden"))
        st = status(studio)
        check(st["profile"] == "accurate" and st["trained"] and st["samples"] == samples
              and checked_profile(driver) == "accurate",
              "Keep changes nothing: the accurate detector stays")

        driver.find_element(By.ID, "profile-classic").click()
        wait.until(lambda d: not d.find_element(By.ID, "profile-dialog").get_attribute("hidden"))
        driver.find_element(By.ID, "profile-retrain").click()
        wait.until(lambda d: "classic profile" in badge(d) and checked_profile(d) == "classic")
        wait.until(lambda d: (found(d) or 0) > 0)
        st = status(studio)
        check(st["profile"] == "classic" and st["trained"] and
              all(d["profile"] == "classic" for d in st["detectors"] if d["trained"]) and
              "under the classic profile" in driver.find_element(By.ID, "training-steps").text,
              f"Train again learns the taught picture under the classic profile ('{badge(driver)}'; "
              f"{found(driver)} boxes drawn)")

        errors = [e for e in driver.get_log("browser") if e["level"] == "SEVERE"]
        check(not errors, f"no script errors in the page {errors}")
        return 0
    except (Failed, TimeoutException) as e:
        print(f"FAILED: {str(e) or 'a wait ran out of time'}")
        if driver is not None:
            try:
                driver.save_screenshot(os.path.join(os.path.abspath(args.out), "studio-profile-failure.png"))
                print("  page notice:", driver.find_element(By.ID, "notice").text)
            except Exception:  # noqa: BLE001 - the failure above is what matters
                pass
        return 1
    finally:
        if driver is not None:
            driver.quit()
        if studio.process.poll() is None:
            studio.stop()
        shutil.rmtree(work, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("ostrel")
    parser.add_argument("data")
    parser.add_argument("out")
    parser.add_argument("--timeout", type=float, default=30)
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)
    code = run(args)
    print("profile browser test: " + ("1 passed, 0 failed" if code == 0 else "0 passed, 1 failed"))
    sys.exit(code)


if __name__ == "__main__":
    main()
