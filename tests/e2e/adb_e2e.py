#!/usr/bin/env python3
"""The device as Android developers use it, with Debian's adb client on a
server of this test's own: a start connects adb and waits until the guest's
boot completed; shell output and exit codes, push and pull, the serial kept
across starts, the boot id kept and the clock set by a quick-boot resume, and
a stop that disconnects."""

import hashlib
import json
import os
import socket
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from hvtool_e2e import ADB_BASE, Failure, check, free_offsets, scenario_main  # noqa: E402


def adb(env, *args, expect=0):
    proc = subprocess.run(["adb", "-P", env.adb_port, *args], env=env.env, stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=120)
    if expect is not None and proc.returncode != expect:
        raise Failure(f"adb {' '.join(args)}: exit {proc.returncode}, expected {expect}\n{proc.stdout}{proc.stderr}")
    return proc


def sha256(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def transfers(env, serial, work):
    """Shell output and exit code, then 1 MiB pushed through hvtool and pulled back."""
    shell = adb(env, "-s", serial, "shell", "echo out; echo err >&2; exit 3", expect=3)
    check(shell.stdout == "out\n" and shell.stderr == "err\n", f"shell streams: {shell.stdout!r} {shell.stderr!r}")
    sent, back = os.path.join(work, "sent.bin"), os.path.join(work, "back.bin")
    with open(sent, "wb") as f:
        f.write(os.urandom(1 << 20))
    env.run("device", "adb", "phone", "--", "push", sent, "/data/local/tmp/sent.bin")
    adb(env, "-s", serial, "pull", "/data/local/tmp/sent.bin", back)
    check(sha256(sent) == sha256(back), "the pulled file differs from the pushed one")


def hostile_clients(env, serial, work):
    """Garbage on the port and a push cut short: the daemon serves on, and the
    cut file is neither there nor half-written beside its name."""
    with socket.create_connection(("127.0.0.1", int(serial.split(":")[1])), timeout=5) as s:
        s.sendall(b"CNXN" + bytes(20) + b"garbage" * 100)
    big = os.path.join(work, "big.bin")
    with open(big, "wb") as f:
        f.truncate(64 << 20)
    push = subprocess.Popen(["adb", "-P", env.adb_port, "-s", serial, "push", big, "/data/local/tmp/big.bin"],
                            env=env.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(1)
    push.kill()
    push.wait()
    time.sleep(1)
    left = adb(env, "-s", serial, "shell", "ls /data/local/tmp").stdout.split()
    check(left == ["sent.bin"], f"a cut push left {left}")


def steps(env, image_dir, work):
    image = env.run("image", "add", os.path.join(image_dir, "demo-android-11.0.json"), json_out=True)["uuid"]
    env.run("profile", "create", "dev", "--cpus", "1", "--ram", "512", "--data-disk", "64")
    env.run("device", "create", "phone", "--image", image, "--profile", "dev")
    # Another program holds the first free offset's debug bridge port during
    # the first start only: the serial must not move back once it is gone.
    with socket.socket() as other:
        other.bind(("127.0.0.1", ADB_BASE + free_offsets()[0]))
        other.listen(1)
        cold = env.run("device", "start", "phone", "--cold", "--wait", "120", json_out=True)
    serial = cold["adb_serial"]
    check(cold["adb_connected"], f"the start did not connect adb: {cold}")
    check(adb(env, "-s", serial, "get-state").stdout.strip() == "device", "get-state is not 'device'")
    check(adb(env, "-s", serial, "shell", "getprop", "sys.boot_completed").stdout.strip() == "1",
          "sys.boot_completed is not 1 once --wait returned")
    transfers(env, serial, work)
    hostile_clients(env, serial, work)
    boot_id = adb(env, "-s", serial, "shell", "cat /proc/sys/kernel/random/boot_id").stdout.strip()
    # The saved state keeps a clock an hour behind.
    adb(env, "-s", serial, "shell", f"date -u -s @{int(time.time()) - 3600}")
    env.run("device", "stop", "phone")
    check(serial not in adb(env, "devices").stdout, "the stop did not disconnect adb")

    # An adb too old to use: the start goes on and says how to connect.
    fake = os.path.join(work, "adb")
    with open(fake, "w") as f:
        f.write("#!/bin/sh\necho 'Android Debug Bridge version 1.0.31'\n")
    os.chmod(fake, 0o755)
    old_adb = dict(env.env, PATH=work + ":" + env.env["PATH"])
    start = subprocess.run([env.hvtool, "device", "start", "phone", "--wait", "60", "--format", "json"], env=old_adb,
                           stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)
    warm = json.loads(start.stdout)
    check(warm["boot"] == "resumed" and warm["adb_serial"] == serial, f"resume or serial changed: {warm}")
    check(not warm["adb_connected"] and "is too old: 1.0.39 or newer is needed" in start.stderr
          and f"connect with: adb connect {serial}" in start.stderr, start.stderr)
    refused = subprocess.run([env.hvtool, "device", "adb", "phone", "devices"], env=old_adb, capture_output=True,
                             text=True, timeout=60)
    check(refused.returncode == 1 and "is too old" in refused.stderr, f"{refused.returncode} {refused.stderr}")
    adb(env, "connect", serial)
    check(adb(env, "-s", serial, "shell", "cat /proc/sys/kernel/random/boot_id").stdout.strip() == boot_id,
          "the resumed guest has another boot id")
    guest_time = int(adb(env, "-s", serial, "shell", "date +%s").stdout)
    check(3500 <= warm["clock_moved_seconds"] <= 3700 and abs(guest_time - time.time()) < 60,
          f"clock not set: moved {warm['clock_moved_seconds']} s, guest {guest_time}")
    env.run("device", "stop", "phone", "--no-save")
    refused = env.run("device", "adb", "phone", "--", "shell", "true", expect=4)
    check("device 'phone' is not running" in refused.stderr, refused.stderr)


if __name__ == "__main__":
    scenario_main("adb", steps)
