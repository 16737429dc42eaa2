#!/usr/bin/python3
"""Kill loops: the shipped service under the service control manager, with the simulated driver that
forgets what it has handed over, killed again and again; after each start an oracle that shares nothing
with the service looks at its files and lists. docs/reliability.md says what it judges.

    tools/crash.sh [ROUNDS] [--seed SEED] [--history NUMBER] [--go-on] [--workers N] [--redeliver]

Several Wine prefixes run side by side. A history of at most 40 rounds begins with a fresh installation; seed
and number of a history give its choices again. Ends non-zero with the first violation; --go-on counts
them and goes on with the next history. With --redeliver the driver delivers again what a killed service
had in hand, which no driver can: what is lost then is lost otherwise, or the bench is wrong."""

import argparse
import multiprocessing
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time
import traceback

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests" / "crash"), str(ROOT / "tests" / "e2e"), str(ROOT / "bench")]

from history import History
from machine import Machine
from report import Report
from world import Violation

ROUNDS_OF_A_HISTORY = 40
TRACES = ROOT / "build" / "crash"


def arguments():
    parser = argparse.ArgumentParser(prog="tools/crash.sh")
    parser.add_argument("rounds", nargs="?", type=int, default=400)
    parser.add_argument("--seed", type=int, default=time.time_ns() // 1_000_000 % 1_000_000_000)
    parser.add_argument("--history", type=int, help="this one alone")
    parser.add_argument("--workers", type=int, default=2 * os.cpu_count())
    parser.add_argument("--go-on", action="store_true")
    parser.add_argument("--redeliver", action="store_true")
    return parser.parse_args()


def leave_trace(history, seed, text):
    """All that was ordered, and the installation as it stands."""
    place = TRACES / f"{seed}-{history.number}"
    shutil.rmtree(place, ignore_errors=True)
    place.mkdir(parents=True)
    (place / "trace.txt").write_text("\n".join([*history.trace, text, ""]))
    if history.machine.cbt.exists():
        shutil.copytree(history.machine.cbt, place / "cbt")
    if history.machine.log.exists() and history.machine.log.stat().st_size < 1 << 24:
        shutil.copy(history.machine.log, place)
    return place


def run_history(machine, options, number, rounds):
    report, seed = Report(), options.seed
    history = History(machine, seed, number, report, options.redeliver)
    try:
        history.run(rounds)
    except Violation as violation:
        place = leave_trace(history, seed, str(violation))
        report.violations[history.death.kind] += 1
        report.first = (f"seed {seed}, history {number}, found in round {history.round_number}: {violation}"
                        f"\n  the death before: {history.death}\n  again: tools/crash.sh {rounds} --seed "
                        f"{seed} --history {number}\n  trace: {place}")
    return report


def work(machine, options, jobs, results):
    """Takes numbers of histories until there are no more."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        machine.set_up()
        while (job := jobs.get()) is not None:
            number, rounds = job
            report = run_history(machine, options, number, rounds)
            results.put(report)
            if report.first:
                recover(machine)
    except Exception:
        results.put(traceback.format_exc())
    finally:
        try:
            machine.tear_down()
        finally:
            results.put(None)


def recover(machine):
    """After a history that was broken off."""
    machine.points.disarm()
    machine.disk.set_delay(0)
    machine.kill()
    machine.tear_down()
    machine.set_up()


def make_prefixes(names):
    """The first is made by Wine, the others are its copies."""
    first, *others = (ROOT / "build" / "wine" / name for name in names)
    if not (first / ".ready").exists():
        environment = dict(os.environ, ZEL_WINEPREFIX=str(first))
        for verb in "--start", "--stop":
            subprocess.run([ROOT / "tools" / "wine-run.sh", verb], env=environment, check=True,
                           stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
    for other in others:
        if not (other / ".ready").exists():
            shutil.rmtree(other, ignore_errors=True)
            subprocess.run(["cp", "-a", "--reflink=auto", first, other], check=True)


def divide(options):
    """[(number of a history, its rounds)], some for every worker."""
    if options.history is not None:
        return [(options.history, options.rounds)]
    most = min(ROUNDS_OF_A_HISTORY, -(-options.rounds // options.workers))
    return [(number, min(most, options.rounds - begin))
            for number, begin in enumerate(range(0, options.rounds, most))]


def run(options):
    histories = divide(options)
    names = [f"crash-{number}" for number in range(min(options.workers, len(histories)))]
    make_prefixes(names)
    jobs, results = multiprocessing.Queue(), multiprocessing.Queue()
    for history in histories:
        jobs.put(history)
    # Each loads libraries of the same names: all are made before the first program starts.
    workers = [multiprocessing.Process(target=work, args=(machine, options, jobs, results), daemon=True)
               for machine in [Machine(name) for name in names]]
    for worker in workers:
        jobs.put(None)
    for worker in workers:
        worker.start()
    total = Report()
    left = len(workers)
    broken = None
    while left:
        result = results.get()
        if result is None:
            left -= 1
            continue
        if isinstance(result, str):
            broken = broken or result
        else:
            total.add(result)
            if result.first:
                print(result.first, flush=True)
            print(f"{sum(total.rounds.values())} rounds", file=sys.stderr, flush=True)
        if broken or (total.first and not options.go_on):
            while not jobs.empty():
                jobs.get()
            for _ in workers:
                jobs.put(None)
    return total, broken


def main():
    options = arguments()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # ends the workers, too
    print(f"seed {options.seed}, {options.rounds} rounds, {options.workers} workers", flush=True)
    began = time.monotonic()
    total, broken = run(options)
    for line in total.lines():
        print(line)
    rounds = sum(total.rounds.values())
    print(f"{rounds} rounds in {time.monotonic() - began:.0f} s, seed {options.seed}, "
          f"{sum(total.violations.values())} violations")
    if broken:
        print(f"the bench itself failed:\n{broken}")
    return 1 if broken or total.first else 0


if __name__ == "__main__":
    sys.exit(main())
