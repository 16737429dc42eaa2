"""The program run by hand: usage and debug mode."""

import subprocess

import pytest

from wine import BIN, wait_until


def interrupt(agent, *arguments):
    """Runs the program in a console and, once it serves calls, presses Ctrl+C until it ends:
    (outcome, exit code).

    Wine ends a program without a handler with exit code 0 as well, so what is seen here is that
    debug mode lasts until Ctrl+C; that the program's own handler ends it is an integration test.
    """
    console = agent.wine.popen(str(BIN / "console_interrupt.exe"), agent.program, *arguments,
                               stdin=subprocess.PIPE)
    ping = [str(BIN / "zelctl.exe"), "ping"]
    wait_until(lambda: agent.wine.run(*ping).returncode == 0, "the program serves calls")
    output, _ = console.communicate("\n", timeout=60)
    return tuple(output.strip().rsplit(" ", 1))


@pytest.mark.parametrize("arguments", [["-debug"], ["/debug"], ["-debug", "-nodriver"]])
def test_debug_mode_runs_until_ctrl_c_and_writes_no_log(agent, arguments):
    agent.install()
    assert interrupt(agent, *arguments) == ("interrupted", "00000000")
    assert not agent.log_path.exists()


@pytest.mark.parametrize("switch", ["-x", "--debug", "-DEBUG", "-", "/?"])
def test_unknown_switch_ends_at_once_in_silence(agent, switch):
    agent.run(switch)
    assert not agent.log_path.exists()
