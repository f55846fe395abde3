#!/usr/bin/python3
"""Random machines with faults, judged by what becomes of the drives: campaign.py BUILD [--runs N] [--seed S]

A seed draws a machine and an operation. They run without faults, where every outcome is foretold, and then nine times
with one to three faults in calls that the first run made. --every tries each fault of each call alone instead, --jobs N
wants the same of every run with that option, --show prints the machines. A run that breaks a rule is printed as a
command; --seed with its seed and --runs 1 bring it back.
"""
import argparse
import collections
import concurrent.futures
import decimal
import json
import pathlib
import random
import re
import shlex
import signal
import subprocess
import sys
import zlib

import jsonschema

HERE = pathlib.Path(__file__).resolve().parent
SCHEMA = jsonschema.Draft202012Validator(json.loads((HERE.parents[1] / "docs/report.schema.json").read_text()))
RUNS_PER_SEED = 10

Kind = collections.namedtuple("Kind", "protocol product part below level above size")  # the profile's level, the image's size
KINDS = {
    "kestrel": Kind("sata", "Kestrel S480 M7", "01GV841YX", ["D3MU0019", "CVS9"], "D3MU0021", ["D3MU0022", "MVU1", "D3MU0029"], 2 * 32768 + 4),
    "merlin": Kind("sata", "Merlin S960", "01GV842YX", ["S3A0", "G3A0"], "G3A1", ["S3A2", "G4A0"], 1000),
    "harrier": Kind("sas", "Harrier 1800", "03SS555YX", ["L7SA", "L6SZ"], "L7SB", ["L7SC", "M0AA"], 65536),
    "osprey": Kind("nvme", "Osprey N1", "02NV700YY", ["8101", "7999"], "8102", ["8103", "9000"], 32768 + 4100)}
IMAGES = {kind: random.Random(kind).randbytes(row.size) for kind, row in KINDS.items()}
UPDATED_STATES = (0x18, 0x40, 0)

CONTENTS = ["zeros", "half", "ones", "random"]
OPENED = ["errno:EACCES", "errno:EBUSY", "vanish"]
ENDED = ["errno:EIO", "vanish", "signal:TERM", "signal:INT", "signal:HUP"]
SCSI = [*ENDED, "check:03/11/00", "check:06/29/00", "check:0B/00/00", "status:0x08", "status:0x18", "status:0x40", "host:0x03",
        "host:0x03 done", "status:0x08 done", "sense:04/44/00", "sense:01/17/00 done", "driver:0x08", "check:01/17/00 done"]
SCSI_DATA = [*CONTENTS, "check:01/17/00 zeros", "check:01/17/00 half done", "check:05/24/00 random", "status:0x08 ones",
             "host:0x07 random"]
NVME = [*ENDED, "nvme:0x4004", "nvme:0x2"]
LIBRARIES = {"storelib": ["status:0x2D", "status:0x4045", "after:0x2D", "after:0x4045"], "marvell": ["status:1", "status:2", "after:1"]}
LISTINGS = {"init", "controllers", "adapters", "adapter-info", "drives"}  # in these a library shows its drives
REPLIES = LISTINGS - {"init", "adapters"} | {"version", "pd-info", "controller-info"}
PAIRS = [(r"^dlopen (\S+) = ok$", r"^dlclose (\S+)$"), (r"^open (\S+) = 0$", r"^close (\S+)$"),
         (r"^storelib (\w+) init size=\d+$", r"^storelib (\w+) exit"), (r"^(marvell) init = (?!1$)", r"^(marvell) exit")]

LINES = {"find": "{number:2d} A:{controller} S:{device_id:2d} PN:{part_number}:{dummy}-{fru} SNo:{serial_number} FW:{code_level} "
                 "size:{size_gb}GB S:{status} {0}\n",
         "flash": " {number:2d} A:{controller:3d} S:{device_id:3d} {part_number}:{dummy}-{fru} SNo:{serial_number:>8} FW:{code_level} "
                  "size:{size_gb}GB {0}\n",
         "smart": "{number:<3d} PN:{part_number}-{fru} Veltra-SN:{serial_number} FW:{code_level}\n{0}"
                  "    Number bytes written to SSD: {1}\n    Number bytes supported by warranty: {2}GB\n    Life Remaining Gauge: {3}\n"
                  "    SSD temperature:{4}      Spec Max: {5}(c)\n    PFA trip: {6} \n    Warranty Exceed:{7}\n\n"}
