#!/usr/bin/env python3
"""Three installations, one cloud, random life with every fault: is every acknowledged change kept?

Each installation is a `tarnwell` process per command, as a user drives it.
The script makes random operations on each device's own records (pickups,
walks, focus sessions, tags: add, edit, delete; alive spans and allowed apps,
which must never leave their device), and meanwhile every fault the cloud can
show, at random: network errors 3 and 4 on pushes and fetches, quota 25, zone
errors 26 and 28 and zones the user deletes, limitExceeded 27 before a push
with records and before one of deletions only, retries 6/7/23 with a short
retry-after (the host waits for it on the clock), dropped completions and
pushes, expired tokens, background stretches in which the device edits and
deletes records made long before, and SIGKILL of any command at a random
moment, deletions and launches included.

Then the faults are cleared and only ordinary launches run: each device
comes back to the foreground if it is in the background and runs `day` (a
launch pulls, then sends what is unsent), a few rounds over all devices so
that what the last one sends reaches the first. Nothing else: no explicit
push or pull, no toggling of sync; a user does neither.

The check is on values, not only on equality. For every record the script
keeps the fields the last acknowledged command (exit 0) on it set, or that it
deleted it. Every installation and the cloud must hold exactly those values
(deleted records absent), and no record twice. A record whose last command
was killed may end either way, but every installation must agree on it.
Installations must also equal each other and the cloud for every synced
type, and records that never leave a device must never be in the cloud.

With --server the installations sync through a PostgreSQL server instead
of a folder: each seed signs in as a new user (a role the script makes as
the server's superuser, whose password libpq finds in PGPASSFILE). The
server keeps the same fault switches as a folder, so the life is the same.

  scripts/convergence.py --tarnwell build/dev/apps/tarnwell/tarnwell --seeds 1 2 3
  scripts/convergence.py --tarnwell ... --server postgresql://tarnwell@127.0.0.1:55432/postgres
"""

import argparse
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter
from datetime import datetime, timedelta, timezone

DEVICES = ("phone", "tablet", "watch")
SYNCED = ("Device", "Tag", "Focus", "Pickup", "Walk")
ZONES = ("PickupsZone", "WalksZone", "FocussZone", "TagsZone", "DevicesZone")
ROUNDS = 3
# Every launch writes the time it synced into its device's record; nothing
# else of a device changes without a command, so the rest is compared.
REWRITTEN = {"Device": {"lastSyncDate"}}


def iso(moment):
    return moment.strftime("%Y-%m-%dT%H:%M:%SZ")


def same(value, expected):
    if isinstance(expected, (int, float)) and isinstance(value, (int, float)):
        return float(value) == float(expected)
    return value == expected


class Record:
    """What the script knows of one record: whose it is and what it should hold."""

    def __init__(self, kind, owner, fields):
        self.kind = kind
        self.owner = owner
        self.state = "live"  # live, deleted or unknown
        self.fields = fields  # what the last acknowledged command set
        self.start = fields.get("start")


