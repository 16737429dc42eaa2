"""The program run by hand: usage and debug mode."""

import pytest

from wine import BIN

CONTROL_C_EXIT = "c000013a"  # what Ctrl+C leaves of a program without a handler


def interrupt(agent, *arguments):
    """Runs the program in a console and presses Ctrl+C until it ends: (outcome, exit code).

    One that comes before the program has its handler kills it, so an attempt that dies that way
    proves nothing and is made again with more time before the first Ctrl+C.
    """
    for delay_ms in (100, 400, 1600, 6400):
        ended = agent.wine.run(str(BIN / "console_interrupt.exe"), str(delay_ms), agent.program,
                               *arguments)
        outcome, exit_code = ended.stdout.strip().rsplit(" ", 1)
        if exit_code != CONTROL_C_EXIT:
            break
    return outcome, exit_code


@pytest.mark.parametrize("arguments", [["-debug"], ["/debug"], ["-debug", "-nodriver"]])
def test_debug_mode_runs_until_ctrl_c_and_writes_no_log(agent, arguments):
    assert interrupt(agent, *arguments) == ("interrupted", "00000000")
    assert not agent.log_path.exists()


@pytest.mark.parametrize("switch", ["-x", "--debug", "-DEBUG", "-", "/?"])
def test_unknown_switch_ends_at_once_in_silence(agent, switch):
    agent.run(switch)
    assert not agent.log_path.exists()
