"""contrib/prometheus: reports become metrics, and those alerts, with Debian's promtool, node_exporter and Prometheus."""
import json
import os
import pathlib
import socket
import subprocess
import time
import urllib.request

import pytest

import reports

HERE = pathlib.Path(__file__).resolve().parent
PARTS = HERE.parents[1] / "contrib/prometheus"
LAB = HERE.parents[1] / "lab/machines"
BUILD = pathlib.Path(os.environ["MIRVOK_BUILD"])
EVERY = "".join(map(chr, range(1, 256)))
CHECK = reports.report("flash", [
    reports.flashed(1, "due"), reports.flashed(2, "due", {"pending_reset": True}, protocol="NVMe"),
    reports.flashed(3, "failed", {"code": 9, "text": EVERY}, serial_number=EVERY, product_id=EVERY),
    # Drives that only what is not printed tells apart, and one twice.
    reports.flashed(4, device_id=3, serial_number=EVERY.replace("\1", "\2"), product_id=EVERY), reports.flashed(1)], check=True)
SMART = reports.report("smart", [
    reports.measured(1, {"predictive_failure": True, "life_remaining_percent": None}),
    reports.measured(2, {"written_bytes": 2**64 - 1}, {"critical_warning": ["read_only"], "media_errors": 7})])


def metrics(folder, *texts):
    for number, text in enumerate(texts):
        (folder / f"{number}.json").write_text(text)
    command = ["jq", "-rs", "-f", PARTS / "mirvok.jq", *(folder / f"{number}.json" for number in range(len(texts)))]
    return subprocess.run(command, capture_output=True, text=True, timeout=20, check=False)


def test_metrics_of_reports(tmp_path):
    done = metrics(tmp_path, json.dumps(CHECK), json.dumps(SMART))
    assert done.returncode == 0, done.stderr
    subprocess.run(["promtool", "check", "metrics"], input=done.stdout, text=True, check=True, timeout=20)
    samples = dict(line.rsplit(" ", 1) for line in done.stdout.splitlines() if not line.startswith("#"))
    assert len(samples) == sum(not line.startswith("#") for line in done.stdout.splitlines())
    first, second = ('{serial_number="11S0000%d",product_id="Kestrel S480 M7",controller="0",device_id="%d"' % (n, n) for n in (1, 2))
    for name, value in {
            f'mirvok_drive_firmware_state{first},state="due"}}': "1", f'mirvok_drive_firmware_state{second},state="due"}}': "0",
            f'mirvok_drive_firmware_state{second},state="pending_reset"}}': "1", f"mirvok_drive_predictive_failure{first}}}": "1",
            f"mirvok_drive_life_remaining_ratio{first}}}": None, f"mirvok_drive_life_remaining_ratio{second}}}": "0.97",
            f'mirvok_drive_critical_warning{second},warning="read_only"}}': "1", f"mirvok_drive_media_errors_total{first}}}": None,
            f"mirvok_drive_written_bytes_total{second}}}": "18446744073709552000",
            'mirvok_report_drives{operation="check"}': "5"}.items():
        assert samples.get(name) == value, name


def test_no_metrics_of_anything_else(tmp_path):
    whole = json.dumps(CHECK)
    changed = [json.dumps(CHECK | change) for change in ({"schema": 1}, {"drives": 1}, {"tool": {"name": "other"}}, {"tool": []})]
    for texts in ([""], ["{"], ["[]"], ["7", whole], [whole, whole[:-9]], [json.dumps(CHECK | {"exit_status": 5})], *([whole, text] for text in changed)):
        done = metrics(tmp_path, *texts)
        assert done.returncode != 0 and not done.stdout and done.stderr, texts


def test_rules_and_units(tmp_path):
    subprocess.run(["promtool", "test", "rules", HERE / "alerts_test.yml"], check=True, timeout=60)
    for unit in PARTS.glob("mirvok-metrics.*"):
        (tmp_path / unit.name).write_text(unit.read_text().replace("/usr/local/lib/mirvok", str(PARTS)))
    subprocess.run(["systemd-analyze", "verify", "--man=no", tmp_path / "mirvok-metrics.timer"], check=True, timeout=60)


def ask(url):
    with urllib.request.urlopen(url, timeout=5) as answer:
        return answer.read().decode()


def until(seconds, probe):
    end = time.monotonic() + seconds
    while True:
        try:
            if found := probe():
                return found
        except OSError:
            pass
        assert time.monotonic() < end
        time.sleep(0.2)


def free_port():
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        return free.getsockname()[1]


@pytest.fixture(name="start")
def fixture_start(tmp_path):
    started = []

    def start(*command):
        with open(tmp_path / "log", "ab") as log:
            started.append(subprocess.Popen(command, cwd=tmp_path, stdout=log, stderr=log))
    yield start
    for process in started:
        process.terminate()
        process.wait(20)


def test_an_alert_fires(tmp_path, start):
    for kind, name in (("flash", "flashdrv"), ("smart", "talvex")):
        command = [BUILD / "mirvok-profile", "build", kind, LAB / f"demo/{name}.json", tmp_path / f"{name}.bin"]
        subprocess.run(command, check=True, timeout=60)
    (tmp_path / "mirvok").write_text(f'#!/bin/sh\nexec {BUILD}/mirvok-lab {LAB}/demo.json -- "$@"\n')
    (tmp_path / "mirvok").chmod(0o755)
    file = tmp_path / "text/mirvok.prom"
    file.parent.mkdir()
    write = ["env", f"PATH={tmp_path}:{os.environ['PATH']}", PARTS / "mirvok-metrics", file]
    subprocess.run(write, cwd=tmp_path, check=True, timeout=60)
    before = file.stat()
    for profile in tmp_path.glob("*.bin"):
        profile.unlink()
    assert subprocess.run(write, cwd=tmp_path, capture_output=True, check=False, timeout=60).returncode == 1
    assert file.stat() == before and list(file.parent.iterdir()) == [file]

    ports = free_port(), free_port()
    start("prometheus-node-exporter", f"--web.listen-address=127.0.0.1:{ports[0]}", "--collector.disable-defaults", "--collector.textfile",
          f"--collector.textfile.directory={file.parent}")
    until(20, lambda: "node_textfile_scrape_error 0" in ask(f"http://127.0.0.1:{ports[0]}/metrics"))
    (tmp_path / "prometheus.yml").write_text(
        "global: { scrape_interval: 1s, evaluation_interval: 1s }\n"
        f"rule_files: ['{PARTS}/alerts.yml']\n"
        f"scrape_configs: [{{ job_name: node, static_configs: [{{ targets: ['127.0.0.1:{ports[0]}'] }}] }}]\n")
    start("prometheus", "--config.file=prometheus.yml", f"--web.listen-address=127.0.0.1:{ports[1]}", "--storage.tsdb.path=data")
    alerts = until(40, lambda: [alert for alert in json.loads(ask(f"http://127.0.0.1:{ports[1]}/api/v1/alerts"))["data"]["alerts"]
                                if alert["state"] == "firing"])
    summaries = [alert["annotations"]["summary"] for alert in alerts]
    assert f"127.0.0.1:{ports[0]}: drive 11S0M017 (Marlin S3840) predicts its failure" in summaries, summaries
