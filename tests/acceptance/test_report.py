"""Reports of every kind of run: valid by docs/report.schema.json, whole or not there, and without effect on the rest.

What reports/ keeps of a run is compared, one run's report as a whole, the lists of drives of others.
"""
import json
import os
import pathlib
import subprocess
import textwrap

import jsonschema
import pytest

HERE = pathlib.Path(__file__).resolve().parent
BUILD = pathlib.Path(os.environ["MIRVOK_BUILD"])
SCHEMA = json.loads((HERE.parents[1] / "docs/report.schema.json").read_text())
FAULTS = {
    "signal": {"drive": "sata", "command": "download", "nth": 2, "answer": "signal:TERM"},
    "silent": {"command": "any", "count": 0, "answer": "zeros"},
    "loud": {"command": "any", "nth": 1, "count": 0, "answer": "random"},
}
# Name: machine, arguments, faults, what happens before.
RUNS = {
    "find": ("mixed", "find", [], ""),
    "find_controllers": ("storelib", "find", [], ""),
    "find_marvell": ("marvell", "find", [], ""),
    "find_no_profile": ("mixed", "find", [], "rm *.bin"),
    "find_no_drives": ("empty", "find", [], ""),
    "find_silent": ("storelib", "find", ["silent"], ""),
    "find_loud": ("mixed", "find", ["loud"], ""),
    "check": ("storelib", "flash --check", [], ""),
    "check_failed": ("pair", "flash --check", [], "rm files/kestrel.bin"),
    "check_pending": ("flash", "check", [], ""),
    "check_idle": ("used", "check --idle", [], ""),
    "flash": ("flash", "flash", [], ""),
    "flash_signal": ("pair", "flash", ["signal"], ""),
    "flash_selected": ("pair", "flash -a 1 -s 1", [], ""),
    "flash_bad_options": ("pair", "flash -a 1", [], ""),
    "smart": ("smart", "smart", [], ""),
    "smart_no_profile": ("smart", "smart -p none", [], ""),
}

WHOLE = ("flash_selected",)


def lines(report):
    """What differs from drive to drive, a line each; the whole report shows the rest."""
    yield json.dumps([report["exit_status"], *([c["type"], c["drives"]] for c in report["controllers"])]) + "\n"
    for drive in report["drives"]:
        fields = ("node", "device_id", "state", "size_gb", "part_number", "serial_number", "code_level", "matched_by", "type", "in_use")
        result = drive["flash"] or drive["smart"] or {}
        told = {key: value for key, value in (result | (result.get("health") or {})).items() if value is not None}
        told.pop("health", None)
        yield json.dumps([drive[field] for field in fields] + [told]) + "\n"
    for drive in report["left_out"]:
        yield json.dumps(list(drive.values())) + "\n"


def lab(folder, machine, arguments, faults=(), before=""):
    (folder / "files").mkdir(parents=True)
    for kind, name in (("flash", "flashdrv"), ("sizes", "sizes"), ("smart", "talvex")):
        subprocess.run([BUILD / "mirvok-profile", "build", kind, HERE / "data" / f"{name}.json", folder / f"{name}.bin"], check=True)
    for name in ("kestrel", "osprey", "harrier"):
        (folder / f"files/{name}.bin").write_bytes(bytes(range(256)) * 300)
    subprocess.run(["bash", "-c", before or ":"], cwd=folder, check=True)
    command = [BUILD / "mirvok-lab", "--fresh", *(text for name in faults for text in ("--fault", json.dumps(FAULTS[name])))]
    done = subprocess.run([*command, HERE / f"machines/{machine}.json", "--", *arguments.split()], cwd=folder, capture_output=True,
                          timeout=60, check=False)
    return done, (folder.parent / f"{folder.name}.lab/journal").read_text()


@pytest.mark.parametrize("name", RUNS)
def test_reports_are_valid_and_change_nothing(name, tmp_path):
    machine, arguments, faults, before = RUNS[name]
    plain, plain_journal = lab(tmp_path / "plain", machine, arguments, faults, before)
    done, journal = lab(tmp_path / "json", machine, arguments + " --json report", faults, before)
    assert (done.stdout, done.stderr, done.returncode, journal) == (plain.stdout, plain.stderr, plain.returncode, plain_journal)
    text = (tmp_path / "json/report").read_bytes()
    assert all(byte == 10 or 0x20 <= byte <= 0x7E for byte in text)
    report = json.loads(text)
    jsonschema.validate(report, SCHEMA)
    assert report["exit_status"] == done.returncode and "report." not in str(list((tmp_path / "json").iterdir()))
    for varying in ("host", "start", "end"):
        report[varying] = "2000-01-01T00:00:00Z"
    text = textwrap.fill(json.dumps(report), 150, break_on_hyphens=False) + "\n" if name in WHOLE else "".join(lines(report))
    expected = HERE / f"reports/{name}.json"
    if os.environ.get("SESSIONS") == "update" and expected.exists():
        expected.write_text(text)
    assert not expected.exists() or text == expected.read_text()
