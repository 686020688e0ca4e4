#!/usr/bin/env python3
"""End-to-end tests: drive hvtool as a user would, on the demo OS image,
with the real emulator and no developer override: the accelerator and audio
backend are what "auto" picks on this host. Each step asserts outcomes
(banners, boot ids, counters, exit codes), not log lines."""

import argparse
import atexit
import json
import os
import stat
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ADB_BASE = 6555


class Failure(Exception):
    pass


class Env:
    def __init__(self, hvtool, home):
        self.hvtool = hvtool
        self.env = dict(os.environ)
        self.env.update({"HV_HOME": home, "HOME": home, "XDG_CONFIG_HOME": os.path.join(home, ".config")})
        self.env.pop("HV_QEMU_START_ARGS", None)
        # A start connects the user's adb: to a server of this run's own,
        # ended with it.
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            self.adb_port = str(s.getsockname()[1])
        self.env["ANDROID_ADB_SERVER_PORT"] = self.adb_port
        atexit.register(lambda: shutil.which("adb") and subprocess.run(
            ["adb", "-P", self.adb_port, "kill-server"], capture_output=True, timeout=30))
        self.timings = {}

    def run(self, *args, expect=0, json_out=False):
        cmd = [self.hvtool, *args] + (["--format", "json"] if json_out else [])
        proc = subprocess.run(cmd, env=self.env, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=300)
        if expect is not None and proc.returncode != expect:
            raise Failure(f"{' '.join(args)}: exit {proc.returncode}, expected {expect}\n"
                          f"stdout: {proc.stdout}\nstderr: {proc.stderr}")
        if json_out and expect == 0:
            return json.loads(proc.stdout)
        return proc


def bridge_shell(port, command):
    """Runs command in the guest through its debug bridge daemon, spoken
    directly; its output. OSError when the daemon does not answer."""
    def message(cmd, arg0, arg1, data=b""):
        word = int.from_bytes(cmd, "little")
        return struct.pack("<6I", word, arg0, arg1, len(data), sum(data), word ^ 0xFFFFFFFF) + data

    with socket.create_connection(("127.0.0.1", port), timeout=3) as s:
        stream = s.makefile("rb")

        def receive():
            header = stream.read(24)
            if len(header) < 24:
                raise OSError("the guest closed the connection")
            cmd, arg0, arg1, length = struct.unpack("<4I", header[:16])
            return cmd.to_bytes(4, "little"), arg0, stream.read(length)

        s.sendall(message(b"CNXN", 0x01000001, 256 * 1024, b"host::\0"))
        if receive()[0] != b"CNXN":
            raise OSError("no device banner")
        s.sendall(message(b"OPEN", 1, 0, b"shell:" + command.encode() + b"\0"))
        output = b""
        while True:
            cmd, remote, data = receive()
            if cmd == b"WRTE":
                output += data
                s.sendall(message(b"OKAY", 1, remote))
            elif cmd == b"CLSE" and remote == 0:
                raise OSError("the guest refused the shell")
            elif cmd == b"CLSE":
                return output.decode()


def banner(port, timeout=90):
    """The guest's line "HALVISTROM-DEMO boot_id=... boot_count=... uptime=...",
    read through its debug bridge, as a dict."""
    deadline = time.time() + timeout
    last = None
    while time.time() < deadline:
        try:
            data = bridge_shell(port, "banner")
            if data.startswith("HALVISTROM-DEMO"):
                return dict(f.split("=", 1) for f in data.split()[1:])
            last = repr(data)
        except OSError as error:
            last = str(error)
        time.sleep(0.5)
    raise Failure(f"no banner on 127.0.0.1:{port} within {timeout} s (last: {last})")


FORWARD_BASES = (6555, 6379, 22468, 24297, 24296, 24800, 24810, 25000)


def free_offsets(exclude=()):
    """The port offsets whose eight forwarded ports are free now, in order:
    what the engine should pick (another program may hold some ports)."""
    result = []
    for offset in range(0, 700, 7):
        if offset in exclude:
            continue
        sockets = []
        try:
            for base in FORWARD_BASES:
                s = socket.socket()
                sockets.append(s)
                # As the engine and QEMU bind: connections in TIME_WAIT from
                # earlier steps do not hold a port.
                s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                s.bind(("0.0.0.0", base + offset))
                s.listen(1)
            result.append(offset)
        except OSError:
            pass
        finally:
            for s in sockets:
                s.close()
    return result


