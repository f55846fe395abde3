#!/usr/bin/python3
"""Sums up the reports of many hosts: a table on standard output, and a page for a browser.

    fleet.py REPORTS PAGE < HOSTS

REPORTS is the folder with the reports, PAGE the HTML file to write. HOSTS is a JSON array of objects, one a host: its `name`
and `state`, and whether the reports in REPORTS are of this run: NAME.check.json (`check`), NAME.flash.json (`flash`) and
NAME.smart.json (`smart`). `activated` says that the check came last, after what the update waited for. Nothing of a report is
believed to be well-formed, and nothing that a drive says of itself is believed.
"""
import base64
import collections
import datetime
import hashlib
import html
import json
import os
import pathlib
import re
import string
import sys

# What a host's drives are counted by: their outcomes, and how many wait for a reset, which are not due as well.
COUNTS = ["due", "waiting", "latest", "refused", "failed", "updated", "not_in_profile"]
WORDS = {"not_in_profile": "not in profile", "waiting": "waiting for a reset"}
# How a drive's firmware is shown, worst first.
LOOKS = {"failed": "bad", "due": "warn", "waiting": "warn", "refused": "warn", "updated": "good", "latest": "good",
         "not_in_profile": ""}
LIMITS = {"written": "written beyond warranty", "life": "life below limit", "temperature": "too warm"}
HOST_COLUMNS = ["Host", "State", "Drives", "Due", "Waiting", "Latest", "Refused", "Failed", "Updated", "Not in profile", "Report"]
DRIVE_COLUMNS = ["Host", "Place", "Drive", "Serial number", "Level", "Prescribed", "Firmware", "Life remaining", "Temperature",
                 "Written of warranty", "Warnings", "Used by"]


def printable(text):
    return re.sub("[^ -~]", "?", text)


def get(record, *path):
    for key in path:
        record = record.get(key) if isinstance(record, dict) else None
    return record


def text(record, *path):
    value = get(record, *path)
    return printable(value) if isinstance(value, str) else ""


def number(record, *path):
    value = get(record, *path)
    return value if isinstance(value, int) and not isinstance(value, bool) and abs(value) < 2**64 else None


def items(record, *path):
    value = get(record, *path)
    return value if isinstance(value, list) else []


def load(path):
    """The report in a file, and what is wrong with it: one of them is None."""
    try:
        report = json.loads(path.read_text(encoding="utf-8"))
    except OSError as error:
        return None, f"{path.name}: {error.strerror}"
    except (ValueError, RecursionError):
        return None, f"{path.name} is not readable"
    if get(report, "tool", "name") != "mirvok":
        return None, f"{path.name} is no report of mirvok"
    if get(report, "schema") != 2:
        return None, f"{path.name} has schema {printable(str(get(report, 'schema')))[:20]}, not 2"
    if not isinstance(get(report, "drives"), list) or not all(isinstance(drive, dict) for drive in report["drives"]):
        return None, f"{path.name} has no list of drives"
    return report, None


def identity(drive):
    names = tuple(text(drive, key) for key in ("serial_number", "device_serial", "product_id"))
    return names if any(names[:2]) else (number(drive, "controller"), number(drive, "device_id"))


def pair(drives, others):
    """Each of `drives` with the one of `others` that is the same drive, or None; then those of `others` that are left."""
    known = collections.defaultdict(collections.deque)
    for other in others:
        known[identity(other)].append(other)
    for drive in drives:
        same = known[identity(drive)]
        yield drive, same.popleft() if same else None
    for left in known.values():
        for other in left:
            yield None, other


def read_host(folder, entry):
    """A host as both outputs need it: its drives, with what their reports say together."""
    reports, notes = {}, []
    for kind in ("check", "flash", "smart"):
        if entry.get(kind):
            reports[kind], fault = load(folder / f"{entry['name']}.{kind}.json")
            notes += [fault] if fault else []
    drives, last = [], "check" if entry.get("activated") or not reports.get("flash") else "flash"
    for flashed, checked in pair(items(reports.get("flash"), "drives"), items(reports.get("check"), "drives")):
        now = (checked if last == "check" else flashed) or flashed or checked
        done = flashed or checked
        drives.append({"drive": now, "outcome": text(done, "flash", "outcome"),
                       "reason": text(done, "flash", "text") or number(done, "flash", "code"),
                       "waiting": get(now, "flash", "activation") == "pending_reset"
                       or get(now, "flash", "pending_reset") is True})
    listed = [drive["drive"] for drive in drives]
    measured = {id(drive): smart for drive, smart in pair(listed, items(reports.get("smart"), "drives"))}
    for drive in drives:
        drive["smart"] = get(measured[id(drive["drive"])], "smart")
    counts = collections.Counter(drive["outcome"] for drive in drives if not (drive["waiting"] and drive["outcome"] == "due"))
    counts["waiting"] = sum(drive["waiting"] for drive in drives)
    return {"name": entry["name"], "state": entry["state"], "drives": drives, "counts": counts, "notes": notes,
            "end": text(reports.get(last) or reports.get("smart"), "end")}


