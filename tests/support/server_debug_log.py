#!/usr/bin/env python3
"""Puts the test sound server's log at debug level, where it records each
playback underrun. The live tests read the log to tell a late click or a
latency step that the server caused (an underrun) from one the library caused.

Works on the server named by PULSE_SERVER (unix:DIR/runtime/native, as
scripts/pulse-server.sh starts it); without one there is nothing to do."""
import os
import socket
import subprocess
import sys


def main():
    server = os.environ.get("PULSE_SERVER", "")
    if not server.startswith("unix:"):
        print("no test sound server: log level unchanged")
        return 0
    cli = os.path.join(os.path.dirname(server[len("unix:"):]), "cli")
    if not os.path.exists(cli):
        # The server's command-line module, on a socket beside the native one.
        subprocess.run(["pactl", "load-module", "module-cli-protocol-unix", "socket=" + cli],
                       check=True, stdout=subprocess.DEVNULL)
    with socket.socket(socket.AF_UNIX) as s:
        s.settimeout(5)
        s.connect(cli)
        s.sendall(b"set-log-level 4\n")
        s.shutdown(socket.SHUT_WR)
        try:
            while s.recv(4096):
                pass
        except socket.timeout:
            pass
    print("sound server log at debug level")
    return 0


if __name__ == "__main__":
    sys.exit(main())
