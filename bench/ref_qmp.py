#!/usr/bin/env python3
"""The reference for the emulator rows of scripts/bench: a plain QMP client.

  ref_qmp.py quit SOCKET PID       ask the emulator to quit, wait for PID to end
  ref_qmp.py savevm SOCKET NAME    save the running state as snapshot NAME

SOCKET is the emulator's QMP unix socket.
"""
import json
import os
import socket
import sys
import time


def session(path):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    sock.settimeout(60)
    sock.connect(path)
    stream = sock.makefile("rwb", buffering=0)
    if b"QMP" not in stream.readline():
        sys.exit("ref_qmp: no QMP greeting")
    execute(stream, "qmp_capabilities")
    return sock, stream


def execute(stream, command, arguments=None, answer=True):
    message = {"execute": command}
    if arguments is not None:
        message["arguments"] = arguments
    stream.write(json.dumps(message).encode() + b"\n")
    while answer:
        line = stream.readline()
        if not line:
            return None
        reply = json.loads(line)
        if "error" in reply:
            sys.exit("ref_qmp: %s failed: %s" % (command, reply["error"]))
        if "return" in reply:
            return reply["return"]
    return None


def ended(pid):
    try:
        with open("/proc/%d/stat" % pid) as stat:
            return stat.read().rsplit(")", 1)[1].split()[0] in ("Z", "X")
    except OSError:
        return True


def main():
    if len(sys.argv) != 4 or sys.argv[1] not in ("quit", "savevm"):
        sys.exit(__doc__.strip())
    sock, stream = session(sys.argv[2])
    if sys.argv[1] == "quit":
        pid = int(sys.argv[3])
        try:
            execute(stream, "quit")
        except OSError:
            pass  # the emulator may close the connection before it answers
        while not ended(pid):
            time.sleep(0.002)
    else:
        output = execute(stream, "human-monitor-command", {"command-line": "savevm " + sys.argv[3]})
        if output:
            sys.exit("ref_qmp: savevm said: " + output.strip())
    sock.close()


if __name__ == "__main__":
    main()