def used_by(drive):
    return ", ".join(f"{text(user, 'kind')} {text(user, 'name')}" for user in items(drive, "in_use"))


def place(drive):
    return f"A:{number(drive, 'controller')} S:{number(drive, 'device_id')}"


def summary(hosts):
    rows = [[host["name"], host["state"], len(host["drives"])] + [host["counts"][count] for count in COUNTS] for host in hosts]
    rows.append(["all", f"{len(hosts)} hosts"] + [sum(row[column] for row in rows) for column in range(2, len(COUNTS) + 3)])
    table = [["host", "state", "drives"] + COUNTS] + rows
    widths = [max(len(str(row[column])) for row in table) for column in range(len(table[0]))]
    for row in table:
        cells = [str(value).ljust(width) for value, width in zip(row[:2], widths)]
        cells += [str(value).rjust(width) for value, width in zip(row[2:], widths[2:])]
        yield printable("  ".join(cells))
    for host in hosts:
        yield from (printable(f"{host['name']}: {note}") for note in host["notes"])
        for entry in host["drives"]:
            drive, what = entry["drive"], []
            if entry["outcome"] in ("failed", "refused"):
                what = [f"{entry['outcome']}, {entry['reason']}"]
            if entry["waiting"]:
                use = "use unknown" if get(drive, "in_use") is None else f"in use: {used_by(drive)}" if drive["in_use"] else "not in use"
                what += [f"{WORDS['waiting']}, {use}"]
            level, prescribed = text(drive, "flash", "level_after"), text(drive, "flash", "level_prescribed")
            yield from (printable(f"{host['name']}: {place(drive)} SNo:{text(drive, 'serial_number')} at {level}, "
                                  f"to be {prescribed}: {words}") for words in what)
    yield f"drives updated: {rows[-1][3 + COUNTS.index('updated')] or 'none'}"


def cell(content, sort=None, look=""):
    """`content` is not HTML yet."""
    value = f" data-v={sort}" if sort is not None else ""
    return f"<td{f' class={look}' if look else ''}{value}>{html.escape(str(content))}"


def bar(value, full, label, bad, mark=0):
    """A bar of value in full, with a mark at a limit; `label` says the same in words. Empty where it is unknown."""
    if value is None or full is None:
        return "<td>"
    share = value / full if full else 1
    limit = f"<i style=left:{min(mark, 100)}%></i>" if mark else ""
    return (f"<td class={'bad' if bad else 'good'} data-v={share:.4f}>"
            f"<b class=bar><u style=width:{min(max(share, 0), 1):.0%}></u>{limit}</b>{html.escape(label)}")


def amount(count):
    units = iter(("B", "KiB", "MiB", "GiB", "TiB"))
    unit = next(units)
    while count >= 1024 and unit != "TiB":
        count, unit = count / 1024, next(units)
    return f"{count:.0f} {unit}" if count >= 100 or unit == "B" else f"{count:.1f} {unit}"


def drive_warnings(smart):
    found = ["predicts its failure"] if get(smart, "predictive_failure") is True else []
    found += [LIMITS.get(name, name) for name in items(smart, "exceeded") if isinstance(name, str)]
    found += [f"warns: {name.replace('_', ' ')}" for name in items(smart, "health", "critical_warning") if isinstance(name, str)]
    return printable(", ".join(found))