# Bytes of a count, the unit that it begins with, and the last one that is printed whole.
UNITS = {"bytes": (1, 0, 1), "sectors": (512, 1, -1), "half_megabytes": (2**19, 2, -1), "megabytes": (2**20, 2, 2),
         "32_megabytes": (2**25, 2, -1), "gigabytes": (2**30, 3, -1)}
SUMMARIES = {"find": " find {N} (SAS:{SAS} SATA:{SATA} M2:{M2} NVME:{NVMe})\n\n", "flash": "{failed} Error(s)\n",
             "check": " check {N} (due:{due} latest:{latest} refused:{refused} failed:{failed} NS:{not_in_profile})\n\n",
             "smart": "    {N} Device(s) Found(SATA:{SATA}  SAS:{SAS}  NVME:{NVMe})\n"}
Run = collections.namedtuple("Run", "status output report journal state")
Event = collections.namedtuple("Event", "library command line")


def draw(rng):
    drives, nodes, controllers = {}, {}, collections.defaultdict(list)
    for i in range(rng.randint(1, 6)):
        path = rng.choice(["host", "host", "nvme", "MR", "MR", "IR", "IR2", "IR3", "IT", "MARVELL"])
        protocol = {"host": "sata", "MARVELL": "sata", "nvme": "nvme"}.get(path) or rng.choice(["sata", "sata", "sas", "nvme"])
        kind = rng.choice([name for name, row in KINDS.items() if row.protocol == protocol])
        row, name, known_by = KINDS[kind], f"d{i}", rng.choice(["all", "all", "all", "product", "part", "8s", None, None])
        drive = drives[name] = {
            "protocol": protocol, "kind": known_by and kind, "known_by": known_by, "product": row.product, "serial_number": f"11S0000{i}",
            "part_number": row.part if known_by in ("all", "part") else "none", "part_number_8s": row.part if known_by == "8s" else "none",
            "level": rng.choice([*row.below, *row.below, row.level, *row.above]), "smart": rng.choice(["on", "on", "off", "unsupported"]),
            "dummy": "47Q8842" if kind == "merlin" else "DUMMY", "blocks": 937703088, "pfa": rng.random() < 0.2, "serial": f"SN00000{i}",
            "attention": protocol != "nvme" and rng.random() < 0.2, "kernel_ata": path == "host" and rng.random() < 0.3,
            "sense": rng.choice(["descriptor", "fixed"]), "attributes": [{"id": 194, "raw": 30 + i}], "commit_status": rng.choice([0, 0, 0x10B]),
            "refuses": rng.choice([[]] * 6 + [["b0"], ["c4"], ["capacity16"], ["log34"], ["smart-data"], ["logE0"]]),
            "firmware": [{"image": f"files/{name}.bin", "level": other.level, "keeps_level": rng.random() < 0.1}
                         for name, other in KINDS.items() if other.protocol == protocol]}
        if known_by in ("part", "8s", None):
            drive |= {"vendor": "XYZ", "product": row.product if protocol == "sata" and rng.random() < 0.5 else "Other"}
        if path in ("host", "nvme"):
            nodes[f"/dev/{'sg' if path == 'host' else 'nvme'}{2 * i}"] = name
            continue
        entry, number = {"drive": name, "device_id": 8 + i, "slot": i}, rng.choice([0, 7])
        if path == "MARVELL":
            entry["download_status"] = rng.choice([[1, 2], [2], [3], [1]])
            number = sum(len(entries) for at, entries in controllers.items() if at[0] == path) // 2  # an adapter has two drives
        else:
            entry |= {"state": rng.choice([0x18, *UPDATED_STATES, 1, 0x20]), "download_not_allowed": rng.random() < 0.1}
            if protocol == "sata" and rng.random() < 0.3:
                nodes[f"/dev/sg{2 * i + 1}"] = name
        controllers[path, number].append(entry)
    listed = [{"type": path, "id": number, "drives": [{"device_id": 252, "device_type": 13}] * (path != "MARVELL") + entries,
               "allow_after_polls": rng.choice([0, 0, 1, 12]), "scsi_error_status": rng.choice([0, 0, 0x2D])}
              for (path, number), entries in sorted(controllers.items()) if entries]
    return {"drives": drives, "nodes": nodes, "controllers": listed}