def stop_all(env):
    """Kills every device of the test's home that still runs."""
    listing = subprocess.run([env.hvtool, "device", "list", "--format", "json"], env=env.env,
                             capture_output=True, text=True)
    for d in json.loads(listing.stdout or "[]"):
        if d.get("status") == "On":
            subprocess.run([env.hvtool, "device", "stop", d["name"], "--force"], env=env.env, capture_output=True)


def scenario_main(name, steps):
    """Runs steps(env, image_dir, home) in a home of its own, after making the
    demo image; every device is stopped after it. Exits 1 on a failure."""
    parser = argparse.ArgumentParser()
    for option in ("--hvtool", "--image-dir", "--demo-image"):
        parser.add_argument(option, required=True)
    args = parser.parse_args()
    subprocess.run([args.demo_image, args.image_dir], check=True, stdout=subprocess.DEVNULL)
    home = tempfile.mkdtemp(prefix=f"hv-{name}-")
    env = Env(args.hvtool, home)
    try:
        steps(env, args.image_dir, home)
    except Failure as failure:
        print(f"{name}: FAILED: {failure}", file=sys.stderr)
        sys.exit(1)
    finally:
        stop_all(env)
        shutil.rmtree(home, ignore_errors=True)


def check(condition, message):
    if not condition:
        raise Failure(message)


def device(env, name):
    return env.run("device", "show", name, json_out=True)


def start(env, name, *extra):
    began = time.time()
    info = env.run("device", "start", name, "--wait", "120", *extra, json_out=True)
    fields = banner(info["port_offset"] + ADB_BASE)
    return info, fields, time.time() - began


def doctor_check(env, name):
    return next(c for c in env.run("doctor", json_out=True) if c["check"] == name)


def start_failure(env, *args):
    """The line that says why a start failed."""
    err = env.run("device", "start", *args, expect=1).stderr
    return next(line for line in err.splitlines() if line.startswith("hvtool: could not start"))


def accelerator_and_audio(env, image):
    """doctor names what "auto" picks here; choices it cannot honour fail the
    start with one line that names the cause and ends with the log's path."""
    accel = doctor_check(env, "accelerator")
    check(accel["result"] == "ok" and "auto picks" in accel["detail"], f"doctor's accelerator: {accel}")
    for key, allowed in (("emulator.accelerator", "auto, kvm, tcg"), ("emulator.audio", "auto, none, pa")):
        err = env.run("settings", "set", key, "fast", expect=2).stderr
        check(f"setting '{key}' takes one of {allowed}, not 'fast'" in err, err)
    err = env.run("device", "start", "pixel", "--accel", "fast", expect=2).stderr
    check("--accel takes kvm or tcg, not 'fast'" in err, err)
    if "auto picks TCG here: KVM cannot run guests" in accel["detail"]:
        first = start_failure(env, "pixel", "--accel", "kvm")
        check("KVM cannot run guests on this host" in first and "hvtool settings set emulator.accelerator tcg" in first
              and first.endswith("qemu.log'"), f"forced KVM: {first}")
        fall_back_to_tcg(env, image)
    if "auto picks pa" not in doctor_check(env, "audio")["detail"]:
        env.run("settings", "set", "emulator.audio", "pa")
        first = start_failure(env, "pixel")
        check("the audio backend is not available" in first and first.endswith("qemu.log'"), f"forced pa: {first}")
        env.run("settings", "reset", "emulator.audio")
    print("e2e: 0 accelerator and audio ok", accel["detail"])


def fall_back_to_tcg(env, image):
    """Where KVM cannot run guests, a start whose verdict wrongly said it can
    (as a short probe may on some hosts) boots again under TCG, once, and the
    verdict is learned."""
    cache = next(Path(env.env["HV_HOME"]).rglob("kvm-verdict.json"))
    cache.write_text(cache.read_text().replace('"kvm":"fails"', '"kvm":"runs"'))
    env.run("device", "create", "fallback", "--image", image, "--profile", "e2e")
    info = env.run("device", "start", "fallback", "--wait", "120", "--format", "json")
    check("starting again cold under TCG" in info.stderr, f"the fall-back should say so: {info.stderr}")
    check(json.loads(info.stdout)["boot"] == "cold", info.stdout)
    check('"kvm":"fails"' in cache.read_text(), "the fall-back should record the verdict")
    env.run("device", "stop", "fallback", "--no-save")
    env.run("device", "delete", "fallback", "--yes")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--hvtool", required=True)
    parser.add_argument("--image-dir", required=True)
    parser.add_argument("--demo-image", required=True, help="the script that makes the demo image")
    args = parser.parse_args()

    subprocess.run([args.demo_image, args.image_dir], check=True, stdout=subprocess.DEVNULL)
    home = tempfile.mkdtemp(prefix="hv-e2e-")
    env = Env(args.hvtool, home)
    held = []
    started = time.time()
    try:
        steps(env, args.image_dir, held)
    finally:
        for s in held:
            s.close()
        try:
            stop_all(env)
        finally:
            shutil.rmtree(home, ignore_errors=True)
    print(f"e2e: all steps passed in {time.time() - started:.1f} s")
    for key, value in env.timings.items():
        print(f"e2e: {key}: {value:.2f} s")


