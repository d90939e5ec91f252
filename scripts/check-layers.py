#!/usr/bin/env python3
"""Checks that the library's areas form layers: every include points down.

An area is a folder of the library: src/<area> and include/tarnwell/<area>
count as one, and widget_shared is the area `widgets`. An area may include the
public headers of the areas below it in LAYERS, and the private headers
(under src/) of no other area but the platform, whose ICU helpers the calendar
and the texts share. A cycle between areas is reported as such. Each area's
main header carries the order in its first line, so that a reader who opens it
sees where the area stands; that line is checked too.

Prints one line per fault and exits with 1; prints nothing and exits with 0
when the layers hold. Run from anywhere inside the repository.
"""

import pathlib
import re
import subprocess
import sys

# Bottom to top.
LAYERS = ["platform", "healthkit", "cloudkit", "widgets", "settings", "extensions", "records", "store", "sync", "health",
          "analytics", "charts", "modules", "automation"]

MAIN_HEADERS = {
    "platform": "include/tarnwell/platform/Environment.h",
    "healthkit": "include/tarnwell/healthkit/HealthStore.h",
    "cloudkit": "include/tarnwell/cloudkit/Container.h",
    "widgets": "widget_shared/include/tarnwell/widgets/FocusType.h",
    "settings": "include/tarnwell/settings/Settings.h",
    "extensions": "include/tarnwell/extensions/Strings.h",
    "records": "include/tarnwell/records/Properties.h",
    "store": "include/tarnwell/store/Store.h",
    "sync": "include/tarnwell/sync/SyncEngine.h",
    "health": "include/tarnwell/health/HealthManager.h",
    "analytics": "include/tarnwell/analytics/EventsOfDay.h",
    "charts": "include/tarnwell/charts/StatisticsData.h",
    "modules": "include/tarnwell/modules/Database.h",
    "automation": "include/tarnwell/automation/URLScheme.h",
}

INCLUDE = re.compile(r'\s*#\s*include\s*"([^"]+)"')


def layer_line(area):
    names = [f"[{name}]" if name == area else name for name in LAYERS]
    return "// Layers, bottom to top: " + " → ".join(names) + "."


# The C interface's header is a host's, as apps/ are: it stands above every
# layer and includes none of them.
HOSTS = {"c"}


def area_of(path):
    parts = path.split("/")
    if parts[0] == "widget_shared":
        return "widgets"
    if parts[0] == "include" and len(parts) > 3 and parts[2] in HOSTS:
        return None
    if parts[0] == "include" and len(parts) > 3:
        return parts[2]
    if parts[0] == "src" and len(parts) > 2:
        return parts[1]
    return None


def included_area(target):
    """The area an include names, and whether it is a public header."""
    parts = target.split("/")
    if parts[0] == "tarnwell" and len(parts) > 2:
        return parts[1], True
    if len(parts) > 1:
        return parts[0], False
    return None, True


def cycles(edges):
    """The strongly connected areas of more than one member, each in order."""
    index, low, stack, on_stack, found = {}, {}, [], set(), []

    def visit(node):
        index[node] = low[node] = len(index)
        stack.append(node)
        on_stack.add(node)
        for other in sorted(edges.get(node, ())):
            if other not in index:
                visit(other)
                low[node] = min(low[node], low[other])
            elif other in on_stack:
                low[node] = min(low[node], index[other])
        if low[node] == index[node]:
            component = []
            while True:
                member = stack.pop()
                on_stack.discard(member)
                component.append(member)
                if member == node:
                    break
            if len(component) > 1:
                found.append(sorted(component))

    for node in sorted(edges):
        if node not in index:
            visit(node)
    return found


def main():
    top = subprocess.run(["git", "rev-parse", "--show-toplevel"], capture_output=True, text=True, check=True)
    root = pathlib.Path(top.stdout.strip())
    listed = subprocess.run(["git", "ls-files", "src", "include", "widget_shared"], cwd=root, capture_output=True,
                            text=True, check=True).stdout.split()
    faults = []
    edges = {}
    rank = {name: i for i, name in enumerate(LAYERS)}

    for path in listed:
        area = area_of(path)
        if area is None or not path.endswith((".h", ".cpp")):
            continue
        if area not in rank:
            faults.append(f"{path}: the area \"{area}\" has no place in the layers (scripts/check-layers.py)")
            continue
        for number, line in enumerate((root / path).read_text(errors="replace").splitlines(), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            other, public = included_area(match.group(1))
            if other is None or other == area or other not in rank:
                continue
            edges.setdefault(area, set()).add(other)
            where = f"{path}:{number}"
            if not public and other != "platform":
                faults.append(f"{where}: {area} includes the private header {match.group(1)} of {other}")
            elif rank[other] > rank[area]:
                faults.append(f"{where}: {area} includes {match.group(1)}, of {other}, which lies above it")

    for component in cycles(edges):
        faults.insert(0, "the areas " + ", ".join(component) + " include each other in a cycle")

    for area, header in MAIN_HEADERS.items():
        path = root / header
        first = path.read_text().splitlines()[0] if path.exists() else ""
        if first != layer_line(area):
            faults.append(f"{header}:1: the main header of {area} should begin with: {layer_line(area)}")

    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