class Machine:
    def __init__(self, file):
        self.file, self.drives, self.nodes = file, file["drives"], file["nodes"]
        entries = [(c["type"], c["id"], entry) for c in file["controllers"] for entry in c["drives"] if "drive" in entry]
        self.behind = {(library, number, entry["device_id"]): entry["drive"] for library, number, entry in entries}
        self.entries = {entry["drive"]: entry for _, _, entry in entries}
        self.library = {entry["drive"]: library for library, _, entry in entries}

    def place(self, line):
        """What a line of the journal is about: kind of call, library, command, drive."""
        kind, *words = line.split()
        if kind not in ("storelib", "marvell"):
            return kind, None, kind if kind in ("open", "close") else [*words, ""][1], self.nodes.get(words[0])
        library = words[0] if kind == "storelib" else "MARVELL"
        where, carried = re.search(r" (?:controller|adapter)=(\d+) device=(\d+)", line), re.search(r"(\S+) cdb=", line)
        command = carried[1] if carried else words[kind == "storelib"]
        return kind, library, command, where and self.behind.get((library, int(where[1]), int(where[2])))

    def row_drive(self, report, row):
        """The drive of a row of the report."""
        controller = next(c for c in report["controllers"] if c["number"] == row["controller"])
        return self.nodes.get(row["node"]) or self.behind.get((controller["type"], controller["id"], row["device_id"]))

    def events(self, journal):
        reached = collections.defaultdict(list)
        for line in journal:
            kind, library, command, drive = self.place(line)
            if drive and kind != "close":
                reached[drive].append(Event(library, command, line))
        return reached

    def faults(self, journal):
        """For each call of a run the faults that can befall it."""
        seen = collections.Counter()
        for line in journal:
            kind, library, command, drive = self.place(line)
            if not library and kind not in ("sg", "nvme") and not (kind == "open" and line.endswith(" = 0")) or command == "exit":
                continue
            data = " in " in line and " in 0" not in line
            subjects = [({"library": library}, LIBRARIES[kind] + CONTENTS * (data or command in REPLIES))] if library else []
            if not library or " cdb=" in line:
                ways = OPENED if kind == "open" else NVME + CONTENTS * data if kind == "nvme" else SCSI + SCSI_DATA * data
                subjects.append(({"drive": drive}, ways))
            for subject, ways in subjects:
                key = command, *subject.items()
                seen[key] += 1
                yield [subject | {"command": command, "nth": seen[key], "answer": way} for way in ways]

    def touched(self, fault):
        """The drives for which a fault can change anything."""
        if "drive" in fault and "signal" not in fault["answer"]:
            return {fault["drive"]}
        library = None if fault["command"] in ("init", "controllers", "adapters") else fault.get("library")
        return {name for name in self.drives if library in (None, self.library.get(name))}

    def normal(self, name, level):
        """A level as the program compares it: series S of some drives counts as G."""
        return re.sub("^S", "G", level) if self.drives[name]["dummy"].startswith("47Q884") else level

    def is_due(self, name):
        kind = KINDS.get(self.drives[name]["kind"])
        return kind and self.normal(name, self.drives[name]["level"])[:len(kind.level)] < kind.level

    def foretold(self, name, words):
        """The outcome of a drive's update in a run without faults."""
        drive, entry, library = self.drives[name], self.entries.get(name, {}), self.library.get(name)
        labelled = {"sata": drive["smart"] != "unsupported" and "b0" not in drive["refuses"], "sas": "c4" not in drive["refuses"],
                    "nvme": "logE0" not in drive["refuses"] and not library}[drive["protocol"]]
        known = {"all": True, "product": True, "part": labelled or library == "MARVELL", "8s": labelled and drive["protocol"] != "sas"}
        if not known.get(drive["known_by"]):
            return "not_in_profile"
        if "--force" not in words:
            if entry.get("state", 0) not in UPDATED_STATES or self.is_due(name) and entry.get("download_not_allowed"):
                return "refused"
            if not self.is_due(name):
                return "latest"
        if "--check" in words:
            return "due"
        # Only the pieces of a SAS drive without page C4h find its unit attention waiting.
        refused = entry.get("download_status") == [3] or drive["attention"] and drive["protocol"] == "sas" and not labelled
        keeps = {image["image"]: image["keeps_level"] for image in drive["firmware"]}[f"files/{drive['kind']}.bin"]
        renewed = not keeps and entry.get("download_status", [2])[-1] == 2 or drive["level"] == KINDS[drive["kind"]].level
        return "updated" if drive["protocol"] == "nvme" or renewed and not refused else "failed"


