#!/usr/bin/env python3
"""Process supervision, driven through hvtool with the real emulator on
blank-disk devices (the emulator runs and answers QMP; nothing boots):
many starts at once, an emulator that lingers as a zombie, a lock file whose
pid now names another process, an emulator that never becomes ready, and a
start --wait whose emulator dies."""

import argparse
import ctypes
import hashlib
import json
import os
import signal
import subprocess
import sys
import tempfile
import threading
import time
import uuid

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import hvtool_e2e  # noqa: E402
from hvtool_e2e import Failure, check, stop_all  # noqa: E402

PR_SET_CHILD_SUBREAPER = 36


class Env(hvtool_e2e.Env):
    def popen(self, *args, env=None):
        return subprocess.Popen([self.hvtool, *args, "--format", "json"], env=env or self.env,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def run(self, *args, expect=0, env=None):
        proc = self.popen(*args, env=env)
        out, err = proc.communicate(timeout=300)
        if proc.returncode != expect:
            raise Failure(f"{' '.join(args)}: exit {proc.returncode}, expected {expect}\nstdout: {out}\nstderr: {err}")
        if expect != 0:
            return err
        try:
            return json.loads(out)
        except ValueError:
            return out


def lock_of(env, name):
    path = os.path.join(env.run("device", "show", name)["path"], "qemu.lock")
    with open(path) as f:
        return path, dict(line.strip().split("=", 1) for line in f if "=" in line)


def explain(path):
    """What a failed check needs to be understood: the lock file, the state
    of the process it names, and the emulator's error output."""
    text = []
    for name in ("qemu.lock", "qemu.log"):
        try:
            with open(os.path.join(path, name)) as f:
                text.append(f"{name}: {f.read()!r}")
        except OSError as error:
            text.append(f"{name}: {error}")
            continue
        if name == "qemu.lock" and "pid=" in text[-1]:
            pid = int(text[-1].split("pid=")[1].split("\\n")[0])
            text.append(f"process {pid}: state {state_of(pid)}")
    return "\n".join(text)


def state_of(pid):
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0]
    except OSError:
        return None


def blank_image(env, work):
    directory = os.path.join(work, "blank")
    os.makedirs(directory)
    for disk in ("system", "data"):
        subprocess.run(["qemu-img", "create", "-f", "vmdk", "-o", "subformat=streamOptimized",
                        os.path.join(directory, disk + ".vmdk"), "16M"], check=True, stdout=subprocess.DEVNULL)
    ova = os.path.join(work, "blank.ova")
    subprocess.run(["tar", "--format=ustar", "-C", directory, "-cf", ova, "system.vmdk", "data.vmdk"], check=True)
    with open(ova, "rb") as f:
        data = f.read()
    record = {
        "arch": "x86_64", "build_date": "2026-01-01T00:00:00Z", "image_hash": hashlib.sha256(data).hexdigest(),
        "image_size_bytes": len(data), "image_uri": "file://" + ova, "image_version": "0.0.2", "is_beta": False,
        "name": "Blank disks",
        "os_version": {"build_date": "", "code_name": "", "name": "", "os_type": "", "os_version": "11.0.0",
                       "sdk_version": 30, "uuid": ""},
        "source": "USER", "supported_form_factors": ["PHONE"], "uuid": "{%s}" % uuid.uuid4(), "version": "1.1.0",
    }
    path = os.path.join(work, "blank.json")
    with open(path, "w") as f:
        json.dump(record, f)
    env.run("image", "add", path)
    return record["uuid"]


def many_starts_at_once(env, image):
    """Twenty starts at once, as a test farm makes them: all start, each on
    its own port offset."""
    names = [f"farm-{i:02d}" for i in range(20)]
    for name in names:
        env.run("device", "create", name, "--image", image, "--profile", "small")
    procs = [(name, env.popen("device", "start", name, "--cold")) for name in names]
    offsets = {}
    failures = []
    for name, proc in procs:
        out, err = proc.communicate(timeout=300)
        if proc.returncode != 0:
            failures.append(f"{name}: exit {proc.returncode}: {err.strip()}")
        else:
            offsets[name] = json.loads(out)["port_offset"]
    check(not failures, "starts failed:\n" + "\n".join(failures))
    check(len(set(offsets.values())) == 20, f"offsets not distinct: {sorted(offsets.values())}")
    for name in names:
        env.run("device", "stop", name, "--no-save")
        env.run("device", "delete", name, "--yes")
    print("supervision: 20 starts at once on offsets", sorted(offsets.values()))


def zombie_emulator(env, image):
    """This process becomes the subreaper of the emulators it starts and
    never collects them, like a container's first process that reaps late or
    never: an ended emulator stays a zombie."""
    libc = ctypes.CDLL(None, use_errno=True)
    check(libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0, "cannot become a subreaper")
    env.run("device", "create", "undead", "--image", image, "--profile", "small")
    info = env.run("device", "start", "undead", "--cold")
    check(info["port_offset"] == 0, f"first start should take offset 0: {info}\n{explain(info['path'])}")
    _, lock = lock_of(env, "undead")
    pid = int(lock["pid"])
    check(os.getppid() != pid and state_of(pid) not in (None, "Z"), "the emulator should run")

    # A graceful stop: the emulator ends and stays a zombie; the stop sees it
    # end instead of waiting out its time-out.
    stopped = env.run("device", "stop", "undead", "--no-save")
    check(state_of(pid) == "Z", f"the emulator should linger as a zombie, state {state_of(pid)}")
    check(stopped["stop_seconds"] < 5, f"a stop with a zombie emulator took {stopped['stop_seconds']} s")
    check(env.run("device", "show", "undead")["status"] == "Off", "a zombie emulator is not running")

    # Killed: its zombie and stale lock file do not move the device off its
    # offset.
    info = env.run("device", "start", "undead", "--cold")
    pid = int(lock_of(env, "undead")[1]["pid"])
    os.kill(pid, signal.SIGKILL)
    deadline = time.time() + 10
    while state_of(pid) != "Z" and time.time() < deadline:
        time.sleep(0.01)
    check(state_of(pid) == "Z", "the killed emulator should linger as a zombie")
    check(env.run("device", "show", "undead")["status"] == "Off", "a killed device is Off")
    info = env.run("device", "start", "undead", "--cold")
    check(info["port_offset"] == 0, f"a restart after a kill should keep offset 0: {info}")
    env.run("device", "stop", "undead", "--no-save")
    libc.prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0)
    while True:
        try:
            if os.waitpid(-1, os.WNOHANG) == (0, 0):
                break
        except ChildProcessError:
            break
    print("supervision: zombie emulators count as stopped")


