#!/usr/bin/python3
"""Every fault, one at a time: campaign.py BUILD_DIR [--sample N]

machines/campaign.json runs once without faults for each operation; then once for each call in that run's journal and
each way in which that call can fail. A faulty run ends by itself with a documented status, says of every drive that
the fault does not touch what it said before, sends firmware in order, complete or not committed, and leaves nothing
open. --sample tries N of the faults, the same ones every time.
"""
import collections
import concurrent.futures
import json
import pathlib
import random
import re
import shlex
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
FILE = HERE / "machines" / "campaign.json"
MACHINE = json.loads(re.sub(r"^\s*//.*", "", FILE.read_text(), flags=re.M))
DRIVES = MACHINE["drives"]
NODES = MACHINE["nodes"] | {drive["node"]: name for name, drive in DRIVES.items() if "node" in drive}
BEHIND = {(controller["type"], entry["device_id"]): entry["drive"]
          for controller in MACHINE["controllers"] for entry in controller["drives"] if "drive" in entry}
STATUSES = {"find": {0}, "flash": {0, 2, 3}, "smart": {0, 4, 5}}

CONTENTS = ["zeros", "ones", "random", "half"]
REFUSALS = ["check:03/11/00", "status:0x08", "host:0x01", "vanish"]
WAYS = {"open": ["errno:EACCES", "vanish"], "sg": ["errno:EIO", *REFUSALS],
        "nvme": ["errno:EIO", "nvme:0x4004", "vanish"], "storelib": ["status:0x2D", "after:0x2D", "after:0x4045"],
        "marvell": ["status:0x01", "status:0x02", "after:0x01"]}
LISTINGS = {"init", "controllers", "adapters", "adapter-info", "drives"}  # a library shows its drives in these
REPLIES = LISTINGS - {"init", "adapters"} | {"version", "pd-info", "controller-info"}
PAIRS = [(r"^dlopen (\S+) = ok$", r"^dlclose (\S+)$"), (r"^storelib (\w+) init size=\d+$", r"^storelib (\w+) exit"),
         (r"^(marvell) init = (?!1$)", r"^(marvell) exit"), (r"^open (\S+) = 0$", r"^close (\S+)$")]
PART = re.compile(r"^(?= *\d+ +(?:A:|PN:))|^(?=\n find |\n\nAda|\n    \d+ Device)", re.M)
Run = collections.namedtuple("Run", "words operation status parts journal sent state")