class Run:
    def __init__(self, tarnwell, seed, steps, root, server=None):
        self.tarnwell = tarnwell
        self.server = server
        self.environment = dict(os.environ)
        self.random = random.Random(seed)
        self.seed = seed
        self.steps = steps
        self.root = root
        self.now = datetime(2026, 11, 23, 8, 0, tzinfo=timezone.utc)
        self.records = {}  # record name -> Record
        self.background = set()  # devices that may be in the background
        self.counts = Counter()
        self.trace = False

    # One process of one installation: its exit status (None when killed)
    # and output. A command not killed must succeed unless `may_fail`.
    def tarnwell_on(self, device, *arguments, kill=False, may_fail=False):
        env = dict(self.environment, XDG_DATA_HOME=os.path.join(self.root, device, "xdg"))
        command = [self.tarnwell, "--container", os.path.join(self.root, device, "app"), "--tz", "UTC",
                   "--now", iso(self.now), "--json", *arguments]
        process = subprocess.Popen(command, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        if kill:
            # A debug build's command takes a few tenths of a second: the
            # kill falls anywhere from start-up to the last write.
            try:
                out, err = process.communicate(timeout=self.random.uniform(0.0, 0.6))
            except subprocess.TimeoutExpired:
                process.send_signal(signal.SIGKILL)
                process.communicate()
                self.counts["kills"] += 1
                if self.trace:
                    print(f"  {iso(self.now)} {device}: {' '.join(arguments)} -> killed", file=sys.stderr)
                return None, ""
        else:
            out, err = process.communicate()
        if self.trace:
            print(f"  {iso(self.now)} {device}: {' '.join(arguments)} -> {process.returncode}", file=sys.stderr)
        if process.returncode != 0 and not (kill or may_fail):
            raise SystemExit(f"seed {self.seed}: {device}: tarnwell {' '.join(arguments)} failed: {err.strip()}")
        return process.returncode, out

    def json_on(self, device, *arguments):
        return json.loads(self.tarnwell_on(device, *arguments)[1])

    def tick(self):
        self.now += timedelta(seconds=self.random.randint(30, 900))

    def span(self):
        start = self.now - timedelta(seconds=self.random.randint(600, 20000))
        return start, start + timedelta(seconds=self.random.randint(10, 500))

    def own(self, device, kind):
        return [name for name, r in self.records.items() if r.owner == device and r.kind == kind and r.state == "live"]

    def kills(self):
        return self.random.random() < 0.12

    # A command that writes one record. Killed, the record's end is unknown;
    # refused (bad input, which loses nothing), it stays as it was.
    def write(self, device, kind, name, fields, *arguments, deletes=False):
        status, out = self.tarnwell_on(device, *arguments, kill=self.kills())
        self.counts["operations"] += 1
        if status is None:
            if name:
                self.records[name].state = "unknown"
            return
        if status != 0:
            self.counts["refused"] += 1
            return
        if name is None:
            made = json.loads(out)
            name = made if isinstance(made, str) else made["id"]
            self.records[name] = Record(kind, device, fields)
        elif deletes:
            self.records[name].state = "deleted"
        else:
            self.records[name].fields = fields

    def add(self, device, kind):
        start, end = self.span()
        if kind == "Tag":
            title = f"T{self.random.randint(0, 99)}"
            self.write(device, kind, None, {"title": title}, "tag", "add", title)
        else:
            self.write(device, kind, None, {"start": iso(start), "end": iso(end)}, kind.lower(), "add", iso(start),
                       iso(end))

    def edit(self, device, kind, name):
        record = self.records[name]
        if kind == "Pickup":
            start = datetime.strptime(record.start, "%Y-%m-%dT%H:%M:%SZ").replace(tzinfo=timezone.utc)
            end = min(self.now, start + timedelta(seconds=self.random.randint(5, 600)))
            self.write(device, kind, name, {"end": iso(end)}, "pickup", "edit", name, iso(end))
        elif kind == "Walk":
            start, end = self.span()
            self.write(device, kind, name, {"start": iso(start), "end": iso(end)}, "walk", "edit", name, iso(start),
                       iso(end))
        elif kind == "Focus":
            goal = self.random.randint(60, 900)
            self.write(device, kind, name, {"goal": goal}, "focus", "edit", name, "--goal", str(goal))
        else:
            title = f"T{self.random.randint(0, 99)}"
            self.write(device, kind, name, {"title": title}, "tag", "edit", name, "--title", title)

    def delete(self, device, kind, name):
        self.write(device, kind, name, None, kind.lower(), "delete", name, deletes=True)

    def operation(self, device):
        kind = self.random.choice(("Pickup", "Pickup", "Walk", "Focus", "Tag", "Local"))
        if kind == "Local":
            start, end = self.span()
            if self.random.random() < 0.5:
                self.tarnwell_on(device, "alive", "add", iso(start), iso(end), kill=self.kills())
            else:
                self.tarnwell_on(device, "app", "add", str(self.random.randint(100000, 999999)), "--name", "App",
                                 kill=self.kills())
            return
        own = self.own(device, kind)
        # In the background the device mostly reworks what it made before,
        # records from long before the stretch included.
        changes = 0.6 if device in self.background else 0.35
        choice = self.random.random()
        if own and choice < changes * 0.6:
            self.edit(device, kind, self.random.choice(own))
        elif own and choice < changes and kind != "Walk":  # walks are never deleted by the user
            self.delete(device, kind, self.random.choice(own))
        else:
            self.add(device, kind)

    def fault(self, device, late):
        self.counts["faults"] += 1
        what = self.random.choice(("network", "network", "quota", "zone", "limit", "retry", "drop", "expire"))
        fault = lambda *arguments: self.tarnwell_on(device, "cloud", "fault", *arguments, kill=self.kills())
        if what == "network":
            fault(self.random.choice(("3", "4")), "--times", str(self.random.randint(1, 4)),
                  *self.random.choice(((), ("--on", "modify"), ("--on", "fetch-database"), ("--on", "fetch-zone"))))
        elif what == "quota":
            fault("25", "--times", str(self.random.randint(1, 2)), "--on", "modify")
        elif what == "zone":
            roll = self.random.random()
            if roll < 0.4:
                self.tarnwell_on(device, "cloud", "delete-zone", self.random.choice(ZONES), kill=self.kills())
            else:
                fault(self.random.choice(("26", "28")),
                      *self.random.choice(((), ("--on", "modify"), ("--on", "fetch-zone"))))
        elif what == "limit":
            fault("27", "--on", "modify")
            # The next push carries records, or deletions only.
            pickups = self.own(device, "Pickup")
            if pickups and self.random.random() < 0.5:
                self.delete(device, "Pickup", self.random.choice(pickups))
            else:
                self.add(device, "Pickup")
        elif what == "retry":
            fault(self.random.choice(("6", "7", "23")), "--retry-after", str(self.random.randint(1, 5)), "--times",
                  str(self.random.randint(1, 2)), "--on", self.random.choice(("modify", "fetch-database", "modify")))
        elif what == "drop":
            # Dropped completions are requested early enough for the life
            # to use them up: nothing clears them before the launches.
            if not late and self.random.random() < 0.5:
                self.tarnwell_on(device, "cloud", "drop-completions", "1", kill=self.kills())
            else:
                self.tarnwell_on(device, "cloud", "drop-pushes", str(self.random.randint(1, 3)), kill=self.kills())
        else:
            self.tarnwell_on(device, "cloud", "expire-tokens", kill=self.kills())

    def stretch(self, device):
        if device in self.background:
            status, _ = self.tarnwell_on(device, "lifecycle", "foreground", kill=self.kills(), may_fail=True)
            if status is not None:
                self.background.discard(device)
        else:
            self.tarnwell_on(device, "lifecycle", "background", kill=self.kills())
            self.background.add(device)
            self.counts["stretches"] += 1

    def launch(self, device, kill=False):
        """An ordinary launch: back to the foreground if need be, then a read."""
        if device in self.background:
            # After a killed `lifecycle` the state is not known: the host
            # refuses a return from where it never left.
            status, _ = self.tarnwell_on(device, "lifecycle", "foreground", kill=kill, may_fail=True)
            if status is None:
                return
            self.background.discard(device)
        self.tarnwell_on(device, "day", kill=kill)
        self.counts["launches"] += 1

    # A user of their own on the server, and the URL they sign in with.
    def new_server_user(self):
        match = re.fullmatch(r"postgres(?:ql)?://([^@/]+)@([^:/]+)(?::(\d+))?/(.+)", self.server)
        if not match:
            raise SystemExit(f"--server {self.server}: not postgresql://USER@HOST:PORT/DB")
        _, host, port, database = match.groups()
        port = port or "5432"
        user = f"convergence_{self.seed}_{os.getpid()}_{int(time.time() * 1000) % 100000000}"
        password = f"pw-{self.random.getrandbits(64):x}"
        # A grant on the database rewrites its catalog row; the tests' roles
        # are granted under the same lock, so that no two grants meet.
        subprocess.run(["psql", "-q", "-1", "-v", "ON_ERROR_STOP=1", self.server,
                        "-c", "DO $$ BEGIN PERFORM pg_advisory_xact_lock(hashtext('tarnwell test roles')); END $$",
                        "-c", f"CREATE ROLE {user} LOGIN PASSWORD '{password}'",
                        "-c", f"GRANT CREATE ON DATABASE {database} TO {user}"], check=True, env=self.environment)
        passfile = os.path.join(self.root, "pgpass")
        with open(passfile, "w") as out:
            out.write(f"{host}:{port}:*:{user}:{password}\n")
        os.chmod(passfile, 0o600)
        self.environment["PGPASSFILE"] = passfile
        return f"postgresql://{user}@{host}:{port}/{database}"

    def play(self):
        cloud = self.new_server_user() if self.server else os.path.join(self.root, "cloud")
        for device in DEVICES:
            self.tarnwell_on(device, "cloud", "sign-in", cloud)
            if self.server and device == DEVICES[0]:
                self.tarnwell_on(device, "cloud", "init-server")
        for step in range(self.steps):
            self.tick()
            device = self.random.choice(DEVICES)
            roll = self.random.random()
            if roll < 0.25:
                self.fault(device, late=step >= self.steps * 3 // 4)
            elif roll < 0.33:
                self.stretch(device)
            elif roll < 0.40:
                self.launch(device, kill=self.kills())
            else:
                self.operation(device)
        # The faults stop; from here on only what a user does: open the app.
        self.tick()
        self.tarnwell_on(DEVICES[0], "cloud", "fault", "clear")
        for _ in range(ROUNDS):
            for device in DEVICES:
                self.tick()
                self.launch(device)

    def check(self):
        """Problems found, as lines; empty when all is well."""
        problems = []
        cloud_list = self.json_on(DEVICES[0], "cloud", "records")
        lists = {d: self.json_on(d, "sync", "records") for d in DEVICES}
        lists["cloud"] = cloud_list
        held = {}
        for where, records in lists.items():
            for name, n in Counter((r["recordType"], r["recordName"]) for r in records).items():
                if n > 1:
                    problems.append(f"twice: {where} holds {name[0]} {name[1]} {n} times")
            # A row marked deleted is as good as gone: no screen shows it.
            held[where] = {r["recordName"]: r for r in records if not r["fields"].get("isDeleted")}
        self.counts["records"] = len(cloud_list)

        strays = sorted({r["recordType"] for r in cloud_list if r["recordType"] not in SYNCED})
        if strays:
            problems.append(f"records that never leave a device are in the cloud: {strays}")

        # Values: what the last acknowledged command left. One line says a
        # record's fault and every place that shows it.
        flagged = set()
        for name, record in sorted(self.records.items()):
            if record.state == "unknown":
                continue
            label = f"{record.owner}'s {record.kind} {name}"
            faults = {}
            for where, there in held.items():
                found = there.get(name)
                if record.state == "deleted":
                    if found is not None:
                        faults.setdefault(f"back: {label} deleted but present", []).append(where)
                elif found is None:
                    faults.setdefault(f"lost: {label}", []).append(where)
                else:
                    for field, expected in record.fields.items():
                        value = found["fields"].get(field)
                        if not same(value, expected):
                            line = f"changed: {label} field {field} is {value}, expected {expected}"
                            faults.setdefault(line, []).append(where)
            for line, places in faults.items():
                problems.append(f"{line} (on {', '.join(places)})")
                flagged.add(name)

        # Agreement: every installation equals the cloud, field by field.
        def comparable(record):
            skip = REWRITTEN.get(record["recordType"], set())
            return {k: v for k, v in record["fields"].items() if k not in skip}

        # What differs for a record already reported is not said again.
        for device in DEVICES:
            for name in sorted(set(held["cloud"]) | set(held[device])):
                if name in flagged:
                    continue
                mine, theirs = held[device].get(name), held["cloud"].get(name)
                if mine is not None and theirs is not None and comparable(mine) == comparable(theirs):
                    continue
                kind = (mine or theirs)["recordType"]
                where = ("only in the cloud" if mine is None else "only on the device" if theirs is None else
                         "with other fields than the cloud's")
                problems.append(f"differs: {device}: {kind} {name} {where}")
        return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tarnwell", required=True)
    parser.add_argument("--seeds", type=int, nargs="+", default=[1, 2, 3])
    parser.add_argument("--steps", type=int, default=60)
    parser.add_argument("--keep", action="store_true", help="keep the installations of a failed seed")
    parser.add_argument("--trace", action="store_true", help="print every command and its exit status")
    parser.add_argument("--server", help="sync through this PostgreSQL server, as its superuser makes new users")
    parser.add_argument("--server-from", metavar="VARIABLE",
                        help="--server from this environment variable; skipped (exit 77) when it is unset")
    arguments = parser.parse_args()
    if arguments.server_from:
        arguments.server = os.environ.get(arguments.server_from)
        if not arguments.server:
            print(f"skipped: {arguments.server_from} names no server")
            return 77

    failed = False
    for seed in arguments.seeds:
        root = tempfile.mkdtemp(prefix=f"tarnwell-convergence-{seed}-")
        began = time.monotonic()
        run = Run(os.path.abspath(arguments.tarnwell), seed, arguments.steps, root, arguments.server)
        run.trace = arguments.trace
        run.play()
        problems = run.check()
        counts = ", ".join(f"{v} {k}" for k, v in sorted(run.counts.items()))
        print(f"seed {seed}: {counts}, {time.monotonic() - began:.1f} s: {'kept' if not problems else 'PROBLEMS'}",
              flush=True)
        for line in problems:
            print(f"  PROBLEM {line}", flush=True)
        if problems:
            failed = True
            if arguments.keep:
                print(f"  kept in {root}")
                continue
        shutil.rmtree(root, ignore_errors=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
