"""The administrator's tool with the shipped service: every command, its answers and its refusals, and
the main job."""

import os
import signal

from wine import wait_until
from zelctl_bench import BLOCK, COPY, FILE, SIZE


def test_service_and_driver_answer(bench):
    bench.zelctl.json("ping")
    assert bench.zelctl.run("ping") == ("", "")
    assert bench.zelctl.json("status") == {"ok": True, "tracked_files": 0, "bitmaps": 0,
                                           "driver": True}
    assert bench.zelctl.json("files")["files"] == []


def test_service_answers_over_tcp_and_named_pipes(bench):
    port = str(bench.agent.port())
    bench.zelctl.json("ping", "--protseq", "ncacn_ip_tcp", "--endpoint", port)
    bench.zelctl.json("ping", "--server", "127.0.0.1", "--endpoint", port)
    bench.zelctl.json("ping", "--protseq", "ncacn_np")


def test_service_that_hangs_is_given_up_in_time(bench):
    """Whatever is asked, over every way; the service goes on afterwards as if nothing had been."""
    port = str(bench.agent.port())
    process, = bench.agent.processes()
    os.kill(process, signal.SIGSTOP)
    try:
        for question in (("ping",), ("status",), ("files",), ("track", FILE), ("sync",),
                         ("ping", "--protseq", "ncacn_ip_tcp", "--endpoint", port),
                         ("ping", "--server", "127.0.0.1", "--endpoint", port),
                         ("ping", "--protseq", "ncacn_np")):
            error = bench.zelctl.json(*question, "--timeout", "1", exit_code=3)["error"]
            assert (error["code"], error["name"]) == (1818, "RPC_S_CALL_CANCELED"), question
            assert "--timeout" in error["message"]
    finally:
        os.kill(process, signal.SIGCONT)
    bench.zelctl.json("ping")


def test_tracked_file_and_its_bitmaps_are_listed(bench):
    first = bench.zelctl.json("track", FILE)
    assert first["path"] == FILE and first["block_size"] == 65536
    _, file_id = bench.agent.identity(FILE)
    assert int(first["file_id"], 16) == file_id
    output, errors = bench.zelctl.run("track", FILE, "--block-size", "1M")
    second = output.strip()  # what B=$(zelctl track ...) takes
    assert errors == f"zelctl: note: {FILE} has 2 bitmaps now\n"
    file, = bench.zelctl.json("files")["files"]
    assert file["path"] == FILE and set(file["bitmap_ids"]) == {first["bitmap_id"], second}
    for arguments in (("bitmaps",), ("bitmaps", FILE), ("bitmaps", FILE.replace("data", "DATA"))):
        bitmaps = {bitmap["bitmap_id"]: bitmap for bitmap in bench.zelctl.json(*arguments)["bitmaps"]}
        assert set(bitmaps) == {first["bitmap_id"], second}
        assert bitmaps[second]["block_size"] == 1 << 20
        assert bitmaps[second]["bitmap_file"].endswith("00100000")
        assert {name: bitmaps[first["bitmap_id"]][name] for name in first if name != "ok"} == {
            name: value for name, value in first.items() if name != "ok"}
    assert bench.zelctl.json("status")["bitmaps"] == 2


def test_deleted_bitmap_is_gone_and_the_other_one_stays(bench):
    first, second = bench.track(), bench.track()
    assert bench.zelctl.json("delete", first)["deleted"] == [first]
    assert [bitmap["bitmap_id"] for bitmap in bench.zelctl.json("bitmaps")["bitmaps"]] == [second]
    error = bench.zelctl.json("export", first, "-o", COPY, exit_code=1)["error"]
    assert (error["code"], error["name"]) == (1168, "ERROR_NOT_FOUND")
    assert not bench.copy.exists()
    answer = bench.zelctl.json("delete", first)  # a script may repeat itself
    assert answer["deleted"] == answer["unknown"] == [first]
    assert bench.zelctl.run("delete", first) == (
        "", f"zelctl: note: there was no bitmap {first}; the service has 1 bitmap (zelctl bitmaps)\n")
    assert bench.zelctl.run("delete", second) == ("", "")
    assert bench.zelctl.json("bitmaps")["bitmaps"] == []


def test_untracked_file_loses_its_bitmaps(bench):
    bench.track()
    bench.track()
    answer = bench.zelctl.json("untrack", FILE)
    assert (answer["path"], answer["deleted_bitmaps"]) == (FILE, 2)
    assert bench.zelctl.json("files")["files"] == []
    for command in ("untrack", "bitmaps"):
        error = bench.zelctl.json(command, FILE, exit_code=1)["error"]
        assert (error["code"], error["name"]) == (2, "ERROR_FILE_NOT_FOUND")
        assert error["message"] == FILE + " is not tracked"


def test_files_that_cannot_be_tracked_are_refused_in_words(bench):
    small = bench.source.parent / "small"
    small.write_bytes(bytes(4095))
    error = bench.zelctl.json("track", "C:\\data\\small", exit_code=1)["error"]
    assert error["name"] == "ERROR_INSUFFICIENT_BUFFER" and "4096" in error["message"]
    error = bench.zelctl.json("track", "C:\\data\\nothing", exit_code=1)["error"]
    assert error["name"] == "ERROR_FILE_NOT_FOUND"
    bench.track()
    replaced = bench.source.with_name("replaced")
    os.rename(bench.source, replaced)
    bench.source.write_bytes(bytes(SIZE))
    output, errors = bench.zelctl.run("track", FILE, exit_code=1)
    assert output == "" and errors.startswith(
        f"zelctl: ERROR_MEDIA_CHANGED (1110): {FILE} is tracked under another file id")
    replaced.unlink()


