"""The nightly round in one command, and chains of rounds with the shipped service: skipped, killed,
repeated and reordered."""

import collections
import datetime
import json
import os
import random
import shutil
import subprocess
import time

import pytest

from zelctl import Zelctl
from zelctl_bench import BLOCK, COPY, FILE

KILLS = int(os.environ.get("ZEL_BACKUP_KILLS", "50"))
ROUNDS = int(os.environ.get("ZEL_CHAIN_ROUNDS", "10"))
SEED = int(os.environ.get("ZEL_CHAIN_SEED", "0"))


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
    """Copies of one file, and what lies about: bitmaps that somebody noted, exports, snapshots."""

    def __init__(self, bench, seed):
        self.bench = bench
        self.random = random.Random(seed)
        self.copies = [COPY, "C:\\data\\copy two"]
        self.noted = [bench.track()]
        self.exports = []
        self.snapshots = []
        self.last = None
        self.counts = collections.Counter()
        self.versions = []
        self.remember()
        self.steps = [self.work, self.work, self.work, self.track, self.delete, self.apply,
                      self.apply, self.export, self.apply_export, self.damage_export, self.full,
                      self.full_beside_another, self.snapshot, self.apply_snapshot,
                      self.round_of_snapshots, self.backup, self.backup, self.backup, self.repeat, self.rename, self.link, self.crash,
                      self.restart]

    def round(self):
        for _ in range(self.random.randint(1, 3)):
            self.random.choice(self.steps)()

    def remember(self):
        """The file as it is from now on; nobody writes it but the steps, one after another."""
        self.versions.append((self.bench.agent.now(), self.bench.source.read_bytes()))

    def work(self):
        self.bench.work(self.random.randrange(1 << 30))
        while self.bench.source.stat().st_size < BLOCK:  # what cannot be tracked
            self.bench.work(self.random.randrange(1 << 30))
        self.remember()

    def track(self):
        self.noted.append(self.bench.track())

    def delete(self):
        """Its id goes on being used."""
        if len(self.noted) > 2:
            self.bench.zelctl.any_json("delete", self.random.choice(self.noted))

    def export(self):
        path = f"C:\\data\\export {len(self.exports)}"
        answer = self.bench.zelctl.any_json("export", self.random.choice(self.noted), "-o", path,
                                            "--replace")
        if answer["ok"]:
            self.exports.append(path)

    def damage_export(self):
        if self.exports and self.random.random() < 0.5:
            path = self.bench.agent.wine.path(self.random.choice(self.exports))
            content = bytearray(path.read_bytes())
            content[self.random.randrange(len(content))] ^= self.random.randint(1, 255)
            path.write_bytes(content)

    def apply(self):
        self.judge("apply", "--from", FILE, "--bitmap", self.random.choice(self.noted))

    def apply_export(self):
        if self.exports:
            self.judge("apply", "--from", FILE, "--bitmap", self.random.choice(self.exports))

    def full(self):
        self.judge("apply", "--from", FILE, "--full", "--replace")

    def full_beside_another(self):
        """Neither undoes what the other says that it has done."""
        copy = self.random.choice(self.copies)
        full = self.bench.zelctl.start("apply", "--full", "--replace", "--from", FILE, "--to", copy,
                                       "--json", stdout=subprocess.PIPE)
        answers = [self.bench.zelctl.any_json("apply", "--from", FILE, "--to", copy, "--bitmap",
                                              self.random.choice(self.noted)) for _ in range(2)]
        output, _ = full.communicate(timeout=60)
        for answer in [json.loads(output), *answers]:
            self.look_at(answer, FILE)

    def snapshot(self):
        path = f"C:\\data\\snapshot {len(self.snapshots)}"
        time_of = self.bench.agent.now()
        shutil.copyfile(self.bench.source, self.bench.agent.wine.path(path))
        self.snapshots.append((path, time_of))

    def apply_snapshot(self):
        if self.snapshots:
            path, time_of = self.random.choice(self.snapshots[-2:])
            self.judge("apply", "--from", path, "--bitmap",
                       self.random.choice(self.noted + self.exports), "--force-identity",
                       "--snapshot-time", str(time_of))

    def round_of_snapshots(self):
        """The order that the manual names always ends well: begin the next bitmap, make the snapshot,
        bring the copy up to date with the bitmap from before. Twice, so that it goes on from one."""
        copy = self.random.choice(self.copies)
        last = self.bench.track()
        self.look_at(self.bench.zelctl.json("apply", "--full", "--replace", "--from", FILE, "--to",
                                            copy), FILE)
        for _ in range(2):
            self.work()
            following = self.bench.track()
            self.snapshot()
            self.work()
            path, time_of = self.snapshots[-1]
            self.look_at(self.bench.zelctl.json(
                "apply", "--from", path, "--to", copy, "--bitmap", last, "--force-identity",
                "--snapshot-time", str(time_of)), path)
            self.noted.append(last)
            last = following
        self.noted.append(last)

    def backup(self):
        options = self.random.choice([(), ("--replace",), ("--verify",)])
        self.judge("backup", "--from", FILE, "--full-if-needed", *options)

    def repeat(self):
        if self.last:
            self.judge(*self.last)

    def rename(self):
        one, two = (self.bench.agent.wine.path(copy) for copy in self.copies)
        if one.exists() and two.exists():
            aside = one.with_name("copy aside")
            one.rename(aside)
            two.rename(one)
            aside.rename(two)

    def link(self):
        """Both names lead to one copy until a full pass makes another."""
        one, two = (self.bench.agent.wine.path(copy) for copy in self.copies)
        if one.exists() and self.random.random() < 0.5:
            two.unlink(missing_ok=True)
            os.link(one, two)

    def crash(self):
        if self.random.random() < 0.3:
            self.bench.agent.kill()
            self.bench.agent.start()

    def restart(self):
        if self.random.random() < 0.3:
            self.bench.agent.stop()
            self.bench.agent.start()

    def judge(self, *words):
        """Runs it, perhaps to its death."""
        self.last = words
        words = (*words, "--to", self.random.choice(self.copies))
        if self.random.random() < 0.3:
            run = self.bench.zelctl.start(*words)
            time.sleep(self.random.random() * 0.3)  # where it is killed
            self.counts["killed"] += run.poll() is None
            run.kill()
            run.wait(20)
            return
        begun = self.bench.agent.now()
        answer = self.bench.zelctl.any_json(*words)
        self.look_at(answer, words[2])
        if answer["ok"] and (words[0] == "backup" or "--full" in words):
            assert filetime(answer["as_of"]) >= begun, words

    def look_at(self, answer, source):
        """A copy of a run that was done is what it says: of a snapshot the snapshot; of the file each
        block is one that the file had then or later, and all of them where nothing was written since."""
        if not answer["ok"]:
            self.counts[answer["error"]["reason"] or "other failure"] += 1
            return
        self.counts[answer["mode"] if source == FILE else "of a snapshot"] += 1
        copy = self.bench.agent.wine.path(answer["copy"]).read_bytes()
        if source != FILE:
            assert copy == self.bench.agent.wine.path(source).read_bytes()
            return
        as_of = filetime(answer["as_of"])
        first = max(index for index, (since, _) in enumerate(self.versions)
                    if since <= as_of or index == 0)
        since = [content for _, content in self.versions[first:]]
        if len(since) == 1:
            assert copy == since[0]
        for at in range(0, len(copy), BLOCK):
            block = copy[at:at + BLOCK]
            assert any(content[at:at + BLOCK].ljust(len(block), b"\0")[:len(block)] == block
                       for content in since), (answer, at)


def filetime(text):
    """Of "2026-01-31T14:38:43.4821376Z"."""
    seconds, _, ticks = text.rstrip("Z").partition(".")
    whole = datetime.datetime.fromisoformat(seconds + "+00:00")
    return (int(whole.timestamp()) + 11_644_473_600) * 10_000_000 + int(ticks)


@pytest.mark.parametrize("seed", range(SEED, SEED + max(1, ROUNDS // 50)))
def test_chain_of_random_rounds_never_ends_in_a_wrong_copy(bench, seed):
    """50 rounds a seed; ZEL_CHAIN_ROUNDS and ZEL_CHAIN_SEED say how many and from which one on."""
    chain = Chain(bench, seed)
    for _ in range(min(ROUNDS, 50)):
        chain.round()
    begun = bench.agent.now()
    assert filetime(backup(bench, "--full-if-needed", "--replace")["as_of"]) >= begun
    assert bench.is_equal()
    print(f"\nseed {seed}: " + ", ".join(f"{count} {what}" for what, count in
                                         sorted(chain.counts.items())))
