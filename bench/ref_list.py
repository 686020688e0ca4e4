#!/usr/bin/env python3
"""The reference for the listing rows of scripts/bench: reads and parses the
device.json of every device directory and prints the list as JSON.

  ref_list.py DEVICES_DIRECTORY
"""
import json
import os
import sys


def main():
    root = sys.argv[1]
    devices = []
    for name in sorted(os.listdir(root)):
        path = os.path.join(root, name, "shared", "config", "device.json")
        try:
            with open(path) as f:
                config = json.load(f)
        except (OSError, ValueError):
            continue
        profile = config.get("hardware_profile", {})
        devices.append({
            "name": name,
            "uuid": config.get("uuid", ""),
            "android_version": config.get("os_image", {}).get("os_version", {}).get("os_version", ""),
            "path": os.path.abspath(os.path.join(root, name)),
            "cpus": profile.get("cpu_count"),
            "ram_mb": profile.get("ram_size"),
        })
    json.dump(devices, sys.stdout, indent=4, sort_keys=True)
    sys.stdout.write("\n")


if __name__ == "__main__":
    main()