def first_day(hvtool, image_dir):
    """0. A new user's path with nothing but names, in a home of its own: the
    only image and the built-in phone; a wait that runs out is taken up again
    with device wait; --wait alone waits its default time."""
    home = tempfile.mkdtemp(prefix="hv-e2e-new-")
    env = Env(hvtool, home)
    try:
        env.run("image", "add", os.path.join(image_dir, "demo-android-11.0.json"))
        made = env.run("device", "create", "first")
        check("using image 'Halvistrom Demo" in made.stderr and "using profile 'phone'" in made.stderr, made.stderr)
        short = env.run("device", "start", "first", "--wait", "1", expect=1)
        check("wait again with 'hvtool device wait first'" in short.stderr, short.stderr)
        check(env.run("device", "wait", "first", "--timeout", "120", json_out=True)["ready"], "device wait")
        banner(device(env, "first")["port_offset"] + ADB_BASE)
        env.run("device", "stop", "first")
        env.run("device", "wait", "first", expect=4)
        env.run("device", "start", "first", "--wait")
        env.run("device", "stop", "first", "--no-save")
    finally:
        stop_all(env)
        shutil.rmtree(home, ignore_errors=True)
    print("e2e: 0 a new user's path ok")


def steps(env, image_dir, held):
    first_day(env.hvtool, image_dir)
    image11 = env.run("image", "add", os.path.join(image_dir, "demo-android-11.0.json"), json_out=True)["uuid"]
    image71 = env.run("image", "add", os.path.join(image_dir, "demo-android-7.1.json"), json_out=True)["uuid"]
    env.run("profile", "create", "e2e", "--cpus", "1", "--ram", "512", "--data-disk", "64")

    # 1. Create; start cold: the banner arrives at 6555 + offset; counter 1.
    env.run("device", "create", "pixel", "--image", image11, "--profile", "e2e")
    accelerator_and_audio(env, image11)
    first_offset = free_offsets()[0]  # 0 on a machine where nothing else runs
    info, cold, env.timings["cold boot to banner"] = start(env, "pixel", "--cold")
    check(info["boot"] == "cold", f"first start should be cold: {info}")
    check(info["port_offset"] == first_offset, f"first device should get offset {first_offset}: {info}")
    # The control channel is a socket in a private directory of its own.
    check(os.stat(os.path.dirname(info["qmp_socket"])).st_mode & 0o077 == 0, f"QMP socket of the device: {info}")
    check(stat.S_ISSOCK(os.stat(info["qmp_socket"]).st_mode), f"{info['qmp_socket']} should be a socket")
    check(os.stat(info["path"]).st_mode & 0o077 == 0, f"{info['path']} should be the owner's only")
    check(cold["boot_count"] == "1", f"counter after the first boot: {cold}")
    print("e2e: 1 cold start ok", cold)

    # 2. Stop with save, then start: the guest resumed.
    env.run("device", "stop", "pixel")
    check(device(env, "pixel")["latest_snapshot"], "stop should have saved 'latest'")
    info, warm, env.timings["quick-boot resume to banner"] = start(env, "pixel")
    check(info["boot"] == "resumed", f"second start should resume: {info}")
    check(warm["boot_id"] == cold["boot_id"] and warm["boot_count"] == "1", f"not resumed: {cold} vs {warm}")
    print("e2e: 2 resume ok", warm)

    # 3. start --cold: a new boot id and counter 2.
    env.run("device", "stop", "pixel", "--no-save")
    info, cold2, _ = start(env, "pixel", "--cold")
    check(info["boot"] == "cold", f"--cold should boot cold: {info}")
    check(cold2["boot_id"] != cold["boot_id"] and cold2["boot_count"] == "2", f"second cold boot: {cold2}")
    print("e2e: 3 cold restart ok", cold2)

    # 4. Clone while the source runs: only as a crash-consistent copy, asked
    # for, with the guest paused for the copy and going on after it; both run
    # at once on their own ports.
    refused = env.run("device", "clone", "pixel", "pixel-2", expect=4)
    check("ask for a crash-consistent copy with --crash-consistent" in refused.stderr, refused.stderr)
    copied = env.run("device", "clone", "pixel", "pixel-2", "--crash-consistent")
    check("(a crash-consistent copy of the running device)" in copied.stdout, copied.stdout)
    clone_offset = free_offsets(exclude=(first_offset,))[0]  # 7 on a quiet machine
    info2, clone, _ = start(env, "pixel-2", "--cold")
    check(info2["port_offset"] == clone_offset, f"the clone should get offset {clone_offset}: {info2}")
    check(clone["boot_id"] != cold2["boot_id"], "the clone should be its own guest")
    check(banner(ADB_BASE + first_offset)["boot_id"] == cold2["boot_id"],
          "the source should still answer on its own port")
    check(device(env, "pixel")["status"] == "On" and device(env, "pixel-2")["status"] == "On", "both should run")
    check(device(env, "pixel-2")["uuid"] != device(env, "pixel")["uuid"], "the clone needs its own uuid")
    print("e2e: 4 clone ok", clone)

    # 5. Reset the stopped source: the next cold start counts 1 again.
    env.run("device", "stop", "pixel-2", "--no-save")
    env.run("device", "stop", "pixel", "--no-save")
    env.run("device", "reset", "pixel", "--yes")
    _, after_reset, _ = start(env, "pixel", "--cold")
    check(after_reset["boot_count"] == "1", f"counter after reset: {after_reset}")
    print("e2e: 5 reset ok", after_reset)

    # 6. SIGKILL the emulator: listed as Off, and the next start works.
    pid = int(open(os.path.join(device(env, "pixel")["path"], "qemu.lock")).read().split("pid=")[1].split()[0])
    os.kill(pid, signal.SIGKILL)
    deadline = time.time() + 10
    while time.time() < deadline and os.path.exists(f"/proc/{pid}") and \
            open(f"/proc/{pid}/stat").read().split()[2] != "Z":
        time.sleep(0.1)
    listed = {d["name"]: d for d in env.run("device", "list", json_out=True)}
    check(listed["pixel"]["status"] == "Off", f"a killed device should list as Off: {listed['pixel']}")
    _, after_kill, _ = start(env, "pixel", "--cold")
    check(after_kill["boot_count"] == "2", f"start after kill: {after_kill}")
    print("e2e: 6 stale lock ok", after_kill)

    # 8. Error paths, while "pixel" runs.
    env.run("device", "create", "pixel", "--image", image11, "--profile", "e2e", expect=4)
    env.run("device", "start", "nosuch", expect=3)
    not_ova = os.path.join(env.env["HV_HOME"], "not-an.ova")
    with open(not_ova, "w") as f:
        f.write("this is not a tar archive\n" * 40)
    proc = env.run("image", "add", not_ova, "--android", "11.0", expect=1)
    check("not an OVA" in proc.stderr, f"image add of a non-OVA: {proc.stderr}")
    proc = env.run("device", "delete", "pixel", "--yes", expect=4)
    check("device 'pixel' is running; stop it first" in proc.stderr, proc.stderr)
    for offset in range(0, 700, 7):
        s = socket.socket()
        s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            s.bind(("127.0.0.1", ADB_BASE + offset))
            s.listen(1)
            held.append(s)
        except OSError:
            s.close()
    print("e2e: holding", len(held), "ports; pixel at offset", device(env, "pixel")["port_offset"])
    proc = env.run("device", "start", "pixel-2", expect=1)
    check("port" in proc.stderr, f"every offset taken: {proc.stderr}")
    # Refused before the launch: the log of pixel-2's earlier run is not this
    # start's, and the refusal does not point at it.
    check("qemu.log" not in proc.stderr, f"a start refused before the launch names no log: {proc.stderr}")
    for s in held:
        s.close()
    held.clear()
    print("e2e: 8 error paths ok")

    # Named snapshots and settings, with "pixel" running and "pixel-2" stopped.
    env.run("device", "snapshot", "save", "pixel", "before_update")
    check("before_update" in [s["name"] for s in env.run("device", "snapshot", "list", "pixel", json_out=True)],
          "snapshot not listed")
    env.run("device", "snapshot", "delete", "pixel", "before_update", expect=4)
    env.run("device", "set", "pixel", "cpus=2", expect=4)
    env.run("device", "set", "pixel-2", "cpus=2", "ram=768", "quickboot=off")
    shown = device(env, "pixel-2")
    check(shown["cpus"] == 2 and shown["ram_mb"] == 768 and not shown["quickboot"], f"settings not stored: {shown}")
    env.run("device", "set", "pixel-2", "colour=red", expect=2)
    info, _, _ = start(env, "pixel-2")
    check(info["boot"] == "cold", f"quickboot=off should boot cold: {info}")
    env.run("device", "stop", "pixel-2")
    env.run("device", "stop", "pixel", "--no-save")
    env.run("device", "snapshot", "delete", "pixel", "before_update")
    env.run("device", "snapshot", "delete", "pixel", "before_update", expect=3)
    check("before_update" not in [s["name"] for s in env.run("device", "snapshot", "list", "pixel", json_out=True)],
          "snapshot kept")
    env.run("device", "start", "pixel", "--cold", "--wait", "120")
    print("e2e: snapshots and settings ok")

    # 7. Quick boot with IDE disks (the Android 7.1 record).
    env.run("device", "create", "legacy", "--image", image71, "--profile", "e2e")
    _, legacy_cold, _ = start(env, "legacy", "--cold")
    env.run("device", "stop", "legacy")
    info, legacy_warm, _ = start(env, "legacy")
    check(info["boot"] == "resumed" and legacy_warm["boot_id"] == legacy_cold["boot_id"],
          f"IDE quick boot: {legacy_cold} vs {legacy_warm}")
    env.run("device", "stop", "legacy", "--no-save")
    print("e2e: 7 IDE quick boot ok")

    # 9. Delete: the directory is gone and the list no longer shows it.
    env.run("device", "stop", "pixel", "--no-save")
    path = device(env, "pixel")["path"]
    env.run("device", "delete", "pixel", "--yes")
    check(not os.path.exists(path), "the device directory should be gone")
    names = [d["name"] for d in env.run("device", "list", json_out=True)]
    check("pixel" not in names and "pixel-2" in names, f"list after delete: {names}")
    print("e2e: 9 delete ok")

    full_disk(env, image11)


