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
    stopped = env.run("device", "stop", "stale", "--force")
    check(stopped["was_running"] is False, stopped)
    check(state_of(int(owner["pid"])) not in (None, "Z"), "stopping the stale device killed the other emulator")
    check(env.run("device", "show", "owner")["status"] == "On", "the owner should still run")
    env.run("device", "stop", "owner", "--no-save")
    print("supervision: a reused pid is not the device's emulator")


STAND_IN = """#!/usr/bin/env python3
# Stands in for the emulator: binds the forwarded ports and the control
# socket, then is silent there ("silent") or greets in another protocol.
import os, re, socket, sys, time
if sys.argv[1:] == ["--version"]:
    print("QEMU emulator version 7.2.0")
    sys.exit(0)
with open(os.environ["STAND_IN_PID"], "w") as f:
    f.write(str(os.getpid()))
line = " ".join(sys.argv)
held = []
for port in re.findall(r"hostfwd=tcp:127\\.0\\.0\\.1:(\\d+)-", line):
    s = socket.socket()
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("127.0.0.1", int(port)))
    s.listen()
    held.append(s)
path = re.search(r"unix:([^,]+),server", line).group(1)
if os.path.exists(path):
    os.unlink(path)
server = socket.socket(socket.AF_UNIX)
server.bind(path)
server.listen()
while True:
    client, _ = server.accept()
    if os.environ["STAND_IN"] != "silent":
        client.sendall(b"220 mail.example ESMTP ready\\r\\n")
    held.append(client)
"""


def stand_in_starts(env, image, work):
    """An emulator that never opens its ports, one whose monitor stays silent
    and one that greets in another protocol: each start ends with what it
    was, and none is left running."""
    bindir = os.path.join(work, "standin")
    os.makedirs(bindir)
    os.symlink(subprocess.run(["which", "qemu-img"], capture_output=True, text=True).stdout.strip(),
               os.path.join(bindir, "qemu-img"))
    pidfile = os.path.join(work, "standin.pid")
    env.run("device", "create", "stuck", "--image", image, "--profile", "small")
    for mode, timeout, expected in (
            ("sleep", "1500", "QEMU did not open its forwarded ports within 1.5 s and was stopped"),
            ("silent", "1500", "QEMU did not become ready within 1.5 s and was stopped"),
            ("smtp", "20000", "QEMU's control socket did not speak QMP (it greeted with \"220 mail.example ESMTP "
                              "ready\")")):
        standin = dict(env.env, HV_QEMU_BIN_DIR=bindir, HV_QEMU_READY_TIMEOUT_MS=timeout, STAND_IN=mode,
                       STAND_IN_PID=pidfile)
        with open(os.path.join(bindir, "qemu-system-x86_64"), "w") as f:
            f.write(STAND_IN if mode != "sleep" else
                    "#!/bin/sh\nif [ \"$1\" = --version ]; then echo 'QEMU emulator version 7.2.0'; exit 0; fi\n"
                    f"echo $$ > {pidfile}\nexec sleep 300\n")
        os.chmod(os.path.join(bindir, "qemu-system-x86_64"), 0o700)
        began = time.time()
        err = env.run("device", "start", "stuck", "--cold", expect=1, env=standin)
        check(expected in err, f"{mode}: {err}")
        with open(pidfile) as f:
            pid = int(f.read())
        check(state_of(pid) in (None, "Z"), f"{mode}: the stand-in emulator was left running")
        check(env.run("device", "show", "stuck")["status"] == "Off", f"{mode}: a failed start leaves it Off")
        print(f"supervision: a stand-in that is '{mode}' fails the start in {time.time() - began:.1f} s: {expected}")
    check(time.time() - began < 10, "a protocol error should end the start at once, not at its time-out")


def emulator_of(path):
    """The live pid that the device directory's lock file names, or None."""
    try:
        with open(os.path.join(path, "qemu.lock")) as f:
            pid = int(f.read().split("pid=")[1].split()[0])
    except (OSError, IndexError, ValueError):
        return None
    return pid if state_of(pid) not in (None, "Z") else None


def resumes_outlasting_their_time_out(env, image, work):
    """Three devices whose saved states (1 GiB of guest memory that does not
    compress) load for longer than their lowered ready time-out, resumed at
    once: the three emulators run side by side (the port lock is held only
    while each binds its ports), and each device runs, resumed or booted
    cold with the reason."""
    memory = os.path.join(work, "memory.bin")
    with open(memory, "wb") as f:
        for _ in range(1024):
            f.write(os.urandom(1 << 20))
    big = dict(env.env, HV_QEMU_START_ARGS="-object[-1]=memory-backend-file,id=m0,size=1G,"
               f"mem-path={memory},share=off;-machine=memory-backend=m0")
    env.run("profile", "create", "big", "--cpus", "1", "--ram", "1024", "--data-disk", "64")
    names = [f"resume-{i}" for i in range(3)]
    paths = []
    for name in names:
        env.run("device", "create", name, "--image", image, "--profile", "big")
        paths.append(env.run("device", "start", name, "--cold", env=big)["path"])
        env.run("device", "stop", name, env=big)
    lock = os.path.join(os.path.dirname(paths[0]), "port-offset.lock")
    slow = dict(big, HV_QEMU_READY_TIMEOUT_MS="1500")
    procs = [env.popen("device", "start", name, env=slow) for name in names]
    side_by_side = False
    held_since, longest_hold = None, 0.0
    while any(p.poll() is None for p in procs):
        now = time.time()
        if os.path.exists(lock):
            held_since = held_since or now
            longest_hold = max(longest_hold, now - held_since)
        else:
            held_since = None
        if all(p.poll() is None for p in procs) and all(emulator_of(path) for path in paths):
            side_by_side = True
        time.sleep(0.001)
    check(side_by_side, "the three emulators never ran at once: the starts were serialised")
    boots = {}
    for name, proc in zip(names, procs):
        out, err = proc.communicate()
        check(proc.returncode == 0, f"{name}: exit {proc.returncode}: {err}")
        boots[name] = json.loads(out)["boot"]
        check(boots[name] == "resumed" or "could not be loaded (QEMU did not finish loading the saved state 'latest' (" in err,
              f"{name} booted cold without the reason: {err}")
    check("cold" in boots.values(), f"no load outlasted its time-out: {boots}")
    for name in names:
        env.run("device", "stop", name, "--no-save")
        env.run("device", "delete", name, "--yes")
    print(f"supervision: three resumes at once: {boots}; the port lock was held at most {longest_hold * 1000:.0f} ms")


def memory_check(env, image):
    """A start that would take more memory than the host has is refused with
    the numbers, unless forced."""
    env.run("profile", "create", "huge", "--cpus", "1", "--ram", "100000000", "--data-disk", "64")
    env.run("device", "create", "greedy", "--image", image, "--profile", "huge")
    err = env.run("device", "start", "greedy", expect=4)
    check("device 'greedy' not started: it needs 100000000 MiB of memory and the host has " in err
          and "use --force to start it anyway" in err, err)
    err = env.run("device", "start", "greedy", "--force", expect=1)
    check("--force" not in err, f"a forced start goes past the check: {err}")
    env.run("device", "delete", "greedy", "--yes")
    print("supervision: a start short of memory is refused unless forced")


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
        stand_in_starts(env, image, work)
        resumes_outlasting_their_time_out(env, image, work)
        memory_check(env, image)
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
