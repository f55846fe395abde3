"""Several drives at once (--jobs): what is printed, reported and sent to each drive is what it is one after the other."""
import collections
import json
import os
import pathlib
import random
import signal
import subprocess
import time

import pytest

HERE = pathlib.Path(__file__).resolve().parent
BUILD = pathlib.Path(os.environ["MIRVOK_BUILD"])
MACHINES = [*sorted((HERE / "machines").glob("*.json")), *sorted((HERE.parents[1] / "lab/machines").glob("*.json"))]
SEQUENCE = {"smart-enable", "identify", "b0", "smart-disable"}  # SMART is switched on, read and switched off


def make_drive(number, protocol="sata", **keys):
    node = {"sata": {"node": f"/dev/sg{number}"}, "nvme": {"node": f"/dev/nvme{number}"}, "sas": {}}[protocol]
    product, part = {"sata": ("Kestrel S480 M7", "01GV841YX"), "nvme": ("Osprey N1", "02NV700YY"), "sas": ("Harrier 1800", "03SS555YX")}[protocol]
    return node | {"protocol": protocol, "product": product, "part_number": part, "serial_number": f"{protocol}{number:04}"[-8:],
                   "serial": f"SERIAL{protocol}{number}", "vendor": "VELTRA" if protocol == "sas" else "VTR"} | keys


class Lab:
    def __init__(self, folder, machine):
        self.folder, self.home, self.file = folder / "work", folder / "work.lab", folder / "machine.json"
        (self.folder / "files").mkdir(parents=True)
        for kind, name in (("flash", "flashdrv"), ("sizes", "sizes"), ("smart", "talvex")):
            subprocess.run([BUILD / "mirvok-profile", "build", kind, HERE / "data" / f"{name}.json", self.folder / f"{name}.bin"], check=True)
        self.file.write_text(json.dumps(machine))

    def start(self, *words, faults=(), limit="", **options):
        command = [BUILD / "mirvok-lab", "--fresh", *(text for fault in faults for text in ("--fault", json.dumps(fault))), self.file, "--", *words]
        return subprocess.Popen(["bash", "-c", f'{limit}\nexec "$@"', "bash", *command], cwd=self.folder, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, **options)

    def run(self, *words, **options):
        program = self.start(*words, **options)
        output = program.communicate(timeout=100)
        return program.returncode, *output

    def journal(self):
        return (self.home / "journal").read_text().splitlines()

    def by_drive(self):
        """The lines of the journal by the node that they are about; those of the libraries together."""
        lines = collections.defaultdict(list)
        for line in self.journal():
            lines[next((word for word in line.split() if word.startswith("/dev/")), "")].append(line)
        return lines

    def outcome(self, *words, **options):
        (self.folder / "report").unlink(missing_ok=True)
        ended = self.run(*words, "--json", "report", **options)
        report = json.loads((self.folder / "report").read_text()) | {"start": 0, "end": 0}
        return ended, report, self.by_drive(), (self.home / "state.json").read_text()


@pytest.mark.parametrize("operation", ["find", "check", "smart"])
@pytest.mark.parametrize("machine", MACHINES, ids=lambda path: path.stem)
def test_nothing_differs(machine, operation, tmp_path):
    lab = Lab(tmp_path, {})
    subprocess.run([BUILD / "mirvok-lab", "--state", lab.home, "--program", "/bin/true", machine], check=True)
    file, rng = json.loads((lab.home / "machine.json").read_text()), random.Random(machine.stem)
    for drive in file["drives"].values():
        drive["delay"] = rng.choice([0, 0, 1, 4])
    lab.file.write_text(json.dumps(file))
    assert lab.outcome(operation, "--jobs", "16") == lab.outcome(operation)


def test_all_drives_that_there_can_be(tmp_path):
    drives = {f"{kind}{i}": make_drive(i, kind) for kind, count in (("sata", 64), ("nvme", 64), ("sas", 898)) for i in range(count)}
    controllers = [{"type": "MR", "id": at, "drives": [{"drive": f"sas{i}", "device_id": i} for i in range(at * 450, min(898, at * 450 + 450))]}
                   for at in (0, 1)]
    lab = Lab(tmp_path, {"drives": drives, "controllers": controllers})
    for words in (["find"], ["smart"]):
        alone = lab.outcome(*words)
        assert len(alone[1]["drives"]) == 1026
        assert lab.outcome(*words, "--jobs", "64") == alone


def test_one_drive_behind_many_nodes(tmp_path):
    machine = {"drives": {"a": make_drive(0, delay=3, smart="off")}, "nodes": {f"/dev/sg{i}": "a" for i in range(4)}}
    lab = Lab(tmp_path, machine)
    for operation in ("find", "smart"):
        alone = lab.outcome(operation)
        for _ in range(5):
            several = lab.outcome(operation, "--jobs", "4")
            assert (several[0], several[1], several[3]) == (alone[0], alone[1], alone[3])


