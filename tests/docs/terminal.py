# SPDX-License-Identifier: Apache-2.0
"""A terminal of the test's: a shell that is told one command after the other, and what they print."""

import os
import signal
import subprocess
import threading
import time

END = "\x1e"  # a line with it and the status, behind what a command printed


class Terminal:
    def __init__(self, folder, environment):
        self.lines, self.changed = [], threading.Condition()
        # A group of its own, which Ctrl-C reaches whole; the shell itself goes on after it.
        self.shell = subprocess.Popen(
            ["bash", "--norc"], cwd=folder, env=environment, stdin=subprocess.PIPE, text=True,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()
        self.tell("trap : INT")

    def tell(self, text):
        self.shell.stdin.write(text + "\n")
        self.shell.stdin.flush()

    def read(self):
        for line in self.shell.stdout:
            with self.changed:
                self.lines.append(line.rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.lines.append(END + "the shell ended")
            self.changed.notify_all()

    def run(self, command):
        """Where its output begins."""
        with self.changed:
            begin = len(self.lines)
        self.tell("{ " + command + "\n} </dev/null; status_=$?; echo; echo $'\x1e'$status_")
        return begin

    def wait_for(self, found, limit_s):
        """What `found` makes of the lines, as soon as that is something; else, at the limit, nothing."""
        with self.changed:
            until = time.monotonic() + limit_s
            while not (result := found(self.lines)):
                left = until - time.monotonic()
                if left <= 0:
                    return None
                self.changed.wait(left)
            return result

    def interrupt(self):
        with self.changed:
            begin = len(self.lines)
        os.killpg(self.shell.pid, signal.SIGINT)
        return begin

    def end(self):
        """What still runs is told so first, as who shuts a window does."""
        for number, limit_s in ((signal.SIGINT, 10), (signal.SIGTERM, 5), (signal.SIGKILL, 5)):
            try:
                os.killpg(self.shell.pid, number)
                if number == signal.SIGINT and not self.shell.stdin.closed:
                    self.shell.stdin.close()  # the shell ends when what it runs has
                self.shell.wait(limit_s)
                break
            except (ProcessLookupError, BrokenPipeError):
                break
            except subprocess.TimeoutExpired:
                pass
        self.shell.wait()
        self.reader.join(5)
        if not self.reader.is_alive():  # else somebody outlived the shell who has its output
            self.shell.stdout.close()
