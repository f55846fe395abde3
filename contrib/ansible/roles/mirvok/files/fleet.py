#!/usr/bin/python3
"""Sums up the reports of many hosts: a table on standard output, and a page for a browser.

    fleet.py REPORTS PAGE < HOSTS

REPORTS is the folder with the reports, PAGE the HTML file to write. HOSTS is a JSON array of objects, one a host: its `name`
and `state`; the names in REPORTS of `report`, whose outcomes count, of `now`, a later check, and of `smart`, each null where
there is none. Nothing of a report is believed to be well-formed, and nothing that a drive says of itself is believed.
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

COUNTS = ["due", "waiting", "latest", "refused", "failed", "updated", "not_in_profile"]
WORDS = {"not_in_profile": "not in profile", "waiting": "waits for its reset"}
# Worst first: how a drive's firmware and the drive itself are shown.
LOOKS = {"failed": "bad", "due": "warn", "waiting": "warn", "refused": "warn", "updated": "good", "latest": "good"}
LIMITS = {"written": "written beyond warranty", "life": "life below limit", "temperature": "too warm"}
DRIVE_COLUMNS = ["Host", "Place", "Drive", "Serial number", "Level", "Prescribed", "Firmware", "Life remaining", "Temperature",
                 "Written of warranty", "Warnings", "Used by"]
HOST_COLUMNS = ["Host", "State", "Drives", "Due", "Waiting", "Latest", "Refused", "Failed", "Updated", "Not in profile", "Report"]


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
    return value if isinstance(value, int) and not isinstance(value, bool) else None


def items(record, *path):
    value = get(record, *path)
    return value if isinstance(value, list) else []


def load(path):
    """The report in a file, and what is wrong with it: one of them is None."""
    try:
        report = json.loads(path.read_text(encoding="utf-8"))
    except OSError as error:
        return None, f"report: {error.strerror}"
    except (ValueError, RecursionError):
        return None, "report is not readable"
    if get(report, "tool", "name") != "mirvok":
        return None, "not a report of mirvok"
    if get(report, "schema") != 2:
        return None, f"report of schema {printable(str(get(report, 'schema')))[:20]}"
    if not isinstance(get(report, "drives"), list) or not all(isinstance(drive, dict) for drive in report["drives"]):
        return None, "report is not readable"
    return report, None


def identity(drive):
    serials = text(drive, "serial_number"), text(drive, "device_serial")
    return serials if any(serials) else (number(drive, "controller"), number(drive, "device_id"))


def beside(drives, report):
    """Each drive with the one that is the same in another report, or None."""
    known = collections.defaultdict(list)
    for drive in items(report, "drives"):
        known[identity(drive)].append(drive)
    return [(drive, known[identity(drive)].pop(0) if known[identity(drive)] else None) for drive in drives]


def waits(drive, later):
    if later is not None:
        return get(later, "flash", "pending_reset") is True
    return get(drive, "flash", "activation") == "pending_reset" or get(drive, "flash", "pending_reset") is True


def read_host(folder, entry):
    """A host with its drives, as both outputs need it."""
    reports, notes = {}, []
    for kind in ("report", "now", "smart"):
        if entry.get(kind):
            reports[kind], fault = load(folder / entry[kind])
            notes += [fault] if fault else []
    drives = []
    listed = items(reports.get("report"), "drives") or items(reports.get("smart"), "drives")
    for (drive, later), (_, smart) in zip(beside(listed, reports.get("now")), beside(listed, reports.get("smart"))):
        waiting = waits(drive, later)
        outcome = text(drive, "flash", "outcome")
        drives.append({"drive": drive, "smart": get(smart, "smart"), "outcome": outcome, "waiting": waiting,
                       "level": text(later or drive, "flash", "level_after") or text(drive, "code_level"),
                       "in_use": get(later or drive, "in_use")})
    counts = collections.Counter(drive["outcome"] for drive in drives if not (drive["waiting"] and drive["outcome"] == "due"))
    counts["waiting"] = sum(drive["waiting"] for drive in drives)
    return {"name": entry["name"], "state": entry["state"], "drives": drives, "counts": counts, "notes": notes,
            "end": text(reports.get("now") or reports.get("report") or reports.get("smart"), "end")}


def summary(hosts):
    rows = [[host["name"], host["state"], len(host["drives"])] + [host["counts"][count] for count in COUNTS] for host in hosts]
    rows.append(["all", f"{len(hosts)} hosts"] + [sum(row[column] for row in rows) for column in range(2, len(COUNTS) + 3)])
    table = [["host", "state", "drives"] + COUNTS] + rows
    widths = [max(len(str(row[column])) for row in table) for column in range(len(table[0]))]
    for row in table:
        texts = [f"{value:<{width}}" if column < 2 else f"{value:>{width}}" for column, (value, width) in enumerate(zip(row, widths))]
        yield printable("  ".join(texts))
    for host in hosts:
        for note in host["notes"]:
            yield printable(f"{host['name']}: {note}")
        for entry in host["drives"]:
            if entry["outcome"] in ("failed", "refused"):
                drive, flash = entry["drive"], entry["drive"]["flash"]
                yield (f"{printable(host['name'])}: A:{number(drive, 'controller')} S:{number(drive, 'device_id')} SNo:{text(drive, 'serial_number')} "
                       f"at {entry['level']}, to be {text(flash, 'level_prescribed')}: {entry['outcome']}, "
                       f"{text(flash, 'text') or number(flash, 'code')}")
    yield f"drives updated: {rows[-1][3 + COUNTS.index('updated')] or 'none'}"


def cell(content, sort=None, look=""):
    """`content` is HTML."""
    return f"<td{f' class={look}' if look else ''}{f' data-v={sort}' if sort is not None else ''}>{content}</td>"


def bar(value, full, label, bad, mark=None):
    """A bar of value in full, with a mark at a limit; `label` says the same in words."""
    if value is None:
        return cell("")
    share = min(max(value / full, 0), 1) if full else 1
    limit = f"<i style=left:{min(mark, 100)}%></i>" if mark else ""
    return cell(f"<b class=bar><u style=width:{share * 100:.0f}%></u>{limit}</b>{label}", value / full if full else 1, "bad" if bad else "good")


def amount(count):
    for unit in ("B", "KiB", "MiB", "GiB"):
        if count < 1024:
            break
        count /= 1024
    else:
        unit = "TiB"
    return f"{count:.0f} {unit}" if count >= 100 or unit == "B" else f"{count:.1f} {unit}"


def drive_warnings(smart):
    found = ["predicts its failure"] if get(smart, "predictive_failure") is True else []
    found += [LIMITS.get(name, name) for name in items(smart, "exceeded") if isinstance(name, str)]
    found += [f"warns: {name.replace('_', ' ')}" for name in items(smart, "health", "critical_warning") if isinstance(name, str)]
    return [printable(name) for name in found]


def drive_row(host, entry):
    drive, smart, outcome = entry["drive"], entry["smart"], entry["outcome"]
    exceeded = items(smart, "exceeded")
    shown = "waiting" if entry["waiting"] else outcome
    reason = text(drive, "flash", "text")
    alarms = drive_warnings(smart)
    life, threshold = number(smart, "life_remaining_percent"), number(smart, "life_threshold_percent")
    celsius, limit = number(smart, "temperature_celsius"), number(smart, "temperature_max_celsius")
    written, warranty = number(smart, "written_bytes"), number(smart, "warranty_bytes")
    users = [f"{text(user, 'kind')} {text(user, 'name')}" for user in items(entry, "in_use")]
    row = [cell(html.escape(host["name"])),
           cell(html.escape(f"A:{number(drive, 'controller')} S:{number(drive, 'device_id')} {text(drive, 'node')}".strip())),
           cell(html.escape(f"{text(drive, 'protocol')} {text(drive, 'product_id')}")),
           cell(html.escape(text(drive, "serial_number") or text(drive, "device_serial"))),
           cell(html.escape(entry["level"])), cell(html.escape(text(drive, "flash", "level_prescribed"))),
           cell(html.escape(WORDS.get(shown, shown) + (f": {reason}" if reason else "")), look=LOOKS.get(shown, "")),
           bar(life, 100, f"{life} %", "life" in exceeded, threshold),
           bar(celsius, limit, f"{celsius} of {limit} °C", "temperature" in exceeded),
           bar(written if warranty is not None else None, warranty, f"{amount(written or 0)} of {amount(warranty or 0)}", "written" in exceeded),
           cell(html.escape(", ".join(alarms)), look="bad" if alarms else ""),
           cell(html.escape(", ".join(users)) if entry["in_use"] is not None else "")]
    trouble = (shown != "failed" and not alarms, list(LOOKS).index(shown) if shown in LOOKS else len(LOOKS))
    return trouble, f"<tr>{''.join(row)}"


def age(end, now):
    """When a report was written, and whether its clock or its age makes it doubtful."""
    try:
        hours = (now - datetime.datetime.strptime(end, "%Y-%m-%dT%H:%M:%SZ")).total_seconds() / 3600
    except ValueError:
        return cell("none" if not end else html.escape(end), look="warn")
    doubt = f" ({hours / 24:.0f} days old)" if hours > 48 else " (ahead of our clock)" if hours < -1 else ""
    return cell(html.escape(end + doubt), look="warn" if doubt else "")


def host_look(state):
    return "bad" if re.search("fail|lost|unreachable|not checked|status", state) else "warn" if re.search("due$|reboot", state) and "nothing" not in state else "good"


def host_row(host, now):
    look = host_look(host["state"])
    counts = "".join(cell(host["counts"][count] or "", host["counts"][count]) for count in COUNTS)
    notes = "".join(f"<br>{html.escape(note)}" for note in host["notes"])
    return f"<tr>{cell(html.escape(host['name']))}{cell(html.escape(host['state']) + notes, look=look)}{cell(len(host['drives']))}{counts}{age(host['end'], now)}"


def page(hosts, now):
    template = (pathlib.Path(__file__).parent / "fleet.html").read_text(encoding="utf-8")
    states = collections.Counter(host["state"] for host in hosts)
    counts = sum((host["counts"] for host in hosts), collections.Counter())
    rows = sorted((drive_row(host, entry) for host in hosts for entry in host["drives"]), key=lambda row: row[0])
    alarms = sum(1 for host in hosts for entry in host["drives"] if drive_warnings(entry["smart"]))
    tiles = [("", len(hosts), "hosts")] + [(host_look(state), count, state) for state, count in states.most_common()]
    drive_tiles = [("", len(rows), "drives"), ("bad" if alarms else "", alarms, "with warnings")]
    drive_tiles += [(LOOKS.get(count, ""), counts[count], WORDS.get(count, count)) for count in COUNTS if counts[count]]
    values = {"time": now.strftime("%Y-%m-%d %H:%M UTC"), "drives": "".join(row for _, row in rows),
              "hosts": "".join(host_row(host, now) for host in hosts)}
    for name, entries in (("host_tiles", tiles), ("drive_tiles", drive_tiles)):
        values[name] = "".join(f"<li class='{look}'><strong>{count}</strong> {html.escape(word)}" for look, count, word in entries)
    for name, columns in (("host", HOST_COLUMNS), ("drive", DRIVE_COLUMNS)):
        values[f"{name}_head"] = "".join(f"<th scope=col>{column}" for column in columns)
        values[f"{name}_labels"] = "".join(f'#{name}s td:nth-child({place}):before{{content:"{column}"}}' for place, column in enumerate(columns, 1))
    script = re.search("<script>(.*)</script>", template, re.S)[1]
    values["script_hash"] = base64.b64encode(hashlib.sha256(script.encode()).digest()).decode()
    return string.Template(template).substitute(values)


def main():
    folder, target = map(pathlib.Path, sys.argv[1:])
    hosts = [read_host(folder, entry) for entry in json.load(sys.stdin)]
    now = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)
    part = target.with_name(f".{target.name}.part")
    part.write_text(page(hosts, now), encoding="utf-8")
    os.replace(part, target)
    print(*summary(hosts), sep="\n")


if __name__ == "__main__":
    main()