@pytest.mark.parametrize("command", ["inquiry", "identify", "smart-enable", "b0", "smart-disable", "smart-data", "controller", "log03"])
def test_signal_ends_the_run_and_no_sequence(command, tmp_path):
    drives = {f"{kind}{i}": make_drive(i, kind, delay=5, smart="off") for kind in ("sata", "nvme") for i in range(12)}
    lab = Lab(tmp_path, {"drives": drives})
    for name in ("TERM", "INT", "HUP", "PIPE"):
        faults = [{"command": command, "nth": 5, "answer": f"signal:{name}"}]
        status, output, _ = lab.run("smart", "--jobs", "16", "--json", "report", faults=faults)
        state = json.loads((lab.home / "state.json").read_text())
        assert status == 128 + getattr(signal, f"SIG{name}")
        assert not any(drive.get("smart") for drive in state.values()) and not list(lab.folder.glob("report*"))
        journal = lab.journal()
        begun = [line.split()[1] for line in journal[: journal.index(f"signal {name}")] if line.startswith("open")]
        sent = collections.defaultdict(list)
        for _, node, word in (line.split()[:3] for line in journal[journal.index(f"signal {name}") + 1 :] if line.startswith(("sg", "nvme"))):
            sent[node].append(word)
        assert all(len(words) == 1 or set(words) <= SEQUENCE for words in sent.values()) and set(sent) <= set(begun)
    ignoring = lab.run("smart", "--jobs", "16", faults=faults, limit="trap '' PIPE")
    assert (ignoring[0], ignoring[1]) == lab.run("smart")[:2]


def test_output_without_reader_ends_the_run(tmp_path):
    lab = Lab(tmp_path, {"drives": {f"{i}": make_drive(i, delay=5, smart="off") for i in range(24)}})
    program = lab.start("find", "--jobs", "4")
    program.stdout.readline()
    program.stdout.close()
    assert program.wait(20) == 128 + signal.SIGPIPE and "true" not in (lab.home / "state.json").read_text()


def test_only_a_hanging_drive_s_line_and_those_behind_wait(tmp_path):
    drives = {f"{kind}{i}": make_drive(i, kind, delay=30) for kind in ("sata", "nvme") for i in range(16)}
    drives["sata5"]["delay"] = 1500
    lab = Lab(tmp_path, {"drives": drives})
    started = time.monotonic()
    program = lab.start("smart", "--jobs", "16")
    seen = [program.stdout.readline() for _ in range(3 + 5 * 8)]
    asked = set()
    while len(asked) < 31 and time.monotonic() < started + 20:
        time.sleep(0.05)
        asked = {line.split()[1] for line in lab.journal() if " log02 " in line or " b0 " in line}
    read = {line.split()[1] for line in lab.journal() if " smart-data " in line}
    assert len(asked) == 31 and "/dev/sg5" not in asked and sum(b"PN:" in line for line in seen) == 5
    assert read == {f"/dev/sg{i}" for i in range(5)}
    rest = program.communicate(timeout=60)[0]
    assert rest.count(b"PN:") == 27


@pytest.mark.parametrize("limit", ["ulimit -n 16", "ulimit -n 11", *(f"thread {nth}" for nth in (1, 2, 4, 9))])
def test_few_descriptors_and_threads_cost_no_drive(limit, tmp_path):
    drives = {f"{kind}{i}": make_drive(i, kind, delay=1, smart="off") for kind in ("sata", "nvme") for i in range(12)}
    lab = Lab(tmp_path, {"drives": drives})
    faults = [{"command": "thread", "nth": int(limit[7:]), "count": 0, "answer": "errno:EAGAIN"}] if limit.startswith("thread") else []
    for words in (["find"], ["smart"], ["check", "-l", "log"]):
        alone = lab.outcome(*words)
        assert lab.outcome(*words, "--jobs", "16", faults=faults, limit="" if faults else limit) == alone


def test_the_option(tmp_path):
    lab = Lab(tmp_path, {"drives": {f"{i}": make_drive(i) for i in range(3)}})
    listing = lab.run("find")[1]
    for value in ("0", "65", "-1", "", "x", "4x", None):
        words = ["--jobs"] if value is None else [f"--jobs={value}"]
        for operation in ("find", "smart", "check", "flash"):
            status, output, errors = lab.run(operation, "--json", "report", *words)
            assert (status, output) == ((0, listing) if operation == "find" else (4, b"")) and errors.count(b"\n") == 1
            assert any(line.startswith("open") for line in lab.journal()) == (operation == "find")
    for words in ("--jobs 2", "--job=2", "--jo 2", "--jobs 0 --jobs 2", "--debug --jobs 2", "--verbose 0 --jobs 2"):
        words = ["check", "-a", "1", "-s", "1", *words.split()]  # what is selected shows that the options behind are read
        status, output, errors = lab.run(*words)
        assert status == 3 and not errors and b"check 1 " in output, words
    for words in ("--j", "--js"):
        assert lab.run("check", words, "short")[0] == 3 and (lab.folder / "short").exists()
        (lab.folder / "short").unlink()
