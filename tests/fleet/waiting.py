"""Stands for mirvok on a host whose NVMe drives keep what was committed until a reset: waiting.py SYSFS OPERATION OPTION..."""
import json
import pathlib
import sys

import reports

sysfs, operation, *options = sys.argv[1:]
file = options[options.index("--json") + 1]
reset = "1" in (pathlib.Path(sysfs) / "class/nvme/nvme0/reset_controller").read_text()
taken = pathlib.Path("taken").exists()


def nvme(number, waits, **changes):
    names = {"protocol": "NVMe", "controller": 1, "device_id": number, "node": f"/dev/nvme{number}", "in_use": []}
    return reports.flashed(number + 2, "due", {"pending_reset": waits}, **names | changes)


drives = [reports.flashed(1, "latest" if taken else "due"),
          reports.flashed(2, code_level="MVT2") if reset else nvme(0, True),
          nvme(1, True, in_use=[{"kind": "mount", "name": "/srv"}]), nvme(2, False)]
if "--idle" in options:
    drives[2]["flash"] |= {"outcome": "refused", "code": 9, "text": "drive is in use"}
if operation == "smart":
    sys.exit(2)
if operation == "flash":
    assert options[2:] == ["--match", "protocol=[!N]*"]
    pathlib.Path("taken").touch()
    drives = [reports.flashed(1, "updated", {"level_after": "MVT2"})]
    print("Flash: Success")
print(operation)
status = int(operation == "check")
pathlib.Path(file).write_text(json.dumps(reports.report("flash", drives, check=operation == "check", exit_status=status)))
sys.exit(status)
