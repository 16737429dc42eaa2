"""What the rounds had in them, for a person, and the first violation with all that it takes to see it
again."""

from collections import Counter

from choices import FLUSH_MS


class Report:
    """Counts; those of several workers are added up."""

    def __init__(self):
        self.rounds = Counter()      # by (kind, flush_ms)
        self.by_point = Counter()    # by kind: ended in the very call that was counted to
        self.violations = Counter()  # by kind
        self.sums = Counter()        # by name
        self.first = None

    def add(self, other):
        for name in "rounds", "by_point", "violations", "sums":
            getattr(self, name).update(getattr(other, name))
        self.first = self.first or other.first

    def lines(self):
        yield (f"{'round':<16}{'rounds':>8}" + "".join(f"{f'+{ms} ms':>8}" for ms in FLUSH_MS)
               + f"{'in a call':>11}{'violations':>12}")
        for kind in sorted({kind for kind, _ in self.rounds}):
            counts = [self.rounds[kind, ms] for ms in FLUSH_MS]
            yield (f"{kind:<16}{sum(counts):>8}" + "".join(f"{count:>8}" for count in counts)
                   + f"{self.by_point[kind]:>11}{self.violations[kind]:>12}")
        yield ", ".join(f"{count} {name}" for name, count in sorted(self.sums.items()))