def taken(line):
    """Whether the answer to a command says that it was carried out."""
    end = re.search(r" = (?:(\d\d)(?: driver \S+)?(?: sense (\w\w)\S+)?(?: resid \d+)?|0)(?: status 0x(\w+))?(?: = 0)?$", line)
    return bool(end) and (end[2] in ("00", "01") or end[1] != "02" and not end[2]) and end[1] in (None, "00", "02") and \
        (not end[3] or end[3] == "4045" and end[1] == "00")


def firmware_lapses(machine, name, events, lied, faults, words):
    """What is wrong with the firmware that a drive got; whether the last image came whole."""
    twofold = name in machine.library and name in machine.nodes.values()  # what loses a serial number, hides that it is one drive
    image, at, gap, whole, forced, wrong = None, 0, False, False, "--force" in words, []
    for library, command, line in (event for event in events if event.command in ("download", "commit")):
        if command == "commit":
            wrong += ["a commit of what was not wholly taken"] * (not whole)
        elif library == "MARVELL":
            image = IMAGES[line.split("/")[-1].split(".")[0]]
        else:
            length, crc, nvme = *re.search(r" out (\d+) crc=(\w+)", line).groups(), re.search(r"cdw11=(\w+)", line)
            length, crc, cdb = int(length), int(crc, 16), nvme or bytes.fromhex(re.search(r"cdb=((?:\w\w )+)", line)[1])
            offset = int(nvme[1], 16) * 4 if nvme else int.from_bytes(cdb[3:6], "big") if cdb[0] == 0x3B else (cdb[7] << 8 | cdb[6]) * 512
            if offset == 0:
                wrong += ["a second download"] * (image is not None and not lied and not twofold)
                image, at, gap = next((i for i in IMAGES.values() if zlib.crc32(i[:length]) == crc), b""), 0, False
            wrong += ["a piece behind a gap"] * (offset != at or gap and not nvme)
            wrong += ["a piece of no image"] * (not image or not length or zlib.crc32(image[offset:offset + length]) != crc)
            at, gap = offset + length, gap or not taken(line)
            whole = at == len(image or b"") and not gap
        told = lied or any(f["command"] == "pd-info" and f["answer"] in CONTENTS for f in faults)
        entry = machine.entries[name] if library not in (None, "MARVELL") and not told and not forced else {}
        wrong += ["a download that is not allowed"] * (entry.get("state", 0) not in UPDATED_STATES or entry.get("download_not_allowed", False))
    if image is not None:
        wrong += ["an image of another kind"] * (image is not IMAGES.get(machine.drives[name]["kind"]) and not lied)
        wrong += ["a download that nobody asked for"] * (words[0] != "flash" or "--check" in words)
        wrong += ["a download that is not due"] * (not forced and not lied and not machine.is_due(name))
    return sorted(set(wrong)), whole


def written_text(smart):
    """The bytes written as they are printed: whole numbers up to a unit, with one decimal above it."""
    if smart["written_bytes"] is None:
        return "N/A"
    size, unit, whole = UNITS[smart["written_unit"]]
    raw = smart["written_raw"]
    count = (raw - raw % 2 if smart["written_unit"] == "sectors" else raw) * size
    while unit < 3 and count >= 1024 ** (unit + 1):
        unit += 1
    amount = decimal.Decimal(count) / 1024**unit
    return (f"{int(amount)}" if unit <= whole else f"{amount:.1f}") + ("B", "KB", "MB", "GB")[unit]


def line_of(drive, words):
    """What is printed of a drive of the report."""
    drive = drive | {"size_gb": drive["size_gb"] or 0}
    if words[0] == "find":
        return LINES["find"].format("NS" if drive["type"] is None else f"T:{drive['type']}", **drive)
    if words[0] == "flash":
        result = drive["flash"]
        text = result["text"] if result["code"] != 90018 or "--check" in words else "Flash: Latest"
        return LINES["flash"].format({
            "not_in_profile": "NS", "latest": "Flash: Latest", "refused": text, "due": f"Flash: Due({result['level_prescribed']})",
            "updated": "Flash: Success", "failed": f"Flash: Fail({text})"}[result["outcome"]], **drive)
    smart, shown = drive["smart"], {"written": "Written ", "life": "Life ", "temperature": "Temperature"}
    life, heat = smart["life_remaining_percent"], smart["temperature_celsius"]
    return LINES["smart"].format(
        f"    Supplier-SN:{drive['device_serial']}\n" * (drive["protocol"] == "NVMe"), written_text(smart), smart["warranty_bytes"] >> 30,
        "N/A" if life is None else f"{life}%", "N/A" if heat is None else f"{heat & 0xFFFF}(c)", smart["temperature_max_celsius"],
        "Yes" if smart["predictive_failure"] else "No", "".join(shown[word] for word in smart["exceeded"]) or "No", **drive)


