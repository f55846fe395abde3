"""Several drives at once (--jobs): what is printed, reported and sent to each drive is what it is one after the other."""
import collections
import json
import os
import pathlib
import pty
import random
import re
import signal
import subprocess
import time

import pytest

HERE = pathlib.Path(__file__).resolve().parent
BUILD = pathlib.Path(os.environ["MIRVOK_BUILD"])
MACHINES = [*sorted((HERE / "machines").glob("*.json")), *sorted((HERE.parents[1] / "lab/machines").glob("*.json"))]
SEQUENCE = {"smart-enable", "identify", "b0", "smart-disable"}  # SMART is switched on, read and switched off
KINDS = {"sata": ("/dev/sg", "Kestrel S480 M7", "01GV841YX"), "nvme": ("/dev/nvme", "Osprey N1", "02NV700YY"), "sas": ("", "Harrier 1800", "03SS555YX")}


def make_drives(sata=0, nvme=0, sas=0, **keys):
    return {f"{kind}{i}": {"protocol": kind, "product": product, "part_number": part, "serial_number": f"{kind}{i:04}"[-8:], "vendor": "VTR",
                           "serial": f"SERIAL{kind}{i}"} | ({"node": f"{node}{i}"} if node else {"vendor": "VELTRA"}) | keys
            for (kind, (node, product, part)), count in zip(KINDS.items(), (sata, nvme, sas)) for i in range(count)}


class Lab:
    def __init__(self, folder, drives, **others):
        self.folder, self.home, self.file = folder / "work", folder / "work.lab", folder / "machine.json"
        (self.folder / "files").mkdir(parents=True)
        for kind, name in (("flash", "flashdrv"), ("sizes", "sizes"), ("smart", "talvex")):
            subprocess.run([BUILD / "mirvok-profile", "build", kind, HERE / "data" / f"{name}.json", self.folder / f"{name}.bin"], check=True)
        self.file.write_text(json.dumps({"drives": drives} | others))

    def start(self, *words, faults=(), limit="", errors=subprocess.PIPE):
        command = [BUILD / "mirvok-lab", "--fresh", *(text for fault in faults for text in ("--fault", json.dumps(fault))), self.file, "--", *words]
        return subprocess.Popen(["bash", "-c", f'{limit}\nexec "$@"', "bash", *command], cwd=self.folder, stdout=subprocess.PIPE, stderr=errors)

    def run(self, *words, **options):
        program = self.start(*words, **options)
        output = program.communicate(timeout=100)
        return program.returncode, *output

    def journal(self):
        return (self.home / "journal").read_text().splitlines()

    def outcome(self, *words, **options):
        """How a run ends, its report, what every node was sent, and all libraries together, and what lasts."""
        (self.folder / "report").unlink(missing_ok=True)
        ended, lines = self.run(*words, "--json", "report", **options), collections.defaultdict(list)
        for line in self.journal():
            lines[next((word for word in line.split() if word.startswith("/dev/")), "")].append(line)
        return ended, json.loads((self.folder / "report").read_text()) | {"start": 0, "end": 0}, (self.home / "state.json").read_text(), lines


@pytest.mark.parametrize("operation", ["find", "check", "smart"])
@pytest.mark.parametrize("machine", MACHINES, ids=lambda path: path.stem)
def test_nothing_differs(machine, operation, tmp_path):
    lab, rng = Lab(tmp_path, {}), random.Random(machine.stem)
    subprocess.run([BUILD / "mirvok-lab", "--state", lab.home, "--program", "/bin/true", machine], check=True)
    file = json.loads((lab.home / "machine.json").read_text())
    for drive in file["drives"].values():
        drive["delay"] = rng.choice([0, 0, 1, 4])
    lab.file.write_text(json.dumps(file))
    assert lab.outcome(operation, "--jobs", "16") == lab.outcome(operation)


@pytest.mark.parametrize("operation", ["find", "smart"])
def test_all_drives_that_there_can_be(operation, tmp_path):
    entries = [{"drive": f"sas{i}", "device_id": i} for i in range(898)]
    lab = Lab(tmp_path, make_drives(64, 64, 898), controllers=[{"type": "MR", "id": i, "drives": entries[450 * i : 450 * i + 450]} for i in (0, 1)])
    alone = lab.outcome(operation)
    assert len(alone[1]["drives"]) == 1026
    assert lab.outcome(operation, "--jobs", "64") == alone


@pytest.mark.parametrize("serial", ["S1", ""])
@pytest.mark.parametrize("operation", ["find", "smart"])
def test_one_drive_behind_many_nodes(operation, serial, tmp_path):
    lab = Lab(tmp_path, make_drives(1, delay=3, smart="off", serial=serial), nodes={f"/dev/sg{i}": "sata0" for i in range(4)})
    alone = lab.outcome(operation)
    for _ in range(5):
        assert lab.outcome(operation, "--jobs", "4")[:3] == alone[:3]


