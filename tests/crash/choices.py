"""What a round does and when the service dies in it: drawn from the round's own random numbers, before
anything happens, so that seed, history and round say it again."""

from dataclasses import dataclass

from kill_points import FILE, FLUSH, REQUEST

FLUSH_MS = 0, 1, 10
CALLS = ("ping", "status", "list", "files", "bitmaps", "copy", "track", "untrack", "delete", "sync")
NO_KILL = "orderly stop"

# The kinds of rounds, as often as they come among one another.
KINDS = {
    "first writes": 30, "burst": 12, "load": 8, "unload": 8, "stop": 8, "start": 8, "log roll": 3,
    "registry": 6, "deletion": 6, "held file": 7, "scan": 0.5, NO_KILL: 6,
    **{f"call {name}": 1.5 for name in CALLS},
}
COUNTS = {1: 3, 2: 3, 5: 5, 10: 5, 20: 3, 50: 2, 100: 1, 200: 1}  # of files
BLOCK_SIZES = 4096, 65_536, 512, 12_288, 1 << 20


def weighted(random, weights):
    return random.choices(list(weights), list(weights.values()))[0]


@dataclass(frozen=True)
class Trigger:
    """The `countdown`-th call of the kinds, or `after_ms` when it does not come to that."""
    kinds: int
    countdown: int
    after_ms: float

    @staticmethod
    def draw(random, most_calls, most_ms):
        if random.random() < 0.5:
            return Trigger(0, 0, random.random() ** 2 * most_ms)
        kinds = random.choice((REQUEST, REQUEST, FLUSH, FILE, FLUSH | FILE))
        few = most_calls if kinds == REQUEST else most_calls / 8
        return Trigger(kinds, 1 + int(random.random() ** 2 * few), most_ms)


@dataclass(frozen=True)
class Plan:
    kind: str
    flush_ms: int
    trigger: Trigger

    @staticmethod
    def draw(random):
        kind = weighted(random, KINDS)
        flush_ms = random.choice(FLUSH_MS)
        calls, ms = {"start": (1500, 250), "log roll": (600, 80)}.get(kind, (300, 12 + 6 * flush_ms))
        return Plan(kind, flush_ms, Trigger.draw(random, calls, ms))


def any_size(random):
    return random.choice((4096, 20_480, 1 << 20, (1 << 20) + 1, 5_000_001, 1 << 24))