def report_lapses(run, words):
    """What is wrong with a report, with the status and with the lines beside it."""
    report, drives, operation = run.report, run.report["drives"], "check" if "--check" in words else words[0]
    counts = collections.Counter(drive["flash"]["outcome"] for drive in drives if drive["flash"])
    counts.update({"M2": "SATA"}.get(d["protocol"], d["protocol"]) if operation == "smart" else d["protocol"] for d in drives)
    nothing = run.status < 128 and not drives and all(left["reason"] == "not_selected" for left in report["left_out"])
    status = 2 if nothing else 3 if counts["failed"] else int(counts["due"] > 0)
    status = {"find": 0, "smart": 5 * nothing}.get(operation, status)
    counts["N"] = len(drives)
    last = SUMMARIES[operation].format_map(counts)
    if nothing:
        last = "" if operation in ("find", "smart") else "No Physical Disk found\n\n"
    rows, listed = len(drives) + len(report["left_out"]), sum(c["drives"] for c in report["controllers"])
    body = "-" * 73 + "\n" + "".join(line_of(drive, words) for drive in drives) + "\n" * (not nothing)
    error = next(SCHEMA.iter_errors(report), None)
    return [*[f"report: {error and error.message}"] * (error is not None),
            *[f"status {run.status}"] * (run.status < 128 and run.status != status or report["exit_status"] != run.status),
            *[f"{rows} drives of {listed}"] * (rows > listed or run.status < 128 and rows < listed),
            *["the lines are not those of the report"] * (body not in run.output or not run.output.endswith(last))]


