"""The proving kit, unpacked in a machine of its own: a whole short run, and runs that do not end as
they should."""

import json
import os
import signal
import subprocess

from wine import BIN, wait_until

NOT_ON_WINE = {
    "the service manager knows what the service depends on",
    "a volume's name names the volume",
    "only SYSTEM and Administrators may use the bitmaps' folder",
    "ncacn_ip_tcp gives it too",
}


def report_of(kit):
    return json.loads((kit.folder / "prove-report.json").read_text())


def items_with(report, outcome):
    return [item for item in report["items"] if item["outcome"] == outcome]


def test_short_run_shows_all_that_wine_can_and_leaves_nothing(kit):
    run = kit.run("--short")
    assert run.returncode == 0, run.stdout
    report = report_of(kit)
    assert report["succeeded"] is True
    assert report["left_behind"] == "" and kit.left_behind() == []
    assert report["facts"]["stand-in for Windows"].startswith("Wine ")
    assert items_with(report, "FAILED") == items_with(report, "not run") == []
    passed = items_with(report, "passed")
    for group, at_least in (("unit", 400), ("integration", 60), ("end-to-end", 18)):
        assert sum(item["group"] == group for item in passed) >= at_least, group
    assert {item["name"] for item in items_with(report, "not here")
            if item["group"] == "end-to-end"} == NOT_ON_WINE
    assert all(item["detail"] for item in items_with(report, "not here"))
    text = (kit.folder / "prove-report.txt").read_text()
    assert text in run.stdout
    assert f"{report['counts']['passed']} passed, 0 failed" in text.splitlines()[-1]


def test_refuses_where_a_service_is_installed(kit):
    for service in ("ZelService", "VelmoraActivityMonitor"):
        kit.wine.sc("create", service, "binPath=", "C:\\other\\program.exe")
        run = kit.run("--only", "end-to-end")
        assert run.returncode == 3
        assert run.stdout == (f"prove: the service {service} is installed here "
                              "(C:\\other\\program.exe)\n")
        assert kit.wine.service_status(service) is not None  # whose it is, is not ours to remove
        kit.wine.sc("delete", service)
        wait_until(lambda: kit.wine.service_status(service) is None, "the service is deleted")
        kit.wine.reg_delete(f"HKLM\\SYSTEM\\CurrentControlSet\\Services\\{service}")
    assert kit.left_behind() == []


def test_refuses_where_an_agent_is_installed(kit):
    key = "HKLM\\Software\\Velmora Inc\\DruAgent"
    kit.wine.reg_add(key, "InstallDirectory", "REG_SZ", "C:\\Agent")
    run = kit.run("--only", "end-to-end")
    assert run.returncode == 3
    assert run.stdout == "prove: an agent is installed here (InstallDirectory is C:\\Agent)\n"
    assert kit.wine.reg_values(key) == {"InstallDirectory": ("REG_SZ", "C:\\Agent")}
    kit.wine.reg_delete("HKLM\\Software\\Velmora Inc")


def test_wrong_word_is_wrong_usage(kit):
    run = kit.run("--quick")
    assert run.returncode == 2
    assert "Usage: prove" in run.stdout


def test_missing_program_is_a_failure(kit):
    program = kit.folder / "bin" / "prove_unit_tests.exe"
    away = program.with_suffix(".away")
    program.rename(away)
    try:
        run = kit.run("--only", "unit")
    finally:
        away.rename(program)
    assert run.returncode == 1
    assert [item["name"] for item in items_with(report_of(kit), "FAILED")] == [
        "prove_unit_tests.exe"]


def begin_end_to_end(kit, *through):
    """A run that has come to where the service is up."""
    run = kit.wine.popen(*through, kit.program, "--only", "end-to-end", stdin=subprocess.PIPE)
    wait_until(lambda: kit.wine.service_state("ZelService") == "RUNNING", "the service is up")
    return run


def test_interrupted_run_cleans_up(kit):
    run = begin_end_to_end(kit, str(BIN / "console_interrupt.exe"))
    output, _ = run.communicate("\n", timeout=120)
    assert output.splitlines()[-1] == "interrupted 00000004", output
    assert kit.left_behind() == []
    report = report_of(kit)
    assert report["interrupted"] is True and report["succeeded"] is False
    assert "interrupted" in [item["detail"] for item in items_with(report, "not run")]
    assert items_with(report, "FAILED") == []


def test_what_a_killed_run_left_is_removed_by_the_next(kit):
    run = begin_end_to_end(kit)
    for process in kit.wine.processes(kit.program):
        os.kill(process, signal.SIGKILL)
    run.communicate(timeout=60)
    assert {"ZelService", "VelmoraActivityMonitor", "work", "prove-state.txt"} <= set(
        kit.left_behind())
    clean = kit.run("--clean")
    assert (clean.returncode, clean.stdout) == (0, "")
    assert kit.left_behind() == []
