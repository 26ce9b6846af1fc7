#!/usr/bin/env python3
"""A controller for the end-to-end tests: starts a command with its standard
error on a pipe, as a desktop client does, copies what it reads to LOG, and
once a line holding WAIT_FOR has come, either goes away or stops reading.

  controller.py close|stall PIDFILE LOG WAIT_FOR -- COMMAND...

  close  closes its end of the pipe (the reader is gone), then waits for
         the command.
  stall  keeps the pipe open but never reads again, and fills it to the
         brim (smallest pipe size), then waits for the command.

Writes the command's pid to PIDFILE at once; ends with the command's exit
status (128 + N when signal N ended it), or 3 when WAIT_FOR never came.
"""
import fcntl
import os
import subprocess
import sys

F_SETPIPE_SZ = 1031


def main(argv):
    mode, pidfile, log, wait_for = argv[1:5]
    command = argv[argv.index("--") + 1:]
    read_end, write_end = os.pipe()
    if mode == "stall":
        fcntl.fcntl(write_end, F_SETPIPE_SZ, 4096)
    child = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=write_end)
    with open(pidfile, "w") as f:
        f.write("%d\n" % child.pid)
    if mode != "stall":
        os.close(write_end)
    seen = b""
    with open(log, "ab", buffering=0) as out:
        while wait_for.encode() not in seen:
            chunk = os.read(read_end, 4096)
            if not chunk:
                break
            out.write(chunk)
            seen += chunk
    if wait_for.encode() not in seen:
        child.wait()
        return 3
    if mode == "close":
        os.close(read_end)
    else:
        # A description of its own: O_NONBLOCK on the shared one would
        # reach the command's standard error too.
        filler = os.open("/proc/self/fd/%d" % write_end, os.O_WRONLY | os.O_NONBLOCK)
        try:
            while True:
                os.write(filler, b"." * 512)
        except BlockingIOError:
            pass
    status = child.wait()
    return 128 - status if status < 0 else status


if __name__ == "__main__":
    sys.exit(main(sys.argv))
