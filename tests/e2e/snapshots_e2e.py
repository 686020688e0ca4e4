#!/usr/bin/env python3
"""Saved states a developer can rely on, on the demo OS image under TCG: a
quick-boot state saved with other hardware boots cold with one line saying
why, a session that ends without the quick-boot save is never resumed over,
a state the emulator refuses falls back to one cold boot, and named
snapshots are restored by a start and by a load into the running guest."""

import json
import os
import subprocess
import sys
import signal
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from hvtool_e2e import ADB_BASE, Failure, banner, check, scenario_main  # noqa: E402


def run(env, *args, expect=0):
    """hvtool with JSON output: (parsed stdout or None, stderr)."""
    proc = subprocess.run([env.hvtool, *args, "--format", "json"], env=env.env, stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=300)
    if proc.returncode != expect:
        raise Failure(f"{' '.join(args)}: exit {proc.returncode}, expected {expect}\n"
                      f"stdout: {proc.stdout}\nstderr: {proc.stderr}")
    try:
        return json.loads(proc.stdout), proc.stderr
    except ValueError:
        return None, proc.stderr


def start(env, name, *extra, expect=0):
    info, err = run(env, "device", "start", name, "--wait", "120", *extra, expect=expect)
    if expect != 0:
        return info, None, err
    return info, banner(ADB_BASE + info["port_offset"]), err


def emulators_of(path):
    """The emulator processes whose command line names the device's disks."""
    found = []
    for pid in os.listdir("/proc"):
        if not pid.isdigit():
            continue
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as f:
                if (path + "/system.qcow2").encode() in f.read():
                    found.append(int(pid))
        except OSError:
            pass
    return found


