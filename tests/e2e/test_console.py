"""The program run by hand: usage and debug mode."""

import pytest

from wine import BIN


def interrupt(agent, *arguments):
    """Runs the program in a console and presses Ctrl+C until it ends: (outcome, exit code).

    Wine ends a program without a handler with exit code 0 as well, so what is seen here is that
    debug mode lasts until Ctrl+C; that the program's own handler ends it is an integration test.
    """
    ended = agent.wine.run(str(BIN / "console_interrupt.exe"), "400", agent.program, *arguments)
    return tuple(ended.stdout.strip().rsplit(" ", 1))


@pytest.mark.parametrize("arguments", [["-debug"], ["/debug"], ["-debug", "-nodriver"]])
def test_debug_mode_runs_until_ctrl_c_and_writes_no_log(agent, arguments):
    agent.install()
    assert interrupt(agent, *arguments) == ("interrupted", "00000000")
    assert not agent.log_path.exists()


@pytest.mark.parametrize("switch", ["-x", "--debug", "-DEBUG", "-", "/?"])
def test_unknown_switch_ends_at_once_in_silence(agent, switch):
    agent.run(switch)
    assert not agent.log_path.exists()
