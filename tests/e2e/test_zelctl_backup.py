"""The nightly round in one command, and chains of rounds with the shipped service: skipped, killed,
repeated and reordered."""

import datetime
import os
import random
import shutil
import time

import pytest

from zelctl import Zelctl
from zelctl_bench import BLOCK, COPY, FILE

KILLS = int(os.environ.get("ZEL_BACKUP_KILLS", "50"))
ROUNDS = int(os.environ.get("ZEL_CHAIN_ROUNDS", "10"))


def backup(bench, *more, copy=COPY, exit_code=0):
    return bench.zelctl.json("backup", "--from", FILE, "--to", copy, "--block-size", "4K", *more,
                             exit_code=exit_code)


def bitmap_ids(bench):
    return [bitmap["bitmap_id"] for bitmap in bench.zelctl.json("bitmaps")["bitmaps"]]


def test_every_round_is_the_same_command(bench):
    first = backup(bench, "--verify")
    assert first["mode"] == "full" and first["why"] == f"there is no {COPY} yet"
    assert bench.is_equal() and bitmap_ids(bench) == [first["next_bitmap_id"]]
    last = first
    for seed in range(3):
        bench.work(seed)
        bench.reads()
        answer = backup(bench, "--verify") if seed else backup(bench)
        assert answer["mode"] == "incremental" and "why" not in answer
        assert answer["bitmap_id"] == last["next_bitmap_id"] == answer["deleted"][0]
        assert bench.is_equal() and bitmap_ids(bench) == [answer["next_bitmap_id"]]
        last = answer
    output, errors = bench.zelctl.run("backup", "--from", FILE, "--to", COPY)
    assert output.startswith("incremental: read 0 bytes of ") and errors == ""


def test_nothing_but_what_changed_is_read(bench):
    backup(bench)
    bench.write(7 * BLOCK, b"x")
    bench.reads()
    zelctl = Zelctl(bench.agent.wine, bench.seen_by_driver())
    zelctl.json("backup", "--from", FILE, "--to", COPY)
    assert bench.reads() == (BLOCK, [(7 * BLOCK, BLOCK)])


def test_copies_have_bitmaps_of_their_own(bench):
    other = "C:\\data\\copy other"
    backup(bench)
    backup(bench, copy=other)
    bench.work(1)
    backup(bench)
    bench.work(2)
    assert backup(bench, copy=other)["mode"] == "incremental"
    assert bench.is_equal(other) and len(bitmap_ids(bench)) == 2
    assert backup(bench)["mode"] == "incremental"
    assert bench.is_equal()


def test_copy_that_moves_with_its_record_goes_on(bench):
    backup(bench)
    bench.work(1)
    place = bench.copy.parent / "moved"
    shutil.rmtree(place, ignore_errors=True)
    place.mkdir()
    bench.copy.rename(place / "copy.bin")
    moved = "C:\\data\\moved\\copy.bin"
    error = backup(bench, copy=moved, exit_code=1)["error"]
    assert error["reason"] == "not_a_copy"
    missing = error["message"].split("(there is no ")[1].split(")")[0]
    record = bench.records / missing.split("\\")[-1]
    record.rename(place / ".zelctl" / record.name)
    assert backup(bench, copy=moved)["mode"] == "incremental"
    assert bench.is_equal(moved)
    shutil.rmtree(place)


def test_folder_in_the_place_of_the_copy_is_found_before_anything_is_read(bench):
    bench.copy.mkdir()
    bench.reads()
    zelctl = Zelctl(bench.agent.wine, bench.seen_by_driver())
    answer = zelctl.json("backup", "--from", FILE, "--to", COPY, "--full-if-needed", "--replace",
                         exit_code=1)
    assert answer["error"]["message"].startswith(f"cannot open {COPY}")
    assert bench.reads() == (0, []) and bitmap_ids(bench) == []
    bench.copy.rmdir()


def test_untrusted_bitmap_ends_with_four_or_in_a_full_pass_that_is_announced(bench):
    backup(bench)
    bench.work(1)
    bench.zelctl.json("sync")
    bench.agent.kill()
    bench.agent.start()
    before = bench.copy.read_bytes()
    for _ in range(2):
        assert backup(bench, exit_code=4)["error"]["reason"] == "unreliable"
        assert bench.copy.read_bytes() == before
    assert bench.zelctl.json("status", "--check", exit_code=4)["untrusted"] == 1
    output, errors = bench.zelctl.run("backup", "--from", FILE, "--to", COPY, "--full-if-needed")
    assert output.startswith("full: read ") and "is unreliable" in output
    assert errors.startswith("zelctl: note: a full pass begins: ")
    assert bench.is_equal() and len(bitmap_ids(bench)) == 1
    bench.work(2)
    assert backup(bench)["mode"] == "incremental"
    assert bench.is_equal()
    assert bench.zelctl.json("status", "--check")["untrusted"] == 0


def test_file_that_is_no_copy_is_left_alone(bench):
    bench.copy.write_bytes(b"somebody's")
    assert backup(bench, exit_code=1)["error"]["reason"] == "not_a_copy"
    assert backup(bench, "--full-if-needed", exit_code=1)["error"]["reason"] == "not_a_copy"
    assert bench.copy.read_bytes() == b"somebody's" and bitmap_ids(bench) == []
    backup(bench, "--full-if-needed", "--replace")
    assert bench.is_equal()


