"""Run by hand without a switch on a machine without an agent. Last, because it takes so long."""

import re


def test_log_is_beside_the_program_and_says_that_no_manager_started_it(unconfigured_run):
    exit_code, output, log = unconfigured_run.finish()
    assert (exit_code, output) == (0, "")
    assert len(log) == 1
    assert re.fullmatch(
        r"ERROR StartServiceCtrlDispatcher failed: "
        r".+ \[ERROR_FAILED_SERVICE_CONTROLLER_CONNECT\]", log[0])
