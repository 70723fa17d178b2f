#!/usr/bin/env python3
"""The matcher of the examples answers every query, and rightly, while its index is
rebuilt and exchanged.

blue_green_test.py --emulator=[COMMAND] BLUE_GREEN_MATCHER

Queries flow without a pause. Meanwhile another process builds one generation of
the index after the other, each in the directory that the matcher is not using, and
the matcher changes over. The documents of generation g are numbered from 1000 g on,
so an answer tells whose it is: it must be that of one generation that was in use
between the sending of the query and the answer. In the end the matcher goes to and
fro many times, and is sent where there is no index.
"""
import argparse
import random
import subprocess
import sys
import tempfile
import threading
from pathlib import Path

REBUILDS = 4
CHANGES = 60  # to and fro between two finished indexes
IN_FLIGHT = 24  # queries that are sent and not answered
DOCUMENTS = ["contract", "minutes", "plan", "prices"]
STRANGER = "stranger"  # a query that is in no index
PATIENCE = 120


def text(name):
    words = random.Random(name)
    return " ".join("".join(words.choices("abcdefghijklmnopqrstuvwxyz", k=7)) for _ in range(400))


class Matcher:
    """The program under test, its feeding thread and its reading one."""

    def __init__(self, command, directory):
        self.process = subprocess.Popen(
            [*command, "match", "blue"], cwd=directory, text=True, bufsize=1,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.lock = threading.Condition()
        # Indexes in use, oldest first, each as (its generation). A query may be answered
        # by any from the one in use when it was sent to the last one asked for.
        self.history = [0]
        self.settled = 0  # the place in it that the matcher has certainly reached
        self.pending = {}  # query -> (name, settled when it was sent)
        self.confirmed = []  # answers to "use"
        self.answers = {}  # generation -> number of right answers
        self.faults = []
        self.sent = 0
        self.stopping = False
        self.threads = [threading.Thread(target=self.feed), threading.Thread(target=self.read)]
        for thread in self.threads:
            thread.start()

    def feed(self):
        names = [*DOCUMENTS, STRANGER]
        while True:
            with self.lock:
                self.lock.wait_for(lambda: self.stopping or len(self.pending) < IN_FLIGHT)
                if self.stopping:
                    return
                query = f"q{self.sent}"
                name = names[self.sent % len(names)]
                self.sent += 1
                self.pending[query] = (name, self.settled)
                self.process.stdin.write(f"match {query} {name}\n")

    def read(self):
        for line in self.process.stdout:
            with self.lock:
                if line.startswith("use "):
                    self.confirmed.append(line.rstrip())
                else:
                    self.check(line.split())
                self.lock.notify_all()
        with self.lock:
            self.stopping = True
            self.lock.notify_all()

    def check(self, words):
        query, answer = words[0], words[1:]
        name, since = self.pending.pop(query)
        allowed = self.history[since:]
        for generation in allowed if name != STRANGER else []:
            if answer == [f"{1000 * generation + DOCUMENTS.index(name)}:2"]:
                self.answers[generation] = self.answers.get(generation, 0) + 1
                return
        if name != STRANGER or answer:
            self.faults.append(f"{name}: {answer} beside generations {allowed}")

    def use(self, directory, generation):
        """Sends the matcher to a directory; whether it went there."""
        with self.lock:
            before = len(self.confirmed)
            if generation is not None:
                self.history.append(generation)
            self.process.stdin.write(f"use {directory}\n")
            self.lock.wait_for(lambda: len(self.confirmed) > before or self.stopping, PATIENCE)
            if len(self.confirmed) == before:
                sys.exit(f"no answer to use {directory}")
            if generation is not None:
                self.settled = len(self.history) - 1
            return self.confirmed[-1] == f"use {directory} done"

    def wait_for_answers(self, generation, number):
        with self.lock:
            enough = lambda: self.faults or self.answers.get(generation, 0) >= number
            if not self.lock.wait_for(enough, PATIENCE):
                sys.exit(f"no answers of generation {generation}")

    def stop(self):
        with self.lock:
            self.stopping = True
            self.lock.notify_all()
        self.threads[0].join()
        self.process.stdin.close()
        self.threads[1].join()
        return self.process.wait()


def build(command, directory, place, generation):
    # What else is in the index differs, so that no two tables are alike.
    filler = f"filler{generation}"
    (directory / filler).write_text(text(filler))
    subprocess.run([*command, "index", place, str(1000 * generation), *DOCUMENTS, filler],
                   cwd=directory, check=True)


def story(command, directory):
    for name in [*DOCUMENTS, STRANGER]:
        (directory / name).write_text(text(name))
    build(command, directory, "blue", 0)
    matcher = Matcher(command, directory)
    try:
        matcher.wait_for_answers(0, 50)
        places = ["blue", "green"]
        for generation in range(1, REBUILDS + 1):
            build(command, directory, places[generation % 2], generation)
            assert matcher.use(places[generation % 2], generation)
            matcher.wait_for_answers(generation, 50)
        for place, directory_without in [("nowhere", False), ("empty", True)]:
            if directory_without:
                (directory / place).mkdir()
            assert not matcher.use(place, None)
        for change in range(CHANGES):
            generation = REBUILDS - (change + 1) % 2
            assert matcher.use(places[generation % 2], generation)
    finally:
        status = matcher.stop()
    total = sum(matcher.answers.values())
    print(f"{matcher.sent} queries, {total} right answers: {matcher.answers}")
    assert not matcher.faults, f"{len(matcher.faults)} wrong: {matcher.faults[:5]}"
    assert not matcher.pending, f"never answered: {matcher.pending}"
    assert status == 0, status


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--emulator", type=str.split)
    parser.add_argument("matcher")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="tessera_blue_green_") as directory:
        story([*options.emulator, options.matcher], Path(directory))


if __name__ == "__main__":
    main()
