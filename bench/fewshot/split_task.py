#!/usr/bin/python3
"""Splits a few-shot task file into a tuning part and a held-out part.

  split_task.py TASK.json   ->   TASK.tune.json, TASK.holdout.json

A test picture is held out when the MD5 of its file name, read as a number,
is divisible by 3 (about a third of the pictures). The rule depends on the
name only, so every run, machine and detector gets the same split. The
training picture and boxes are the same in both parts.
"""
import hashlib
import json
import sys


def held_out(name):
    return int(hashlib.md5(name.encode("utf-8")).hexdigest(), 16) % 3 == 0


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    path = sys.argv[1]
    task = json.load(open(path))
    stem = path[:-5] if path.endswith(".json") else path
    for part, keep in (("tune", False), ("holdout", True)):
        sub = dict(task)
        sub["test_images"] = [t for t in task["test_images"] if held_out(t["image"]) == keep]
        with open("%s.%s.json" % (stem, part), "w") as f:
            json.dump(sub, f, indent=1)
            f.write("\n")
        print("%s: %d test pictures -> %s.%s.json" % (part, len(sub["test_images"]), stem, part))


if __name__ == "__main__":
    main()