def reused_pid(env, image):
    """A lock file whose pid now names another device's emulator: that
    device is not this one, and stopping this one leaves it alone."""
    env.run("device", "create", "owner", "--image", image, "--profile", "small")
    env.run("device", "create", "stale", "--image", image, "--profile", "small")
    env.run("device", "start", "owner", "--cold")
    _, owner = lock_of(env, "owner")
    stale_dir = env.run("device", "show", "stale")["path"]
    # Same pid, another start time: what the system's reuse of a pid looks
    # like to the stale device.
    with open(os.path.join(stale_dir, "qemu.lock"), "w") as f:
        f.write(f"[General]\npid={owner['pid']}\nstart_time={int(owner['start_time']) - 1}\noffset=0\n")
    check(env.run("device", "show", "stale")["status"] == "Off", "a reused pid must not make a device run")
    err = env.run("device", "stop", "stale", "--force", expect=4)
    check("is not running" in err, err)
    check(state_of(int(owner["pid"])) not in (None, "Z"), "stopping the stale device killed the other emulator")
    check(env.run("device", "show", "owner")["status"] == "On", "the owner should still run")
    env.run("device", "stop", "owner", "--no-save")
    print("supervision: a reused pid is not the device's emulator")


def never_ready(env, image, work):
    """An emulator that runs but never opens its monitor ends the start at
    the ceiling, with a clear message, and is not left running."""
    bindir = os.path.join(work, "standin")
    os.makedirs(bindir)
    os.symlink(subprocess.run(["which", "qemu-img"], capture_output=True, text=True).stdout.strip(),
               os.path.join(bindir, "qemu-img"))
    pidfile = os.path.join(work, "standin.pid")
    script = os.path.join(bindir, "qemu-system-x86_64")
    with open(script, "w") as f:
        f.write("#!/bin/sh\n"
                "if [ \"$1\" = --version ]; then echo 'QEMU emulator version 7.2.0'; exit 0; fi\n"
                f"echo $$ > {pidfile}\nexec sleep 300\n")
    os.chmod(script, 0o700)
    standin = dict(env.env, HV_QEMU_BIN_DIR=bindir, HV_QEMU_READY_TIMEOUT_MS="1500")
    env.run("device", "create", "stuck", "--image", image, "--profile", "small")
    err = env.run("device", "start", "stuck", expect=1, env=standin)
    check("QEMU did not become ready within 1.5 s and was stopped" in err, err)
    with open(pidfile) as f:
        pid = int(f.read())
    check(state_of(pid) in (None, "Z"), "the stand-in emulator was left running")
    check(env.run("device", "show", "stuck")["status"] == "Off", "a start that was never ready leaves it Off")
    print("supervision: a start that never becomes ready ends at the ceiling")


def wait_ends_with_the_emulator(env):
    """start --wait returns when the emulator ends, not when its time is up."""
    began = time.time()
    proc = env.popen("device", "start", "stuck", "--cold", "--wait", "120")

    def kill_when_started():
        deadline = time.time() + 60
        while time.time() < deadline:
            try:
                _, lock = lock_of(env, "stuck")
                if state_of(int(lock["pid"])) not in (None, "Z"):
                    time.sleep(0.5)
                    os.kill(int(lock["pid"]), signal.SIGKILL)
                    return
            except (OSError, KeyError, ValueError, Failure):
                pass
            time.sleep(0.05)

    killer = threading.Thread(target=kill_when_started)
    killer.start()
    _, err = proc.communicate(timeout=180)
    killer.join()
    elapsed = time.time() - began
    check(proc.returncode == 1, f"start --wait of a killed emulator: exit {proc.returncode}: {err}")
    check("its emulator ended before the guest answered" in err, err)
    check(elapsed < 60, f"start --wait took {elapsed:.1f} s after its emulator died")
    print(f"supervision: start --wait ended {elapsed:.1f} s after the start, with the emulator")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--hvtool", required=True)
    args = parser.parse_args()
    work = tempfile.mkdtemp(prefix="hv-supervision-")
    env = Env(args.hvtool, os.path.join(work, "home"))
    try:
        image = blank_image(env, work)
        env.run("profile", "create", "small", "--cpus", "1", "--ram", "256", "--data-disk", "64")
        many_starts_at_once(env, image)
        zombie_emulator(env, image)
        reused_pid(env, image)
        never_ready(env, image, work)
        wait_ends_with_the_emulator(env)
    finally:
        stop_all(env)
        subprocess.run(["rm", "-rf", work])


if __name__ == "__main__":
    try:
        main()
    except Failure as failure:
        print(f"supervision: FAILED: {failure}", file=sys.stderr)
        sys.exit(1)