def drive_row(host, entry):
    """A row of the drives, after what it is to be sorted by: those in trouble come first."""
    drive, smart, outcome = entry["drive"], entry["smart"], entry["outcome"]
    shown = "waiting" if entry["waiting"] else outcome
    words = [word for word in dict.fromkeys((outcome, shown)) if (word, shown) != ("due", "waiting")]
    words = ", ".join(WORDS.get(word, word) for word in words)
    warnings, exceeded = drive_warnings(smart), items(smart, "exceeded")
    life = number(smart, "life_remaining_percent")
    celsius, limit = number(smart, "temperature_celsius"), number(smart, "temperature_max_celsius")
    written, warranty = number(smart, "written_bytes"), number(smart, "warranty_bytes")
    row = [cell(host["name"]), cell(f"{place(drive)} {text(drive, 'node')}"),
           cell(f"{text(drive, 'protocol')} {text(drive, 'product_id')}"),
           cell(text(drive, "serial_number") or text(drive, "device_serial")),
           cell(text(drive, "flash", "level_after")), cell(text(drive, "flash", "level_prescribed")),
           cell(f"{words}: {entry['reason']}" if outcome in ("failed", "refused") else words, look=LOOKS.get(shown, "")),
           bar(life, 100, f"{life} %", "life" in exceeded, number(smart, "life_threshold_percent") or 0),
           bar(celsius, limit, f"{celsius} of {limit} °C", "temperature" in exceeded),
           bar(written, warranty, f"{amount(written or 0)} of {amount(warranty or 0)}", "written" in exceeded),
           cell(warnings, look="bad" if warnings else ""), cell(used_by(drive))]
    rank = list(LOOKS).index(shown) if shown in LOOKS else len(LOOKS)
    return (shown != "failed" and not warnings, rank), "<tr>" + "".join(row)


def report_time(end, now):
    """When the report was made by the host's clock, and what makes that doubtful."""
    try:
        hours = (now - datetime.datetime.strptime(end, "%Y-%m-%dT%H:%M:%SZ")).total_seconds() / 3600
    except ValueError:
        return cell(end or "none", look="warn")
    doubt = f" ({hours / 24:.0f} days old)" if hours > 48 else " (not yet, by our clock)" if hours < -1 else ""
    return cell(end + doubt, look="warn" if doubt else "")


def host_look(state):
    if re.search("failed|lost|unreachable|not checked|status", state):
        return "bad"
    return "warn" if re.search("^due|reboot", state) else "good"


def host_row(host, now):
    counts = "".join(cell(host["counts"][count] or "", sort=host["counts"][count]) for count in COUNTS)
    state = cell(". ".join([host["state"]] + host["notes"]), look=host_look(host["state"]))
    return f"<tr>{cell(host['name'])}{state}{cell(len(host['drives']))}{counts}{report_time(host['end'], now)}"


def page(hosts, now):
    template = (pathlib.Path(__file__).parent / "fleet.html").read_text(encoding="utf-8")
    counts = sum((host["counts"] for host in hosts), collections.Counter())
    rows = sorted((drive_row(host, entry) for host in hosts for entry in host["drives"]), key=lambda row: row[0])
    warned = sum(bool(drive_warnings(entry["smart"])) for host in hosts for entry in host["drives"])
    states = collections.Counter(host["state"] for host in hosts).most_common()
    tiles = {"host": [("", len(hosts), "hosts")] + [(host_look(state), count, state) for state, count in states],
             "drive": [("", len(rows), "drives"), ("bad" if warned else "good", warned, "with warnings")]
             + [(look, counts[word], WORDS.get(word, word)) for word, look in LOOKS.items() if counts[word]]}
    values = {"time": now.strftime("%Y-%m-%d %H:%M UTC"), "drives": "\n".join(row for _, row in rows),
              "hosts": "\n".join(host_row(host, now) for host in hosts)}
    for name, columns in (("host", HOST_COLUMNS), ("drive", DRIVE_COLUMNS)):
        values[f"{name}_tiles"] = "".join(f"<li class='{look}'><strong>{count}</strong> {html.escape(word)}"
                                          for look, count, word in tiles[name])
        values[f"{name}_head"] = "".join(f"<th scope=col>{column}" for column in columns)
        values[f"{name}_labels"] = " ".join(f'#{name}s td:nth-child({n}):before {{ content: "{column}"; }}'
                                            for n, column in enumerate(columns, 1))
    script = re.search("<script>(.*)</script>", template, re.S)[1]
    values["script_hash"] = base64.b64encode(hashlib.sha256(script.encode()).digest()).decode()
    return string.Template(template).substitute(values)


def main():
    folder, target = map(pathlib.Path, sys.argv[1:])
    hosts = [read_host(folder, entry) for entry in json.load(sys.stdin)]
    target.parent.mkdir(parents=True, exist_ok=True)
    part = target.with_name(f".{target.name}.part")
    part.write_text(page(hosts, datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)), encoding="utf-8")
    os.replace(part, target)
    print(*summary(hosts), sep="\n")


if __name__ == "__main__":
    main()