def test_relative_path_is_the_callers(bench):
    """The service would look for it in its own directory."""
    drive_c = bench.agent.wine.prefix / "drive_c"
    done = bench.zelctl.run_in(drive_c / "data", "track", FILE.rsplit("\\", 1)[1])
    assert done.startswith("0x")
    assert bench.zelctl.json("files")["files"][0]["path"] == FILE


def test_sync_takes_every_way_to_tell_a_time(bench):
    for time in (("--to", "now"), (), ("--to", "2026-01-31T23:59:59+01:00"), ("--to", "7")):
        bench.zelctl.json("sync", *time)
    assert bench.zelctl.json("sync", "--to", "7")["filetime"] == 7


def test_sync_to_a_time_that_does_not_come_times_out(bench):
    bench.agent.wine.path(bench.agent.directory).joinpath("config", "plexor.conf").write_text(
        "zelservicelog = info\nzelservice:SyncTimeout = 1\n")
    wait_until(lambda: any("sync timeout" in line for line in bench.agent.log()), "the new time-out")
    error = bench.zelctl.json("sync", "--to", "9999-12-31T23:59:59Z", exit_code=1)["error"]
    assert (error["code"], error["name"]) == (1460, "ERROR_TIMEOUT")


def test_driver_that_does_not_answer_fails_status_and_sync(bench):
    bitmap = bench.track()
    bench.apply("--full")
    bench.agent.tell_driver("refuse sends")
    answer = bench.zelctl.json("status", exit_code=1)
    assert answer["driver"] is False and answer["error"]["code"] == 0x80070006
    assert bench.zelctl.json("sync", exit_code=1)["error"]["code"] == 0x80070006
    message = bench.apply("--bitmap", bitmap, exit_code=1)["error"]["message"]
    assert "cannot synchronize" in message
    bench.apply("--bitmap", bitmap, "--no-sync")


def test_show_and_export_tell_the_blocks_that_were_written(bench):
    bitmap = bench.track()
    bench.write(5 * BLOCK + 1, b"x" * BLOCK)
    bench.write(SIZE - 1, b"x")
    bench.zelctl.json("sync")
    expected = [{"offset": 5 * BLOCK, "length": 2 * BLOCK}, {"offset": SIZE - BLOCK, "length": BLOCK}]
    shown = bench.zelctl.json("show", bitmap, "--ranges", "--map")
    assert shown["ranges"] == expected and shown["bitmap"]["trust"] == "trusted"
    assert sum(cell["share"] for cell in shown["map"]) == 3
    copied = bench.zelctl.json("export", bitmap, "-o", "C:\\data\\bitmap")
    assert copied["bytes"] == 512 + SIZE // BLOCK // 8 and copied["trust"] == "trusted"
    assert bench.zelctl.json("show", "C:\\data\\bitmap", "--ranges")["ranges"] == expected


def test_exported_bitmap_is_the_file_that_a_stopped_service_leaves(bench):
    """But for the mark of the export in the reserved bytes. `copy` is what it was called."""
    bitmap = bench.track()
    bench.write(0, b"x")
    bench.zelctl.run("copy", bitmap, "-o", "C:\\data\\bitmap")
    name = bench.zelctl.json("bitmaps")["bitmaps"][0]["bitmap_file"]
    bench.agent.stop()
    left = bench.agent.wine.path(name.removeprefix("\\\\?\\")).read_bytes()
    exported = bench.agent.wine.path("C:\\data\\bitmap").read_bytes()
    assert exported[:0x60] + bytes(24) + exported[0x78:] == left
    assert exported[0x60:0x64] == b"ZELx"


def test_incremental_copies_follow_random_work_and_a_restart(bench):
    """Two bitmaps of different block sizes, each with a copy of its own."""
    copies = {"4K": COPY, "1M": "C:\\data\\copy.bin.2"}
    bitmaps = {size: bench.track(size) for size in copies}
    for copy in copies.values():
        assert bench.apply("--full", "--verify", copy=copy)["copied_bytes"] == SIZE
    for seed in range(4):
        bench.work(seed)
        if seed == 2:
            bench.agent.stop()
            bench.agent.start()
        next_bitmap = bench.track()  # a new round for the first copy, begun before the last is used up
        for size, copy in copies.items():
            answer = bench.apply("--bitmap", bitmaps[size], "--verify", copy=copy)
            assert answer["mode"] == "incremental" and answer["verified"] is True
            assert bench.is_equal(copy)
        bench.zelctl.json("delete", bitmaps["4K"])
        bitmaps["4K"] = next_bitmap


def test_bitmap_of_a_killed_service_is_refused_and_a_full_copy_begins_anew(bench):
    bitmap = bench.track()
    bench.apply("--full")
    bench.work(1)
    bench.zelctl.json("sync")
    bench.agent.kill()
    bench.agent.start()
    before = bench.copy.read_bytes()
    error = bench.apply("--bitmap", bitmap, exit_code=4)["error"]
    assert error["reason"] == "unreliable" and "--full" in error["message"]
    assert bench.copy.read_bytes() == before
    assert bench.zelctl.json("show", bitmap)["bitmap"]["trust"] == "unreliable"
    new_bitmap = bench.track()
    bench.apply("--full", "--verify")
    bench.work(2)
    assert bench.apply("--bitmap", new_bitmap, "--verify")["mode"] == "incremental"
    assert bench.is_equal()


def test_stopped_service_is_told_by_three(bench):
    bitmap = bench.track()
    bench.agent.stop()
    for question in (("ping",), ("files",), ("show", bitmap), ("delete", bitmap)):
        bench.zelctl.json(*question, exit_code=3)
    assert bench.zelctl.json("ping", "--server", "127.0.0.1", exit_code=3)["error"]["code"] != 0
