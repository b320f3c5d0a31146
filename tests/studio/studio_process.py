"""Starts `ostrel studio` on a free loopback port for a test and stops it
with Ctrl-C (SIGINT), checking that it stops cleanly."""
import os
import signal
import subprocess
import time


class StudioProcess:
    def __init__(self, ostrel, folder=None, extra=(), env=None):
        args = [ostrel, "studio"]
        if folder:
            args.append(folder)
        args += ["--port", "0", *extra]
        self.process = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                        env={**os.environ, **(env or {})})
        line = self.process.stdout.readline()
        prefix = "ostrel studio: "
        if not line.startswith(prefix):
            self.process.kill()
            _, err = self.process.communicate(timeout=10)
            raise RuntimeError(f"ostrel studio did not start: {line!r} {err!r}")
        self.url = line[len(prefix):].strip()
        assert self.url.startswith("http://127.0.0.1:") and self.url.endswith("/"), self.url
        self.port = int(self.url.rstrip("/").rsplit(":", 1)[1])

    def stop(self):
        """Ctrl-C; returns (exit code, rest of stdout, stderr, seconds taken)."""
        start = time.monotonic()
        self.process.send_signal(signal.SIGINT)
        out, err = self.process.communicate(timeout=20)
        return self.process.returncode, out, err, time.monotonic() - start

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.communicate(timeout=10)