def full_disk(env, image):
    """10. The guest writes its boot counter into its data disk at boot. With
    the device directory on a full tmpfs (the data disk an overlay, so the
    write needs new space) the emulator pauses the guest: the device lists as
    Paused with the reason, a resume is refused while the disk is full, and
    once space is freed it resumes and the guest boots on."""
    env.run("device", "create", "full", "--image", image, "--profile", "e2e")
    path = device(env, "full")["path"]
    hold = tempfile.mkdtemp(prefix="hv-full-")
    for entry in os.listdir(path):
        shutil.move(os.path.join(path, entry), hold)
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=8m,mode=0700", "tmpfs", path]).returncode != 0:
        print("e2e: 10 full disk skipped: mounting a tmpfs needs root")
        return
    try:
        for entry in os.listdir(hold):
            shutil.move(os.path.join(hold, entry), path)
        os.rename(os.path.join(path, "data.qcow2"), os.path.join(path, "data-base.qcow2"))
        subprocess.run(["qemu-img", "create", "-f", "qcow2", "-b", "data-base.qcow2", "-F", "qcow2", "data.qcow2"],
                       cwd=path, check=True, stdout=subprocess.DEVNULL)
        filler = os.path.join(path, "filler")
        with open(filler, "wb", buffering=0) as f:
            try:
                while True:
                    f.write(b"\0" * 4096)
            except OSError:
                pass
        # Room for the lock file and the log, not for the disk's new cluster.
        os.truncate(filler, os.path.getsize(filler) - 48 * 1024)
        info = env.run("device", "start", "full", "--cold", json_out=True)
        deadline = time.time() + 120
        while device(env, "full")["status"] != "Paused" and time.time() < deadline:
            time.sleep(0.5)
        shown = device(env, "full")
        check(shown["status"] == "Paused" and "no space left for 'data.qcow2'" in shown["reason"],
              f"a guest stopped by a full disk should list as Paused with the reason: {shown}")
        listing = env.run("device", "list").stdout
        check("Paused" in listing and "'full' is paused: no space left for 'data.qcow2'" in listing, listing)
        refused = env.run("device", "resume", "full", expect=4)
        check("device 'full' stays paused: no space left for 'data.qcow2'" in refused.stderr, refused.stderr)
        os.remove(filler)
        env.run("device", "resume", "full")
        fields = banner(info["port_offset"] + ADB_BASE)
        check(fields["boot_count"] == "1" and device(env, "full")["status"] == "On",
              f"the resumed guest should boot on and count its boot: {fields}")
        env.run("device", "resume", "full", expect=4)
        print("e2e: 10 full disk ok", fields)
    finally:
        env.run("device", "stop", "full", "--force", expect=None)
        subprocess.run(["umount", "-l", path])


if __name__ == "__main__":
    try:
        main()
    except Failure as failure:
        print(f"e2e: FAILED: {failure}", file=sys.stderr)
        sys.exit(1)