def test_verify_leaves_out_what_was_written_since(bench):
    bitmap = backup(bench)["next_bitmap_id"]
    files = ("--from", FILE, "--to", COPY)
    bench.zelctl.json("verify", *files)
    bench.write(7 * BLOCK, b"anything")
    assert bench.zelctl.json("verify", *files, exit_code=1)["difference_at"] == 7 * BLOCK
    bench.zelctl.json("verify", *files, "--bitmap", bitmap)
    with open(bench.source, "r+b") as unseen:
        unseen.seek(9 * BLOCK)
        unseen.write(b"unseen by the driver")
    answer = bench.zelctl.json("verify", *files, "--bitmap", bitmap, exit_code=1)
    assert answer["difference_at"] == 9 * BLOCK and answer["error"]["reason"] == "differs"


def test_round_after_one_that_was_killed_anywhere_ends_with_a_good_copy(bench):
    """The moments are spread over the time that a whole run takes."""
    moments = random.Random(20261122)
    backup(bench)
    began = time.monotonic()
    backup(bench)
    whole = time.monotonic() - began
    killed = 0
    for number in range(KILLS):
        if number % 10 == 9:  # the first round, too
            bench.copy.unlink()
        bench.write(moments.randrange(400) * BLOCK, moments.randbytes(3 * BLOCK))
        run = bench.zelctl.start("backup", "--from", FILE, "--to", COPY, "--block-size", "4K")
        time.sleep(moments.random() * whole)  # where it is killed, not how long it is waited for
        killed += run.poll() is None
        run.kill()
        run.wait(20)
        backup(bench)
        assert bench.is_equal()
    print(f"\n{killed} of {KILLS} runs were killed")
    assert killed >= KILLS / 3


class Chain:
    """Copies of one file, and what lies about: bitmaps that somebody noted and exports."""

    def __init__(self, bench, seed):
        self.bench = bench
        self.random = random.Random(seed)
        self.copies = [COPY, "C:\\data\\copy two"]
        self.noted = [bench.track()]
        self.exports = []
        self.good = 0
        self.worked = self.now()

    def now(self):
        return datetime.datetime.now(datetime.timezone.utc)

    def round(self):
        for _ in range(self.random.randint(1, 3)):
            self.random.choice([self.work, self.work, self.track, self.apply, self.apply, self.full,
                                self.export, self.apply_export, self.backup, self.backup,
                                self.rename, self.crash, self.restart])()

    def work(self):
        self.bench.work(self.random.randrange(1 << 30))
        while self.bench.source.stat().st_size < BLOCK:  # what cannot be tracked
            self.bench.work(self.random.randrange(1 << 30))
        self.worked = self.now()

    def track(self):
        self.noted.append(self.bench.track())

    def export(self):
        path = f"C:\\data\\export {len(self.exports)}"
        if self.run("export", self.random.choice(self.noted), "-o", path, "--replace"):
            self.exports.append(path)

    def apply(self):
        self.judge("apply", "--bitmap", self.random.choice(self.noted))

    def apply_export(self):
        if self.exports:
            self.judge("apply", "--bitmap", self.random.choice(self.exports))

    def full(self):
        self.judge("apply", "--full", "--replace")

    def backup(self):
        self.judge("backup", "--full-if-needed", "--replace")

    def rename(self):
        one, two = (self.bench.agent.wine.path(copy) for copy in self.copies)
        if one.exists() and two.exists():
            aside = one.with_name("copy aside")
            one.rename(aside)
            two.rename(one)
            aside.rename(two)

    def crash(self):
        if self.random.random() < 0.3:
            self.bench.agent.kill()
            self.bench.agent.start()

    def restart(self):
        if self.random.random() < 0.3:
            self.bench.agent.stop()
            self.bench.agent.start()

    def run(self, *arguments):
        """Whether it was done."""
        run = self.bench.zelctl.start(*arguments)
        return run.wait(60) == 0

    def judge(self, command, *arguments):
        """Runs it, perhaps to its death; then whole. A copy of a run that was done is what it says."""
        copy = self.random.choice(self.copies)
        words = (command, "--from", FILE, "--to", copy, *arguments)
        if self.random.random() < 0.3:
            run = self.bench.zelctl.start(*words)
            time.sleep(self.random.random() * 0.3)  # where it is killed
            run.kill()
            run.wait(20)
            return
        answer = self.bench.zelctl.any_json(*words)
        if not answer["ok"]:
            return
        self.good += 1
        as_of = datetime.datetime.fromisoformat(answer["as_of"][:26] + "+00:00")
        if as_of >= self.worked:
            assert self.bench.is_equal(copy), words
        if command == "backup":
            assert as_of >= self.worked


@pytest.mark.parametrize("seed", range(max(1, ROUNDS // 50)))
def test_chain_of_random_rounds_never_ends_in_a_wrong_copy(bench, seed):
    chain = Chain(bench, seed)
    for _ in range(min(ROUNDS, 50)):
        chain.round()
    chain.judge("backup", "--full-if-needed", "--replace")
    print(f"\nseed {seed}: {chain.good} good runs")
    assert chain.good > 0 or ROUNDS < 10
