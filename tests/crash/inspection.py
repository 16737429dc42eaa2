"""What must hold after a start, after a death and after an orderly stop: looks, and asks the oracle."""

import os

from machine import VOLUME
from model import Bitmap
from oracle import judge_always, judge_list, judge_settled, judge_stopped
from world import FIRST_ID, Violation, World

NOT_CARRIED_OUT = "1727 "  # RPC_S_CALL_FAILED_DNE


def require(verdict):
    if verdict:
        raise Violation(verdict)


class Inspection(World):
    def start_and_check(self):
        self.machine.start()
        self.synchronize()
        self.check_list()
        for path in self.held:
            self.probe.ask("let", path)
        had_held, self.held = bool(self.held), []
        self.find_new_bitmaps()
        self.ask_for_bitmaps(all_files=had_held)
        for file in self.files:
            file.settle()
            for bitmap in list(file.bitmaps.values()):
                self.check_bitmap(file, bitmap)
        self.cut_off.clear()

    def ask_service(self, *words):
        """The answer of the running service. Wine's client runtime keeps what it knows of a server by the
        endpoint's name; now and then it cannot get through any more, and says that the call was not
        carried out. A new client must."""
        answer = self.probe.ask(*words)
        if not answer.startswith(NOT_CARRIED_OUT):
            return answer
        if not self.machine.lives():
            raise Violation(f"the service has ended by itself: {words} failed")
        self.report.sums["clients replaced"] += 1
        self.machine.replace_probe()
        return self.probe.ask(*words)

    def synchronize(self):
        answer = self.ask_service("sync", self.machine.agent.now())
        if answer != "0 0":
            raise Violation(f"the synchronization after the start answered {answer}")

    def check_list(self):
        status, code, *found = self.ask_service("files").split()
        if (status, code) != ("0", "0"):
            raise Violation(f"the list of files answered {status} {code}")
        entries = [entry.rsplit(":", 2) for entry in found[0].split(",")] if found else []
        listed = {path: (volume, int(file_id)) for path, volume, file_id in entries}
        require(judge_list(self.files, listed))
        if any(file.tracked is None for file in self.files):
            self.tell_driver_the_list()
        for file in self.files:
            if file.tracked is None:
                file.tracked = file.path in listed
                if not file.tracked:
                    self.forget_bitmaps(file)

    def tell_driver_the_list(self):
        """A call that died between the list and the driver has told the driver nothing; the simulated
        one does not look by itself."""
        self.probe.ask("track2", "C:\\tracked\\none.bin", VOLUME, FIRST_ID - 1, 4096, 4096)
        self.probe.ask("untrack", "C:\\tracked\\none.bin")

    def find_new_bitmaps(self):
        """Those of calls that had no answer."""
        for file in self.files:
            for path in self.entries(file):
                if path.name in file.bitmaps or path in self.planted or path.suffix == ".missed":
                    continue
                state = self.state_of(path)
                if file.path not in self.cut_off:
                    raise Violation(f"{path.name} of {file.path} is nobody's")
                if state is not None:
                    file.add(Bitmap(path.name, state.shape, bitmap_id=os.stat(path).st_ino))
                else:
                    self.planted.add(path)  # half made

    def ask_for_bitmaps(self, all_files):
        """Has the service load the bitmaps of some files. It must list those that are wanted, and it
        says then what it thinks of them."""
        some = self.files if all_files else self.random.sample(self.files, min(3, len(self.files)))
        self.offered = set()
        for file in {file.path: file for file in [*some, *self.files_with_remains()]}.values():
            status, code, *found = self.ask_service("bitmaps", file.volume, file.file_id).split()
            if (status, code) != ("0", "259"):
                raise Violation(f"the list of bitmaps answered {status} {code}")
            listed = {entry.split(":")[1] for entry in found[0].split(",")} if found else set()
            self.check_listed(file, listed)

    def files_with_remains(self):
        """Files with bitmaps whose deletion was asked for, or of a call that died."""
        return [file for file in self.files
                if any(not bitmap.wanted for bitmap in file.bitmaps.values())]

    def check_listed(self, file, listed):
        self.offered |= listed
        for bitmap in list(file.bitmaps.values()):
            if bitmap.wanted and bitmap.name not in listed:
                raise Violation(f"{bitmap.name} of {file.path} is not listed")
            if not bitmap.wanted and not self.path(file, bitmap).exists():
                del file.bitmaps[bitmap.name]
        for name in listed:
            if self.machine.directory(file) / name in self.planted:
                raise Violation(f"{name} of {file.path}, which is half made, is listed")

    def check_bitmap(self, file, bitmap):
        state = self.state(file, bitmap)
        # One that is not offered may wait for the deletion of its file.
        if not bitmap.wanted and bitmap.name not in self.offered:
            return
        self.report.sums["bitmaps judged"] += 1
        dead = self.dead.get(bitmap.name)
        require(self.named(file, judge_settled(bitmap, dead, state)))
        if state is None:
            return
        bitmap.was_unreliable = state.effect.unreliable
        bitmap.left_behind = (dead is not None and not dead.looks_clean
                              and not state.effect.unreliable)
        if state.effect.bits and not state.effect.unreliable and not bitmap.left_behind:
            self.report.sums["trusted with bits"] += 1
        self.report.sums["unreliable"] += state.effect.unreliable

    def named(self, file, verdict):
        return verdict and f"{file.path} ({file.file_id:016x}): {verdict}"

    def look_at_the_dead(self):
        self.dead = {}
        for file in self.files:
            for bitmap in file.bitmaps.values():
                state = self.state(file, bitmap)
                self.dead[bitmap.name] = state
                if state is not None:
                    require(self.named(file, judge_always(bitmap, state)))

    def stop_and_check(self):
        """An orderly stop leaves trusted what was trusted."""
        self.synchronize()
        before = {}
        for file in self.files:
            file.settle()
            for bitmap in file.bitmaps.values():
                before[bitmap.name] = self.state(file, bitmap)
        self.stop_and_look()
        for file in self.tracked():
            for bitmap in file.bitmaps.values():
                if bitmap.wanted:
                    require(self.named(file, judge_stopped(bitmap, before[bitmap.name],
                                                           self.dead[bitmap.name])))

    def stop_and_look(self):
        self.death = self.plan
        self.machine.stop()
        self.note("stopped")
        self.look_at_the_dead()

    def count_messages_in_hand(self):
        """What the deaths have found received and not processed, since the driver started."""
        counters = dict(word.split("=") for word in self.probe.ask("driver", "counters").split()[1:])
        now = int(counters["forgotten"]) + int(counters["redelivered"])
        self.report.sums["messages in hand at a death"] += now - self.machine.in_hand
        self.machine.in_hand = now