def steps(env, image_dir):
    image = env.run("image", "add", os.path.join(image_dir, "demo-android-11.0.json"), json_out=True)["uuid"]
    env.run("profile", "create", "snap", "--cpus", "1", "--ram", "512", "--data-disk", "64")
    env.run("device", "create", "phone", "--image", image, "--profile", "snap")
    path = env.run("device", "show", "phone", json_out=True)["path"]

    # 1. RAM changed after the quick-boot save: a cold boot that says why,
    #    then a new state that the next start resumes.
    _, first, _ = start(env, "phone", "--cold")
    run(env, "device", "stop", "phone")
    _, err = run(env, "device", "set", "phone", "ram=768")
    check("the quick-boot state of 'phone' becomes unloadable: saved with 512 MB of RAM, the device now has "
          "768 MB; the next start boots cold and discards it" in err, f"set ram should warn: {err}")
    info, cold, err = start(env, "phone")
    check(info["boot"] == "cold" and cold["boot_id"] != first["boot_id"], f"should boot cold: {info} {cold}")
    check("quick-boot state saved with 512 MB of RAM, the device now has 768 MB: booting cold" in err, err)
    run(env, "device", "stop", "phone")
    info, warm, _ = start(env, "phone")
    check(info["boot"] == "resumed" and warm["boot_id"] == cold["boot_id"], f"not resumed: {cold} vs {warm}")
    print("snapshots: 1 changed hardware boots cold, then resumes")

    # The guest counts its cold boots on its data disk: a count that goes on
    # is a disk write kept, a boot id that changes is a cold boot.
    def plain_start_after_unsaved(session):
        info, after, err = start(env, "phone")
        check(info["boot"] == "cold" and after["boot_id"] != session["boot_id"]
              and int(after["boot_count"]) == int(session["boot_count"]) + 1, f"{session} then {info} {after}")
        check("the last session of 'phone' ended without saving its state: booting cold, keeping its disk "
              "writes" in err, err)
        return info, after

    run(env, "device", "stop", "phone")
    _, session, _ = start(env, "phone", "--cold")
    run(env, "device", "stop", "phone", "--no-save")
    _, unsaved = plain_start_after_unsaved(session)
    run(env, "device", "stop", "phone")
    info, resumed, _ = start(env, "phone")
    check(info["boot"] == "resumed" and resumed["boot_id"] == unsaved["boot_id"], f"not resumed: {resumed}")
    for pid in emulators_of(path):
        os.kill(pid, signal.SIGKILL)
    time.sleep(1)
    run(env, "device", "snapshot", "save", "phone", "latest", expect=2)
    _, killed = plain_start_after_unsaved(resumed)
    run(env, "device", "snapshot", "save", "phone", "mark")
    run(env, "device", "stop", "phone")
    start(env, "phone", "--snapshot", "mark")
    run(env, "device", "stop", "phone", "--no-save")
    names = [s["name"] for s in run(env, "device", "snapshot", "list", "phone")[0]]
    check(names == ["mark"], f"a snapshot start discards the quick-boot state: {names}")
    _, warm = plain_start_after_unsaved(killed)
    print("snapshots: 1b sessions ended without the quick-boot save are never resumed over")

    # 2. A state the emulator cannot load, though its record says it fits
    #    (the RAM changed behind the record's back): one cold boot.
    run(env, "device", "stop", "phone")
    run(env, "device", "set", "phone", "ram=512")
    records_path = os.path.join(path, "snapshots.json")
    with open(records_path) as f:
        records = json.load(f)
    records["latest"]["ram_mb"] = 512
    with open(records_path, "w") as f:
        json.dump(records, f)
    info, fallback, err = start(env, "phone")
    check(info["boot"] == "cold" and fallback["boot_id"] != warm["boot_id"], f"should fall back: {info} {fallback}")
    check("the quick-boot state could not be loaded: booted cold" in err, err)
    check(len(emulators_of(path)) == 1, f"one emulator should run: {emulators_of(path)}")
    print("snapshots: 2 an unloadable state falls back to one cold boot")

    # 3. A named snapshot, restored by a start and by a load.
    time.sleep(2)
    run(env, "device", "snapshot", "save", "phone", "checkpoint")
    saved = banner(ADB_BASE + info["port_offset"])
    listed, _ = run(env, "device", "snapshot", "list", "phone")
    entry = {s["name"]: s for s in listed}.get("checkpoint")
    check(entry and entry["size"] > 0 and entry["loadable"] and not entry["quick_boot"]
          and entry["guest_clock_seconds"] > 0, f"snapshot list: {listed}")
    time.sleep(3)
    run(env, "device", "stop", "phone", "--no-save")
    info, restored, _ = start(env, "phone", "--snapshot", "checkpoint")
    check(info["boot"] == "snapshot" and restored["boot_id"] == fallback["boot_id"], f"start --snapshot: {restored}")
    # The guest's clock continues from the save, not from the later stop.
    check(float(saved["uptime"]) <= float(restored["uptime"]) < float(saved["uptime"]) + 3,
          f"uptime should continue from the save: {saved} then {restored}")
    run(env, "device", "stop", "phone", "--no-save")
    _, other, _ = start(env, "phone", "--cold")
    check(other["boot_id"] != fallback["boot_id"], "a cold boot is a new guest")
    run(env, "device", "snapshot", "load", "phone", "checkpoint")
    loaded = banner(ADB_BASE + info["port_offset"])
    check(loaded["boot_id"] == fallback["boot_id"], f"snapshot load should return to the saved guest: {loaded}")
    print("snapshots: 3 named snapshots restored by start and by load")

    # 4. Refusals: nothing is deleted.
    _, err = run(env, "device", "snapshot", "load", "phone", "nosuch", expect=3)
    check("snapshot 'nosuch' of device 'phone' does not exist" in err, err)
    run(env, "device", "stop", "phone")
    _, err = run(env, "device", "snapshot", "load", "phone", "checkpoint", expect=4)
    check("is not running" in err, err)
    _, _, err = start(env, "phone", "--snapshot", "nosuch", expect=3)
    _, err = run(env, "device", "set", "phone", "cpus=2")
    check("the quick-boot state of 'phone' becomes unloadable: saved with 1 CPUs, the device now has 2" in err
          and "snapshot 'checkpoint' of 'phone' becomes unloadable: saved with 1 CPUs" in err
          and "'mark'" not in err, f"set should name the snapshots it makes unloadable: {err}")
    _, _, err = start(env, "phone", "--snapshot", "checkpoint", expect=4)
    check("was saved with 1 CPUs, the device now has 2; it cannot be loaded" in err, err)
    names = [s["name"] for s in run(env, "device", "snapshot", "list", "phone")[0]]
    check("checkpoint" in names and "latest" in names, f"refusals must delete nothing: {names}")
    start(env, "phone")
    names = [s["name"] for s in run(env, "device", "snapshot", "list", "phone")[0]]
    check("latest" not in names, f"the next start discards the quick-boot state, as set said: {names}")
    run(env, "device", "stop", "phone")
    # A snapshot the image tool made under a name of its own is listed and deleted.
    subprocess.run(["qemu-img", "snapshot", "-c", "my-snap.1", os.path.join(path, "system.qcow2")], check=True)
    check("my-snap.1" in [s["name"] for s in run(env, "device", "snapshot", "list", "phone")[0]], "listed")
    run(env, "device", "snapshot", "delete", "phone", "my-snap.1")
    check("my-snap.1" not in [s["name"] for s in run(env, "device", "snapshot", "list", "phone")[0]], "deleted")
    print("snapshots: 4 refusals keep every snapshot; set names those it makes unloadable")

    # 5. A reset names the snapshots it deletes before it asks.
    _, err = run(env, "device", "reset", "phone", "--yes")
    check("resetting 'phone' deletes its snapshots:" in err and "checkpoint" in err and "latest" in err, err)
    check(run(env, "device", "snapshot", "list", "phone")[0] == [], "a reset leaves no snapshot")
    print("snapshots: 5 a reset lists the snapshots it deletes")

    # 6. A state records its accelerator: a start under the other one boots
    #    cold and says so before it starts, whether that start then succeeds.
    start(env, "phone", "--cold")
    run(env, "device", "stop", "phone")
    with open(records_path) as f:
        saved = json.load(f)["latest"]
    other = {"tcg": ("kvm", "host"), "kvm": ("tcg", "max")}[saved["accelerator"]]
    proc = subprocess.run([env.hvtool, "device", "start", "phone", "--accel", other[0]], env=env.env,
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)
    check(f"quick-boot state saved under {saved['accelerator'].upper()} with CPU model {saved['cpu']}, this start "
          f"runs {other[0].upper()} with {other[1]}: booting cold; the cold boot replaces the quick-boot state"
          in proc.stderr.splitlines()[0], proc.stderr)
    print("snapshots: 6 a state saved under another accelerator boots cold")


if __name__ == "__main__":
    scenario_main("snapshots", lambda env, image_dir, home: steps(env, image_dir))
