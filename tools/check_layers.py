#!/usr/bin/env python3
"""Checks that every include of the program's code runs down the layers, never back up.

Each folder of src/ (and server/) belongs to one layer; a file may include its own folder and any folder of a lower
layer. Prints each include that runs back up with the two layers, and exits 1 when there is one.
Usage: tools/check_layers.py [REPO]   (default: the repository that holds this script)
"""
import os
import re
import sys

# Bottom to top. A folder may include folders of its own layer number or lower; folders that share a number are
# peers and must not include each other.
LAYERS = [
    ("base", 0),
    ("platform", 1),          # the contract: src/platform/*.h
    ("store", 2),
    ("shared", 3),
    ("audio", 4),
    ("diagnostics", 5),
    ("input", 6),
    ("text", 7),
    ("backend", 8),
    ("ai", 9),
    ("files", 10),
    ("core", 11),
    ("ui", 12),
    ("platform/loop", 13),
    ("platform/linux", 13),
    ("platform/test", 13),
    ("platform/qt", 14),
    ("app", 15),
]
# The server is a program of its own: it stands on the ground floor and nothing else of the client.
SERVER_MAY_INCLUDE = {"base", "server"}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')


def folder_of_src(relative):
    parts = relative.split("/")
    if parts[0] == "platform" and len(parts) > 2:
        return "platform/" + parts[1]
    return parts[0] if len(parts) > 1 else ""


def main():
    repo = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    level = dict(LAYERS)
    src = os.path.join(repo, "src")
    faults = []
    checked = 0

    def target_folder(including_dir, name):
        for base in (src, including_dir):
            path = os.path.normpath(os.path.join(base, name))
            if os.path.exists(path) and path.startswith(src + os.sep):
                return folder_of_src(os.path.relpath(path, src))
        if name.startswith("base/BuildInfo.h"):
            return "base"
        if name.startswith("server/"):
            return "server"
        return None

    for top in ("src", "server"):
        for directory, _, files in os.walk(os.path.join(repo, top)):
            for file in sorted(files):
                if not file.endswith((".h", ".cpp")):
                    continue
                path = os.path.join(directory, file)
                relative = os.path.relpath(path, repo)
                here = "server" if top == "server" else folder_of_src(os.path.relpath(path, src))
                if here != "server" and here not in level:
                    faults.append(f"{relative}: folder '{here}' has no layer; add it to LAYERS")
                    continue
                with open(path, encoding="utf-8", errors="replace") as handle:
                    for number, line in enumerate(handle, 1):
                        match = INCLUDE.match(line)
                        if not match:
                            continue
                        there = target_folder(directory, match.group(1))
                        if there is None or there == here:
                            continue
                        checked += 1
                        if here == "server":
                            if there not in SERVER_MAY_INCLUDE:
                                faults.append(f"{relative}:{number}: the server includes {match.group(1)}")
                            continue
                        if there == "server":
                            if here != "app":
                                faults.append(f"{relative}:{number}: only the programs may include the server")
                            continue
                        if there not in level:
                            faults.append(f"{relative}:{number}: {match.group(1)} is in a folder with no layer")
                        elif level[there] >= level[here]:
                            faults.append(f"{relative}:{number}: {here} (layer {level[here]}) includes "
                                          f"{match.group(1)} ({there}, layer {level[there]})")
    for fault in faults:
        print(fault)
    print(f"{checked} includes across folders checked, {len(faults)} running back up")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
