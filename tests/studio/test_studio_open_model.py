#!/usr/bin/python3
"""A model of several classes opened in the page (headless Chromium).

`ostrel train --all-classes` makes a model of the chess set's classes; the
person opens it with Open model while the class 'object' is chosen: the
class list shows every class of the file, the badge names the model and
its number of classes, the detections are drawn in the file's classes,
and one Save model link gives the file back with the same classes.

Usage: test_studio_open_model.py OSTREL DATA_DIR [--timeout S]
Exits 0 when every check passed, 1 otherwise.
"""
import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from studio_process import StudioProcess  # noqa: E402
from test_studio_browser import count, report_failure, start_browser  # noqa: E402
from test_studio_labelling import Failed, check  # noqa: E402

from selenium.common.exceptions import TimeoutException  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.support.ui import WebDriverWait  # noqa: E402


def classes_line(ostrel, path):
    out = subprocess.run([ostrel, "check", path], capture_output=True, text=True)
    return next((line for line in out.stdout.splitlines() if line.startswith("classes:")), "")


def run(ostrel, data, timeout):
    work = tempfile.mkdtemp(prefix="ostrel-studio-open-model-")
    chess = os.path.join(data, "chess")
    model = os.path.join(work, "chess.model")
    subprocess.run([ostrel, "train", "--voc", chess, "--all-classes", "--limit", "1", "--profile", "accurate",
                    "--model", model], check=True, capture_output=True)
    listed = classes_line(ostrel, model)
    names = listed.split("(", 1)[1].rstrip(")").split(", ")
    folder = os.path.join(work, "pictures")
    shutil.copytree(os.path.join(chess, "images"), folder)
    studio = StudioProcess(ostrel, folder)
    driver = start_browser(os.path.join(work, "profile"), os.path.join(work, "downloads"))
    try:
        driver.set_window_size(1500, 1000)
        wait = WebDriverWait(driver, timeout, poll_frequency=0.05)
        driver.get(studio.url)
        wait.until(lambda d: d.execute_script("return document.body.dataset.ready === 'true'"))
        driver.find_element(By.ID, "model-file").send_keys(model)
        wait.until(lambda d: count(d, "#classes li.class") >= len(names) + 1)
        shown = driver.execute_script("return [...document.querySelectorAll('#classes .class-name')].map(e => e.textContent)")
        check(set(names) <= set(shown), f"the class list shows the file's {len(names)} classes")
        wait.until(lambda d: d.find_element(By.ID, "model-state").text.startswith("Model chess.model"))
        badge = driver.find_element(By.ID, "model-state").text
        check(f"{len(names)} classes" in badge and "accurate profile" in badge, f"the badge says what was opened: '{badge}'")
        wait.until(lambda d: count(d, "#detections .det-group[data-kind='found']") > 0)
        drawn = set(driver.execute_script(
            "return [...document.querySelectorAll('#detections .det-group')].map(g => g.dataset.class)"))
        check(drawn and drawn <= set(names), f"the detections are drawn in the file's classes ({len(drawn)} of them)")
        save = driver.find_element(By.ID, "save-model")
        check(save.is_displayed() and save.text == f"Save model ({len(names)} classes)" and count(driver, "a.class-model") == 0,
              f"one Save model link: '{save.text}'")
        again = os.path.join(work, "again.model")
        with urllib.request.urlopen(save.get_attribute("href"), timeout=120) as response:
            open(again, "wb").write(response.read())
        check(classes_line(ostrel, again) == listed, f"the saved model holds the same classes: {classes_line(ostrel, again)}")
        errors = [e for e in driver.get_log("browser") if e["level"] == "SEVERE"]
        check(not errors, f"no script errors in the page {errors}")
        print("model of several classes browser test: 1 passed, 0 failed")
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
    parser.add_argument("--timeout", type=float, default=60)
    args = parser.parse_args()
    sys.exit(run(args.ostrel, args.data, args.timeout))


if __name__ == "__main__":
    main()