def lapses(machine, words, run, faults, base):
    """The rules that a run has broken; `base` is the run without its faults, None for itself."""
    events, report = machine.events(run.journal), run.report
    signals = [128 + getattr(signal, "SIG" + f["answer"][7:]) for f in faults if f["answer"].startswith("signal")]
    touched = set().union(*map(machine.touched, faults))
    garbled = any(f["command"] in LISTINGS and f["answer"] in CONTENTS for f in faults)
    # Content that cannot be told from what the drive would say, and that counts.
    told = set().union(*(machine.touched(f) for f in faults if re.search("^(sense:.*)?(ones|random)", f["answer"])))
    wrong = [line for line in run.journal if "VIOLATION" in line and not (garbled and ": no such " in line)]
    if run.status >= 128 and run.status not in signals or run.status < 128 and report is None:
        return [*wrong, f"status {run.status}, report {report is not None}"]
    # The line of the command during which a signal comes stands behind the signal's.
    stop = next((i + 2 for i, line in enumerate(run.journal) if line.startswith("signal ")), len(run.journal))
    begun, before = (sorted(name for name, seen in e.items() if any(event.command == "download" for event in seen))
                     for e in (events, machine.events(run.journal[:stop])))
    wrong += [f"a download of {begun} and not {before} after a signal"] * (begun != before)
    wrong += [f"status {run.status} after a signal"] * (stop < len(run.journal) and words[0] == "flash" and run.status not in (2, *signals))
    rows, others = collections.defaultdict(list), set()
    if report:
        for first, last in PAIRS:
            begun, done = (collections.Counter(re.findall(way, "\n".join(run.journal), re.M)) for way in (first, last))
            wrong += [f"{first} without {last}"] * bool(begun - done)
        wrong += report_lapses(run, words)
        for row in report["drives"]:
            rows[machine.row_drive(report, row)].append(row)
            if "-a" in words:
                wrong += ["a drive that is not selected"] * (words[-3::2] != [f"{row['controller']}", f"{row['device_id']}"])
        left = [(machine.row_drive(report, row), row["reason"]) for row in report["left_out"]]
        others = {name for name, why in left if why == "not_selected"} - {name for name, why in left if why != "not_selected"} - set(rows)
    for name, drive in machine.drives.items():
        lied, after = name in told, run.state.get(name, {})
        level, was_on = after.get("next_level", after.get("level", drive["level"])), drive["smart"] == "on"
        found, whole = firmware_lapses(machine, name, events[name], lied, faults, words)
        if machine.normal(name, level) < machine.normal(name, drive["level"]) and "--force" not in words and not lied:
            found.append(f"level {drive['level']} became {level}")
        for row in rows[name]:
            if row["flash"] and row["flash"]["outcome"] == "updated":
                waits = [row["flash"][key] for key in ("level_after", "level_committed", "activation")]
                commits = [event.line for event in events[name] if event.command == "commit"]
                committed = machine.library.get(name) or commits
                accepted = machine.library.get(name) or any(re.search(r"= (0|0x.?(10b|110|111))( |$)", line, re.I) for line in commits)
                waiting = [row["flash"]["level_before"], *((row["flash"]["level_prescribed"], "pending_reset") if accepted else (None, None))]
                found += [f"{waits} after {commits}"] * (row["protocol"] == "NVMe" and waits != waiting)
                good = whole and committed if drive["protocol"] == "nvme" else level == row["flash"]["level_prescribed"]
                found += ["a success that is none"] * (not good)
        if after.get("smart", was_on) != was_on and not lied and not any(f["answer"] == "vanish" and f["drive"] == name for f in faults):
            off = [event.line for event in events[name] if event.command == "smart-disable"]
            found += [f"SMART was {'on' if was_on else 'off'}"] * (was_on or not off or taken(off[-1]))
        sent = {event.command for event in events[name]}
        found += ["sent to though not selected"] * (name in others and not sent <= {"open", "inquiry"})
        found += ["asked for SMART data though not listed"] * bool(report and not rows[name] and sent & {"smart-data", "smart-status", "log34"})
        if base is None and words[0] == "flash" and "-a" not in words:
            outcomes, expected = [row["flash"]["outcome"] for row in rows[name]], machine.foretold(name, words)
            found += [f"{outcomes} and not {expected}"] * (outcomes != [expected])
        elif base and name not in touched and report and run.status < 128 and not ("-a" in words and touched):
            usual = [row for row in base.report["drives"] if machine.row_drive(base.report, row) == name]
            same = [row | {"number": 0, "controller": 0} for row in usual] == [row | {"number": 0, "controller": 0} for row in rows[name]]
            found += ["another drive's fault shows"] * (not same or after != base.state.get(name, {}))
        wrong += [f"{name}: {text}" for text in found]
    return wrong


def differs(machine, one, other):
    """Whether two runs, one drive after the other and several at once, differ in what they may not differ in. After a
    signal that is no more than how they end: no drive gets more then than the command in flight, or its SMART sequence."""
    if min(one.status, other.status) < 128 or other.report:
        same = [(r.status, r.output, r.report and r.report | {"start": 0, "end": 0}, r.state, machine.events(r.journal)) for r in (one, other)]
        return same[0] != same[1]
    stop = next((i for i, line in enumerate(other.journal) if line.startswith("signal ")), len(other.journal))
    late = [[event.command for event in events if event.command != "open"] for events in machine.events(other.journal[stop:]).values()]
    return any(len(commands) > 1 and set(commands) - {"smart-enable", "identify", "b0", "smart-disable"} for commands in late)


