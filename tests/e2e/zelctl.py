"""The administrator's tool as a script calls it."""

import json
import subprocess

from wine import BIN, RUN


class Zelctl:
    def __init__(self, wine):
        self.wine = wine

    def command(self, *arguments):
        return [RUN, str(BIN / "zelctl.exe"), *arguments]

    def run(self, *arguments, exit_code=0):
        """Standard output and standard error as text; the exit code must be the one expected."""
        done = subprocess.run(self.command(*arguments), env=self.wine.environment, timeout=120,
                              stdin=subprocess.DEVNULL, capture_output=True)
        assert done.returncode == exit_code, (arguments, done)
        return done.stdout.decode(), done.stderr.decode()

    def json(self, *arguments, exit_code=0):
        """The one object that --json prints."""
        output, errors = self.run(*arguments, "--json", exit_code=exit_code)
        assert errors == ""
        answer = json.loads(output)
        assert answer["ok"] is (exit_code == 0)
        if exit_code != 0:
            assert answer["error"]["exit_code"] == exit_code
        return answer

    def start(self, *arguments):
        return subprocess.Popen(self.command(*arguments), env=self.wine.environment,
                                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)