@pytest.mark.parametrize("command", ["inquiry", "identify", "smart-enable", "b0", "smart-disable", "smart-data", "controller", "log03"])
def test_signal_ends_the_run_and_no_sequence(command, tmp_path):
    lab = Lab(tmp_path, make_drives(12, 12, delay=5, smart="off"))
    for name in ("TERM", "INT", "HUP", "PIPE"):
        faults = [{"command": command, "nth": 5, "answer": f"signal:{name}"}]
        status, _, _ = lab.run("smart", "--jobs", "16", "--json", "report", faults=faults)
        assert status == 128 + getattr(signal, f"SIG{name}") and not list(lab.folder.glob("report*"))
        assert "true" not in (lab.home / "state.json").read_text()  # SMART is off everywhere
        journal, sent = lab.journal(), collections.defaultdict(list)
        before, after = journal[: journal.index(f"signal {name}")], journal[journal.index(f"signal {name}") + 1 :]
        for _, node, word in (line.split()[:3] for line in after if line.startswith(("sg", "nvme"))):
            sent[node].append(word)
        assert all(len(words) == 1 or set(words) <= SEQUENCE for words in sent.values())
        assert set(sent) <= {line.split()[1] for line in before if line.startswith("open")}
    assert lab.run("smart", "--jobs", "16", faults=faults, limit="trap '' PIPE")[:2] == lab.run("smart")[:2]


def test_output_without_reader_ends_the_run(tmp_path):
    lab = Lab(tmp_path, make_drives(24, delay=5, smart="off"))
    program = lab.start("find", "--jobs", "4")
    program.stdout.readline()
    program.stdout.close()
    assert program.wait(20) == 128 + signal.SIGPIPE and "true" not in (lab.home / "state.json").read_text()


def test_only_a_hanging_drive_s_line_and_those_behind_wait(tmp_path):
    drives = make_drives(16, 16, delay=30)
    drives["sata5"]["delay"] = 1500
    lab, (terminal, errors) = Lab(tmp_path, drives), pty.openpty()
    program, asked, end = lab.start("smart", "--jobs", "16", errors=errors, limit="export TERM=xterm; stty cols 80 <&2"), set(), time.monotonic() + 20
    seen = [program.stdout.readline() for _ in range(3 + 5 * 8)]
    while len(asked) < 31 and time.monotonic() < end:
        time.sleep(0.05)
        asked = {line.split()[1] for line in lab.journal() if " log02 " in line or " b0 " in line}
    read = {line.split()[1] for line in lab.journal() if " smart-data " in line}
    assert len(asked) == 31 and "/dev/sg5" not in asked and sum(b"PN:" in line for line in seen) == 5
    assert read == {f"/dev/sg{i}" for i in range(5)}
    assert program.communicate(timeout=60)[0].count(b"PN:") == 27
    shown = os.read(terminal, 100000).decode()
    assert "drive 6 of 32: identifying, 1 in work" in shown and re.search(r"drive 32 of 32: reading SMART data, \d+ in work", shown)


@pytest.mark.parametrize("limit", ["ulimit -n 16", "ulimit -n 12", *(f"thread {nth}" for nth in (1, 2, 4, 9))])
def test_few_descriptors_and_threads_cost_no_drive(limit, tmp_path):
    lab, faults = Lab(tmp_path, make_drives(12, 12, delay=1, smart="off")), []
    if limit.startswith("thread"):
        faults, limit = [{"command": "thread", "nth": int(limit[7:]), "count": 0, "answer": "errno:EAGAIN"}], ""
    for words in (["find"], ["smart"], ["check", "-l", "log"]):
        assert lab.outcome(*words, "--jobs", "16", faults=faults, limit=limit) == lab.outcome(*words)


def test_the_option(tmp_path):
    lab = Lab(tmp_path, make_drives(3))
    listing = lab.run("find")[1]
    for word in (["--jobs=0"], ["--jobs=65"], ["--jobs", "-1"], ["--jobs="], ["--job", "x"], ["--jobs", "4x"], ["--jo"]):
        for operation in ("find", "smart", "check", "flash"):
            status, output, errors = lab.run(operation, "--json", "report", *word)
            assert (status, output) == ((0, listing) if operation == "find" else (4, b"")) and errors.count(b"\n") == 1
            assert any(line.startswith("open") for line in lab.journal()) == (operation == "find")
    for words in ("--jobs 2", "--job=2", "--jo 2", "--jobs 0 --jobs 2", "--debug --jobs 2", "--verbose --jobs 2", "--j short", "--js=short"):
        status, output, errors = lab.run("check", *words.split(), "-a", "1", "-s", "1")
        assert (status, errors, b" check 1 " in output) == (3, b"", True), words
    assert (lab.folder / "short").exists()