def work(options, worker, seeds):
    build, folder, tally = options.build.resolve(), options.build.resolve() / f"campaign/{worker}", collections.Counter(broken=0)
    home, report, file = pathlib.Path(f"{folder}.lab"), folder / "report", folder.with_suffix(".json")

    def run(words):
        report.unlink(missing_ok=True)
        done = subprocess.run(["timeout", "-s", "KILL", "60", f"{build}/mirvok-lab", "--dir", f"{folder}", "--fresh", f"{file}", "--", *words,
                               "--json", "report"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
        return Run(done.returncode, done.stdout.decode("latin-1"), json.loads(report.read_text()) if report.exists() else None,
                   (home / "journal").read_text().splitlines(), json.loads((home / "state.json").read_text()))

    def judged(title, machine, words, faults, base):
        file.write_text(json.dumps(machine.file | {"faults": faults}, indent=1))
        seen = run(words)
        wrong, events = lapses(machine, words, seen, faults, base), machine.events(seen.journal)
        if options.jobs:
            other = run([*words, "--jobs", f"{options.jobs}"])
            wrong += [f"--jobs {options.jobs} makes a difference"] * differs(machine, seen, other)
            wrong += [f"with --jobs {options.jobs}: {text}" for text in lapses(machine, words, other, faults, base)]
        tally.update(runs=1, faults=len(faults), drives=len(machine.drives), broken=bool(wrong),
                     downloads=sum(any(event.command == "download" for event in each) for each in events.values()))
        if wrong:
            kept = file.replace(file.with_name(f"{title}.json"))
            command = shlex.join([f"{build}/mirvok-lab", "--dir", f"{folder}", "--fresh", f"{kept}", "--", *words])
            print("".join(f"{text}: {command}  # {json.dumps(faults)}\n" for text in wrong), end="", flush=True)
        return seen

    def try_seed(seed):
        rng = random.Random(seed)
        machine = Machine(draw(rng))
        words = rng.choice([["find"], ["flash"], ["flash"], ["flash"], ["flash", "--force"], ["flash", "--check"], ["smart"]])
        for drive in machine.drives.values() if options.jobs else ():  # those that are later in the table answer first
            drive["delay"] = random.Random(f"{seed} {drive['serial']}").choice([0, 0, 1, 5])
        if options.show:
            print(json.dumps(machine.file, indent=1), *words)
        base = judged(f"{seed}.0", machine, words, [], None)
        if words[0] == "flash" and rng.random() < 0.2 and base.report and base.report["drives"]:
            row = rng.choice(base.report["drives"])
            words = [*words, "-a", f"{row['controller']}", "-s", f"{row['device_id']}"]
            base = judged(f"{seed}.0", machine, words, [], None)
        calls = collections.defaultdict(list)  # by their subject and command, so that no image's pieces outweigh the rest
        for call in machine.faults(base.journal) if base.report else []:
            calls[call[0].get("drive"), call[0].get("library"), call[0]["command"]].append(call)
        trials = [[fault] for alike in calls.values() for call in alike for fault in call] if options.every else []
        for _ in range(RUNS_PER_SEED - 1 if calls and not trials else 0):
            drive = rng.choice(list(machine.drives))  # faults that meet do more harm
            near = [alike for (subject, _, _), alike in calls.items() if subject == drive] or list(calls.values())
            drawn = (rng.choice(rng.choice(rng.choice(near if rng.random() < 0.7 else list(calls.values()))))
                     for _ in range(rng.choice([1, 2, 2, 3])))
            trials.append([fault | {"count": rng.choice([1, 1, 1, 2, 0])} for fault in drawn])
        for number, faults in enumerate(trials, 1):
            judged(f"{seed}.{number}", machine, words, faults, base)

    (folder / "files").mkdir(parents=True, exist_ok=True)
    common = [{"part_number": row.part[:7], "product_id": row.product[:7]} for row in KINDS.values()]
    flash = [{"type": 16, "wait_time": 3, "fw_level": row.level, "image_name": f"{kind}.bin", "size": 480} for kind, row in KINDS.items()]
    smart = [{"drive_type": 22, "life_threshold": 10, "life_attr_id": 231, "written_attr_id": 241, "warranty_gb": 100, "temp_attr_id": 194,
              "spec_max_temp": 32, "smart_type": 2}] * len(KINDS)
    for kind, name, records in (("flash", "flashdrv", flash), ("smart", "talvex", smart)):
        file.write_text(json.dumps([own | record for own, record in zip(common, records)]))
        subprocess.run([build / "mirvok-profile", "build", kind, file, folder / f"{name}.bin"], check=True)
    for kind, data in IMAGES.items():
        (folder / f"files/{kind}.bin").write_bytes(data)
    for seed in seeds:
        try_seed(seed)
    return tally


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    for name, default in (("--runs", 5000), ("--seed", 1), ("--jobs", 0)):
        parser.add_argument(name, type=int, default=default)
    for name in ("--every", "--show"):
        parser.add_argument(name, action="store_true")
    options = parser.parse_args()
    seeds, tally = range(options.seed, options.seed + max(1, options.runs // RUNS_PER_SEED)), collections.Counter()
    with concurrent.futures.ProcessPoolExecutor(2) as pool:
        for done in pool.map(work, [options] * 2, range(2), [seeds[0::2], seeds[1::2]]):
            tally.update(done)
    print("campaign: {runs} runs, {faults} faults, {drives} drives, {downloads} downloads, {broken} runs broke a rule".format_map(tally))
    return 1 if tally["broken"] else 0


if __name__ == "__main__":
    sys.exit(main())
