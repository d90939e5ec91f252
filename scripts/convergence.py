#!/usr/bin/env python3
"""Three installations, one cloud folder, random life: do they end up equal?

Each installation is a `tarnwell` process per command, as a user drives it.
The script makes random operations (pickups, walks, focus sessions, tags:
add, edit, delete; alive spans and allowed apps, which must never leave
their device), random cloud faults, random background stretches, and kills
some commands with SIGKILL while they run. Then the faults stop, every
installation comes back to the foreground, and all of them run `sync pull`,
then `sync push`, then `sync pull`. The synced records of every installation
must then equal each other and the cloud's, field by field, and every
operation a command acknowledged (exit 0) must show.

With --unrecoverable the faults are those the sync layer does not recover
(network 3 and 4, quota 25, zone not found 26). Then the script reports what
diverged and fails only for divergence the design does not accept: a record
that some installation deleted whose deletion never reached the others.

With --server the installations sync through a PostgreSQL server instead
of a folder: each seed signs in as a new user (a role the script makes as
the server's superuser, whose password libpq finds in PGPASSFILE). Faults
are the folder's, so against a server only token expiry and killed commands
remain.

  scripts/convergence.py --tarnwell build/release/apps/tarnwell/tarnwell --seeds 1 2 3
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
from datetime import datetime, timedelta, timezone

DEVICES = ("phone", "tablet", "watch")
SYNCED = ("Device", "Tag", "Focus", "Pickup", "Walk")
RECOVERABLE = ("retry", "limit", "expire", "drop")
UNRECOVERABLE = ("networkUnavailable", "networkFailure", "quotaExceeded", "zoneNotFound")


def iso(moment):
    return moment.strftime("%Y-%m-%dT%H:%M:%SZ")


class Run:
    def __init__(self, tarnwell, seed, steps, unrecoverable, root, server=None):
        self.tarnwell = tarnwell
        self.server = server
        self.environment = dict(os.environ)
        self.random = random.Random(seed)
        self.seed = seed
        self.steps = steps
        self.unrecoverable = unrecoverable
        self.root = root
        self.now = datetime(2026, 11, 23, 8, 0, tzinfo=timezone.utc)
        # Acknowledged state, by device: record id -> "live" or "deleted".
        self.own = {d: {"Pickup": {}, "Walk": {}, "Focus": {}, "Tag": {}} for d in DEVICES}
        self.background = set()
        self.counts = {"operations": 0, "faults": 0, "kills": 0, "stretches": 0}

    # One process of one installation; its exit status and output.
    def tarnwell_on(self, device, *arguments, kill_after=None):
        env = dict(self.environment, XDG_DATA_HOME=os.path.join(self.root, device, "xdg"))
        command = [self.tarnwell, "--container", os.path.join(self.root, device, "app"), "--tz", "UTC",
                   "--now", iso(self.now), "--json", *arguments]
        process = subprocess.Popen(command, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        if kill_after is not None:
            time.sleep(kill_after)
            if process.poll() is None:
                process.send_signal(signal.SIGKILL)
                process.communicate()
                self.counts["kills"] += 1
                return None, ""
        out, err = process.communicate()
        if process.returncode != 0 and kill_after is None:
            raise SystemExit(f"seed {self.seed}: {device}: tarnwell {' '.join(arguments)} failed: {err.strip()}")
        return process.returncode, out

    def json_on(self, device, *arguments):
        return json.loads(self.tarnwell_on(device, *arguments)[1])

    def tick(self):
        self.now += timedelta(seconds=self.random.randint(30, 900))

    def span(self):
        start = self.now - timedelta(seconds=self.random.randint(600, 20000))
        return start, start + timedelta(seconds=self.random.randint(10, 500))

    def live(self, device, kind):
        return [i for i, state in self.own[device][kind].items() if state == "live"]

    # A command that may be killed: its outcome is then unknown, so the
    # record it touches is no longer checked.
    def write(self, device, kind, record_id, *arguments, deletes=False):
        may_kill = not deletes and self.random.random() < 0.12
        status, out = self.tarnwell_on(device, *arguments,
                                       kill_after=self.random.uniform(0.0, 0.15) if may_kill else None)
        if status is None:
            if record_id:
                self.own[device][kind][record_id] = "unknown"
            return
        if record_id is None:
            made = json.loads(out)
            record_id = made if isinstance(made, str) else made["id"]
        self.own[device][kind][record_id] = "deleted" if deletes else "live"

    def operation(self, device):
        kind = self.random.choice(("Pickup", "Pickup", "Walk", "Focus", "Tag", "Local"))
        foreground = device not in self.background
        live = self.live(device, kind) if kind != "Local" else []
        choice = self.random.random()
        start, end = self.span()
        if kind == "Local":
            if choice < 0.5:
                self.tarnwell_on(device, "alive", "add", iso(start), iso(end))
            else:
                self.tarnwell_on(device, "app", "add", str(self.random.randint(100000, 999999)), "--name", "App")
        elif live and choice < 0.3:
            record = self.random.choice(live)
            if kind == "Pickup":
                self.write(device, kind, record, "pickup", "edit", record, iso(end + timedelta(seconds=30)))
            elif kind == "Walk":
                self.write(device, kind, record, "walk", "edit", record, iso(start), iso(end))
            elif kind == "Focus":
                self.write(device, kind, record, "focus", "edit", record, "--goal", str(self.random.randint(60, 900)))
            else:
                self.write(device, kind, record, "tag", "edit", record, "--title", f"T{self.random.randint(0, 99)}")
        elif live and choice < 0.45 and kind != "Walk" and (foreground or self.unrecoverable):
            # Walks are never deleted. A deletion in the background leaves
            # only if the stretch touches it, and a tag's never: the design's
            # boundary, kept out of the recoverable run.
            record = self.random.choice(live)
            self.write(device, kind, record, kind.lower(), "delete", record, deletes=True)
        elif kind == "Tag":
            self.write(device, kind, None, "tag", "add", f"T{self.random.randint(0, 99)}")
        elif kind == "Focus":
            self.write(device, kind, None, "focus", "add", iso(start), iso(end))
        else:
            self.write(device, kind, None, kind.lower(), "add", iso(start), iso(end))
        self.counts["operations"] += 1

    def fault(self, device):
        self.counts["faults"] += 1
        if self.unrecoverable:
            code = self.random.choice(UNRECOVERABLE)
            self.tarnwell_on(device, "cloud", "fault", code, "--times", str(self.random.randint(1, 2)))
            return
        what = "expire" if self.server else self.random.choice(RECOVERABLE)
        if what == "retry":
            code = self.random.choice(("6", "7", "23"))
            self.tarnwell_on(device, "cloud", "fault", code, "--retry-after", str(self.random.randint(1, 120)),
                             "--times", str(self.random.randint(1, 3)),
                             "--on", self.random.choice(("modify", "fetch-database", "modify")))
        elif what == "limit":
            self.tarnwell_on(device, "cloud", "fault", "limitExceeded", "--on", "modify")
            # The next push must carry records: a push of deletions alone
            # under this code sends nothing, by design.
            self.write(device, "Pickup", None, "pickup", "add", *map(iso, self.span()))
        elif what == "expire":
            self.tarnwell_on(device, "cloud", "expire-tokens")
        else:
            self.tarnwell_on(device, "cloud", "drop-pushes", str(self.random.randint(1, 3)))

    def stretch(self, device):
        if device in self.background:
            self.tarnwell_on(device, "lifecycle", "foreground")
            self.background.discard(device)
        else:
            self.tarnwell_on(device, "lifecycle", "background")
            self.background.add(device)
            self.counts["stretches"] += 1

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
        for _ in range(self.steps):
            self.tick()
            device = self.random.choice(DEVICES)
            roll = self.random.random()
            faults = 0.3 if self.unrecoverable else 0.12
            if roll < faults:
                self.fault(device)
            elif roll < faults + 0.08:
                self.stretch(device)
            else:
                self.operation(device)
        # The faults stop; everyone comes back and syncs.
        self.tick()
        if not self.server:
            self.tarnwell_on(DEVICES[0], "cloud", "fault", "clear")
        for device in sorted(self.background):
            self.tarnwell_on(device, "lifecycle", "foreground")
        self.background.clear()
        for command in ("pull", "push", "pull"):
            for device in DEVICES:
                self.tarnwell_on(device, "sync", command)

    def check(self):
        """Problems found, as lines; empty when all is well."""
        def keyed(records):
            return {(r["recordType"], r["recordName"]): r["fields"] for r in records}

        cloud = keyed(self.json_on(DEVICES[0], "cloud", "records"))
        local = {d: keyed(self.json_on(d, "sync", "records")) for d in DEVICES}
        self.counts["records"] = len(cloud)
        problems = []
        strays = {t for t, _ in cloud if t not in SYNCED}
        if strays:
            problems.append(f"records that never leave a device are in the cloud: {sorted(strays)}")
        deleted = {(k, i) for d in DEVICES for k, ids in self.own[d].items() for i, s in ids.items()
                   if s in ("deleted", "unknown")}
        for device in DEVICES:
            for key in sorted(set(cloud) | set(local[device])):
                if cloud.get(key) == local[device].get(key):
                    continue
                accepted = self.unrecoverable and key in deleted
                where = ("only in the cloud" if key not in local[device] else
                         "only on the device" if key not in cloud else "with other fields")
                line = f"{device}: {key[0]} {key[1]} {where}"
                if accepted:
                    self.accepted.append(line)
                else:
                    problems.append(line)
        for device in DEVICES:
            for kind, ids in self.own[device].items():
                for record, state in ids.items():
                    there = (kind, record) in cloud
                    if state == "live" and not there:
                        problems.append(f"lost: {device}'s acknowledged {kind} {record}")
                    if state == "deleted" and there and not self.unrecoverable:
                        problems.append(f"back: {device}'s acknowledged deletion of {kind} {record}")
        return problems

    accepted = []


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tarnwell", required=True)
    parser.add_argument("--seeds", type=int, nargs="+", default=[1, 2, 3])
    parser.add_argument("--steps", type=int, default=60)
    parser.add_argument("--unrecoverable", action="store_true")
    parser.add_argument("--keep", action="store_true", help="keep the installations of a failed seed")
    parser.add_argument("--server", help="sync through this PostgreSQL server, as its superuser makes new users")
    parser.add_argument("--server-from", metavar="VARIABLE",
                        help="--server from this environment variable; skipped (exit 77) when it is unset")
    arguments = parser.parse_args()
    if arguments.server_from:
        arguments.server = os.environ.get(arguments.server_from)
        if not arguments.server:
            print(f"skipped: {arguments.server_from} names no server")
            return 77
    if arguments.server and arguments.unrecoverable:
        parser.error("--unrecoverable injects faults, which only a cloud folder takes")

    failed = False
    for seed in arguments.seeds:
        root = tempfile.mkdtemp(prefix=f"tarnwell-convergence-{seed}-")
        began = time.monotonic()
        run = Run(os.path.abspath(arguments.tarnwell), seed, arguments.steps, arguments.unrecoverable, root,
                  arguments.server)
        run.accepted = []
        run.play()
        problems = run.check()
        counts = ", ".join(f"{v} {k}" for k, v in run.counts.items())
        print(f"seed {seed}: {counts}, {time.monotonic() - began:.1f} s: "
              f"{'equal' if not problems and not run.accepted else 'diverged'}")
        for line in run.accepted:
            print(f"  accepted (a deletion that never reached the others): {line}")
        for line in problems:
            print(f"  PROBLEM {line}")
        if problems:
            failed = True
            if arguments.keep:
                print(f"  kept in {root}")
                continue
        shutil.rmtree(root, ignore_errors=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
