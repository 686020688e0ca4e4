#!/usr/bin/env python3
"""End-to-end: what a device shows of itself. A screenshot of the demo guest
is a real PNG image of its screen, which shows the guest's status; the
console log has its boot lines and follows what it prints; a guest printing
without end leaves the log within its bound; the window opens under Xvfb and
is refused without a display."""

import argparse
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import zlib
from pathlib import Path

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from hvtool_e2e import Env, check, start, stop_all  # noqa: E402


def png_pixels(path):
    """(width, height, pixel bytes) of an 8-bit RGB or RGBA PNG image."""
    data = Path(path).read_bytes()
    check(data.startswith(b"\x89PNG\r\n\x1a\n"), f"{path} is not a PNG image")
    pos, idat = 8, b""
    while pos < len(data):
        (length,), kind = struct.unpack(">I", data[pos:pos + 4]), data[pos + 4:pos + 8]
        body = data[pos + 8:pos + 8 + length]
        check(struct.unpack(">I", data[pos + 8 + length:pos + 12 + length])[0] == zlib.crc32(kind + body),
              f"{path}: bad CRC in {kind}")
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", body[:10])
        idat += body if kind == b"IDAT" else b""
        pos += 12 + length
    check(depth == 8 and colour in (2, 6), f"{path}: depth {depth}, colour type {colour}")
    bpp, raw, out = 3 if colour == 2 else 4, zlib.decompress(idat), bytearray()
    stride, prev = width * (3 if colour == 2 else 4), bytearray(width * (3 if colour == 2 else 4))
    for y in range(height):
        kind, row = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for x in range(stride):
            a, b = row[x - bpp] if x >= bpp else 0, prev[x]
            c = prev[x - bpp] if x >= bpp else 0
            p = a + b - c
            paeth = a if abs(p - a) <= abs(p - b) and abs(p - a) <= abs(p - c) else (b if abs(p - b) <= abs(p - c) else c)
            row[x] = (row[x] + (0, a, b, (a + b) // 2, paeth)[kind]) & 0xFF
        out += row
        prev = row
    return width, height, bytes(out)


def console_until(env, name, pattern, timeout=60):
    """The console log once it shows pattern."""
    deadline = time.time() + timeout
    while time.time() < deadline:
        text = env.run("device", "logs", name).stdout
        if re.search(pattern, text):
            return text
        time.sleep(1)
    raise AssertionError(f"'{pattern}' not in the console of {name}: {text}")


def screenshots(env, name, path):
    shot = env.run("device", "screenshot", name, os.path.join(env.home, "a.png"), json_out=True)
    width, height, first = png_pixels(shot["file"])
    # The demo guest's screen is the VGA text mode: 80 x 25 cells of 9 x 16.
    check((width, height) == (720, 400) == (shot["width"], shot["height"]), f"screenshot size: {shot}")
    check(len(set(first[i:i + 3] for i in range(0, len(first), 3))) > 1, "the screenshot is one colour")
    time.sleep(1.5)
    run = subprocess.run([env.hvtool, "device", "screenshot", name], env=env.env, cwd=env.home, capture_output=True,
                         text=True)
    later = next(Path(env.home).glob(f"{name}-*.png"))
    check(run.returncode == 0 and str(later) in run.stdout, run.stdout + run.stderr)
    check(png_pixels(later)[2] != first, "the guest's status (its uptime) should change on its screen")
    refused = env.run("device", "screenshot", name, "/nonexistent/x.png", expect=1).stderr
    check("cannot write '/nonexistent/x.png'" in refused, refused)
    check(not list(Path(path).glob(".screenshot-*")), "a refused screenshot left its temporary file")


def logs(env, name):
    text = console_until(env, name, r"demo: status")
    check("demo: loading virtio drivers" in text and "\x1b" not in text, f"the boot lines: {text}")
    shown = max(float(u) for u in re.findall(r"demo: status .*uptime=([\d.]+)", text))
    follow = subprocess.Popen([env.hvtool, "device", "logs", name, "--follow"], env=env.env, stdout=subprocess.PIPE,
                              text=True)
    deadline, later = time.time() + 40, None
    while not later and time.time() < deadline:
        found = re.search(r"demo: status .*uptime=([\d.]+)", follow.stdout.readline())
        later = found.group(0) if found and float(found.group(1)) > shown else None
    check(later, f"--follow showed no status line after uptime {shown}")
    env.run("device", "stop", name)
    check(follow.wait(timeout=20) == 0, "--follow should end with the device")
    check(later in env.run("device", "logs", name).stdout, "the stopped device's log should keep its last run")
    err = env.run("device", "start", name, "--cold", "--wait", "1", expect=1).stderr
    shown = err.partition("the console's last lines")[2].splitlines()[1:]
    check(shown and shown[0].startswith("  ") and shown[0].strip(), f"a start that fails shows the console: {err}")
    env.run("device", "stop", name, "--no-save")


def flood_image(env, image_dir):
    """An OS image whose guest writes lines of x on its serial port without end."""
    work = Path(env.home) / "flood"
    work.mkdir()
    code = bytes.fromhex("baf803" "b94000" "b078" "ee" "e2fb" "b00a" "ee" "ebf3")
    (work / "system.img").write_bytes(code.ljust(510, b"\0") + b"\x55\xaa" + bytes(1 << 20))
    (work / "data.img").write_bytes(bytes(1 << 20))
    for disk in ("system", "data"):
        subprocess.run(["qemu-img", "convert", "-f", "raw", "-O", "vmdk", "-o", "subformat=streamOptimized",
                        work / f"{disk}.img", work / f"{disk}.vmdk"], check=True)
    (work / "flood.ovf").write_text("<Envelope/>\n")
    subprocess.run(["tar", "--format=ustar", "-C", work, "-cf", work / "flood.ova", "flood.ovf", "system.vmdk",
                    "data.vmdk"], check=True)
    record = (Path(image_dir) / "demo-android-11.0.json").read_text()
    ova = (work / "flood.ova").read_bytes()
    import hashlib, json, uuid
    fields = dict(json.loads(record), image_uri=(work / "flood.ova").as_uri(), name="flood",
                  image_hash=hashlib.sha256(ova).hexdigest(), image_size_bytes=len(ova), uuid=f"{{{uuid.uuid4()}}}")
    (work / "flood.json").write_text(json.dumps(fields))
    return env.run("image", "add", str(work / "flood.json"), json_out=True)["uuid"]


def bounded(env, image_dir):
    cap = 16384
    env.env["HV_CONSOLE_LOG_BYTES"] = str(cap)
    env.run("device", "create", "flood", "--image", flood_image(env, image_dir), "--profile", "view")
    env.run("device", "start", "flood", "--cold")
    log = Path(env.run("device", "show", "flood", json_out=True)["console_log"])
    follow = subprocess.Popen([env.hvtool, "device", "logs", "flood", "--follow"], env=env.env,
                              stdout=subprocess.DEVNULL)
    for _ in range(8):
        time.sleep(1)
        env.run("device", "logs", "flood")
        check(log.stat().st_size <= cap, f"{log} grew to {log.stat().st_size} bytes")
    env.run("device", "stop", "flood", "--no-save")
    follow.wait(timeout=20)
    head = log.read_text().splitlines()[0]
    dropped = re.fullmatch(r"\[(\d+) bytes of earlier console output dropped\]", head)
    check(dropped and int(dropped.group(1)) > cap and log.stat().st_size <= cap, f"{log}: {head}")
    env.env.pop("HV_CONSOLE_LOG_BYTES")


def xwd_colours(display):
    """How many pixel values a capture of the X screen holds."""
    data = subprocess.run(["xwd", "-root", "-silent", "-display", display], capture_output=True, check=True).stdout
    header = struct.unpack(">25I", data[:100])
    pixels = data[header[0] + header[19] * 12:]
    return len(set(pixels[i:i + 4] for i in range(0, len(pixels), 4)))


def window(env, name):
    bare = {k: v for k, v in env.env.items() if k not in ("DISPLAY", "WAYLAND_DISPLAY")}
    refused = subprocess.run([env.hvtool, "device", "start", name, "--window"], env=bare, capture_output=True,
                             text=True)
    check(refused.returncode == 1 and "no display to show its window on" in refused.stderr, refused.stderr)
    display = f":{os.getpid() % 400 + 100}"
    xvfb = subprocess.Popen(["Xvfb", display, "-screen", "0", "1024x768x24", "-nolisten", "tcp"],
                            stderr=subprocess.DEVNULL)
    try:
        time.sleep(1)
        check(xwd_colours(display) == 1, "the X screen should start blank")
        env.env["DISPLAY"] = display
        start(env, name, "--window")
        console_until(env, name, r"demo: status")
        colours = xwd_colours(display)
        check(colours > 1, "the window should show the guest's screen")
        env.run("device", "stop", name, "--no-save")
    finally:
        env.env.pop("DISPLAY", None)
        xvfb.kill()
        xvfb.wait()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--hvtool", required=True)
    parser.add_argument("--image-dir", required=True)
    parser.add_argument("--demo-image", required=True)
    args = parser.parse_args()
    subprocess.run([args.demo_image, args.image_dir], check=True, stdout=subprocess.DEVNULL)
    home = tempfile.mkdtemp(prefix="hv-view-")
    env = Env(args.hvtool, home)
    env.home = home
    try:
        image = env.run("image", "add", os.path.join(args.image_dir, "demo-android-11.0.json"), json_out=True)
        env.run("profile", "create", "view", "--cpus", "1", "--ram", "256", "--data-disk", "64")
        env.run("device", "create", "demo", "--image", image["uuid"], "--profile", "view")
        info, _, _ = start(env, "demo", "--cold")
        screenshots(env, "demo", info["path"])
        logs(env, "demo")
        bounded(env, args.image_dir)
        window(env, "demo")
    finally:
        try:
            stop_all(env)
        finally:
            shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    main()