def run(build, folder, operation, fault=None):
    words = [f"{build}/mirvok-lab", "--dir", f"{folder}", "--fresh", *(["--fault", json.dumps(fault)] if fault else []),
             f"{FILE}", "--", operation]
    done = subprocess.run(["timeout", "-s", "KILL", "20", *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, check=False)
    home = pathlib.Path(f"{folder}.lab")
    state = json.loads((home / "state.json").read_text()) if (home / "state.json").exists() else {}
    journal = (home / "journal").read_text().splitlines()
    sent = collections.defaultdict(list)  # to each drive: download or commit, what was sent, result
    for line in journal:
        if step := re.search(r" (download|commit) (?:adapter=\d+ device=\d+ )?(.*?)(?: = (.*)| (status .*))?$", line):
            sent[place(line)[3]].append((step[1], step[2], step[3] or step[4]))
    return Run(words, operation, done.returncode, PART.split(done.stdout.decode("latin-1")), journal, sent, state)


def place(line):
    """What a line of the journal is about: kind of call, library, command, drive."""
    kind, *words = line.split()
    if kind not in ("storelib", "marvell"):
        return kind, None, "open" if kind == "open" else [*words, ""][1], NODES.get(words[0])
    library = words[0] if kind == "storelib" else "MARVELL"
    device, carried = re.search(r" device=(\d+)", line), re.search(r"(\S+) cdb=", line)
    command = carried[1] if carried else words[kind == "storelib"]
    return kind, library, command, device and BEHIND.get((library, int(device[1])))


def faults(base):
    """For each call that can fail and each way in which it can: operation, fault, drives that it touches."""
    seen = collections.Counter()
    for line in base.journal:
        kind, library, command, drive = place(line)
        if kind not in WAYS or (kind == "open" and not line.endswith(" = 0")) or line.startswith("marvell exit"):
            continue
        contents = CONTENTS if " in 0" not in line and " in " in line or command in REPLIES else []
        subjects = [({"library": library} if library else {"drive": drive}, WAYS[kind] + contents)]
        if library and " cdb=" in line:
            subjects.append(({"drive": drive}, REFUSALS + contents))
        for subject, ways in subjects:
            seen[command, *subject.items()] += 1
            for way in ways:
                fault = subject | {"command": command, "nth": seen[command, *subject.items()], "answer": way}
                # A library that lists controllers which are not there takes the room of all that come after it.
                lost = {name for (other, _), name in BEHIND.items() if command in LISTINGS and other == library}
                lost |= set(DRIVES) if command == "controllers" and way in CONTENTS else set()
                yield base.operation, fault, lost or {drive} - {None}


def shown(parts, renumbered):
    """(drive, text) for every drive listed, without its running number."""
    mask = r"^ *\d+ +(A: *\d+)?" if renumbered else r"^ *\d+ +"
    return [(next((name for name, drive in DRIVES.items() if drive.get("serial_number", name) in part), "mr_nvme"),
             re.sub(mask, "", part)) for part in parts if re.match(r" *\d+ +(A:|PN:)", part)]


def lapses(base, fault, touched, seen):
    """What is wrong with a run in which this fault befell these drives."""
    garbled = fault["command"] in ("drives", "controllers") and fault["answer"] in CONTENTS
    before, after = (shown(parts, fault["command"] in LISTINGS) for parts in (base.parts, seen.parts))
    others = [text for name, text in before if name not in touched]
    kept = [text for _, text in after if text in others]
    room = len(kept) + len(touched) + ("shared" in touched)
    failed = any("Fail(" in text for _, text in after)
    checks = [
        (seen.status in STATUSES[seen.operation], f"status {seen.status}"),
        (kept == others and seen.parts[0].startswith(base.parts[0]), "what is said of the other drives differs"),
        (len(after) <= room or garbled, "a drive is listed too often"),
        (not after or re.findall(r"(\d+) .*\s*\Z", seen.parts[-1])[:1] == [f"{len(after)}"], "the total is not that of the drives"),
        (seen.operation != "flash" or (seen.status == 3) == failed, "status and failures do not agree"),
        # What a library lists by mistake it does not have.
        *((garbled and ": no such " in line, line) for line in seen.journal if "VIOLATION" in line)]
    for ways in PAIRS:
        begun, ended = (sorted(re.findall(way, "\n".join(seen.journal), re.M)) for way in ways)
        checks.append((begun == ended, f"{ways[0]} and {ways[1]} do not pair"))
    for name, drive in DRIVES.items():
        usual, sent = ([step[:2] for step in run.sent[name]] for run in (base, seen))
        # A drive whose identity was spoilt may fall due for the image of its kind.
        due = [usual] if usual else [[step[:2] for step in base.sent[other]] for other in DRIVES
                                     if DRIVES[other]["firmware"] == drive["firmware"]]
        bad = [i for i, step in enumerate(seen.sent[name]) if step[0] == "download" and step[2] not in ("0", "00")]
        on = any(re.search("E|status", seen.sent[name][i][2]) for i in bad if sent[i + 1:])
        # Of an NVMe drive behind a controller the library alone says whether it took a chunk.
        success = any(name == other != "mr_nvme" and "Success" in text for other, text in after)
        checks += [(sent == usual or (name in touched and any(steps[:len(sent)] == sent for steps in due)),
                    f"firmware for {name} is out of order"),
                   (not bad or not (success or "commit" in dict(sent)), f"firmware for {name} is not complete"),
                   (not on or drive["protocol"] == "nvme", f"firmware for {name} goes on after a failure"),
                   (name in touched or seen.state.get(name) == base.state.get(name), f"the state of {name} differs")]
    return [text for holds, text in checks if not holds]


def main():
    build, sample = pathlib.Path(sys.argv[1]).resolve(), sys.argv[3:]
    folders = [build / "campaign" / f"{i}" for i in range(2)]
    for folder in folders:
        (folder / "files").mkdir(parents=True, exist_ok=True)
        for kind, name in (("flash", "flashdrv"), ("sizes", "sizes"), ("smart", "talvex")):
            source = HERE / "data" / f"{name}.json"
            subprocess.run([build / "mirvok-profile", "build", kind, source, folder / f"{name}.bin"], check=True)
        for name in ("kestrel", "harrier", "osprey"):
            (folder / "files" / f"{name}.bin").write_bytes(random.Random(name).randbytes(2 * 32768 + 4))
    bases = {operation: run(build, folders[0], operation) for operation in STATUSES}
    trials = [trial for base in bases.values() for trial in faults(base)]
    trials = random.Random(1).sample(trials, int(*sample) or len(trials))

    def work(i):
        runs = ((trial, run(build, folders[i], *trial[:2])) for trial in trials[i::2])
        return [f"{lapse}: {shlex.join(seen.words)}" for (operation, fault, touched), seen in runs
                for lapse in lapses(bases[operation], fault, touched, seen)]

    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        found = [line for lines in pool.map(work, range(2)) for line in lines]
    print("\n".join([*found, f"campaign: {len(trials)} faults tried"]))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
