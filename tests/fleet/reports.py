"""Reports of schema 2 as a machine would write them, for the tests of what reads them."""
import datetime
import json
import pathlib

import jsonschema

SCHEMA = json.loads((pathlib.Path(__file__).parents[2] / "docs/report.schema.json").read_text())
NOW = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")
HEALTH = {"critical_warning": None, "available_spare_percent": None, "available_spare_threshold_percent": None,
          "media_errors": None, "unsafe_shutdowns": None, "power_on_hours": 8760}


def drive(number, **changes):
    base = {"number": number, "controller": 0, "device_id": number, "node": f"/dev/sg{number}", "slot_id": None, "port_id": 0,
            "protocol": "SATA", "status": 0, "state": "unknown", "size_gb": 480, "part_number": "01GV841YX1L5",
            "part_number_8s": "", "serial_number": f"11S{number:05}", "device_serial": f"S4Y{number:05}",
            "product_id": "Kestrel S480 M7", "vendor_id": "VTR", "dummy": "", "fru": "", "code_level": "MVT1", "c4_valid": False,
            "b0_valid": True, "last_lba": 937703087, "nvme_lba_count": None, "in_use": [], "matched_by": "part_number",
            "type": 16, "flash": None, "smart": None}
    return base | changes


def flashed(number, outcome="latest", flash=(), **changes):
    base = {"level_before": "MVT1", "level_after": "MVT1", "level_committed": None, "level_prescribed": "MVT2",
            "image": "kestrel_mvt2.bin", "outcome": outcome, "code": 0, "text": None, "activation": None, "pending_reset": None}
    return drive(number, flash=base | dict(flash), **changes)


def measured(number, smart=(), health=(), **changes):
    base = {"drive_type": 16, "written_bytes": 26388279066624, "warranty_bytes": 940597837824000, "written_raw": 26388279066624,
            "written_unit": "bytes", "temperature_celsius": 33, "temperature_max_celsius": 70, "life_remaining_percent": 97,
            "life_threshold_percent": 10, "exceeded": [], "predictive_failure": False, "health": HEALTH | dict(health)}
    return drive(number, type=None, smart=base | dict(smart), **changes)


def report(operation, drives, check=None, **changes):
    base = {"schema": 2, "tool": {"name": "mirvok", "version": "17.4.2"}, "operation": operation, "check": check, "host": "store-01",
            "start": NOW, "end": NOW, "exit_status": 0, "data_files": [], "controllers": [], "drives": drives, "left_out": []} | changes
    jsonschema.validate(base, SCHEMA)
    return base
