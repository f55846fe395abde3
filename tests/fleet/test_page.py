"""The summary and page of many hosts' reports, the page in a real browser."""
import json
import pathlib
import resource
import subprocess

import pytest
from selenium import webdriver
from selenium.webdriver.common.by import By

import reports

PROGRAM = pathlib.Path(__file__).resolve().parents[2] / "contrib/ansible/roles/mirvok/files/fleet.py"
HOSTILE = "<script>document.title='taken'</script>" + "".join(map(chr, range(1, 256)))


def sum_up(folder, hosts):
    """HOSTS: (name, state, {kind: text of the report})."""
    for name, _, texts in hosts:
        for kind, text in texts.items():
            (folder / f"{name}.{kind}.json").write_text(text, encoding="latin-1")
    entries = [{"name": name, "state": state} | dict.fromkeys(texts, True) for name, state, texts in hosts]
    done = subprocess.run([PROGRAM, folder, folder / "fleet.html"], input=json.dumps(entries), capture_output=True, text=True, timeout=60, check=True)
    assert not done.stderr
    return done.stdout.splitlines()


@pytest.fixture(name="browser")
def fixture_browser():
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1500,1200"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=webdriver.chrome.service.Service("/usr/bin/chromedriver"), options=options)
    yield driver
    driver.quit()


def test_page_of_a_fleet(tmp_path, browser):
    check = reports.report("flash", [
        reports.flashed(1, "due"), reports.flashed(2, "due", {"pending_reset": True}, protocol="NVMe"), reports.flashed(3),
        reports.flashed(4, "failed", {"code": 9, "text": HOSTILE}, product_id=HOSTILE, in_use=[{"kind": "mount", "name": "/srv"}])], check=True)
    smart = reports.report("smart", [
        reports.measured(1, {"temperature_celsius": 140}), reports.measured(2, {"temperature_celsius": 700, "exceeded": ["temperature"]}),
        reports.measured(3, {"temperature_celsius": None, "warranty_bytes": None}, {"critical_warning": ["read_only"]})])
    whole = json.dumps(check)
    update = reports.report("flash", [reports.flashed(2, "updated", {"level_committed": "MVT2", "activation": "pending_reset"})], check=False)
    bad = [whole[:-9], json.dumps(check | {"schema": 1}), json.dumps(check | {"tool": {"name": HOSTILE}}), json.dumps(check | {"drives": [1]}),
           "", "[" * 9999, whole.replace(whole[2:8], "\xff"), "7" * 5000]
    lines = sum_up(tmp_path, [
        ("checked", "due", {"check": whole, "smart": json.dumps(smart)}),
        ("updated", "updated, reboot needed", {"check": whole, "flash": json.dumps(update)}),
        ("early", "left out: nothing due", {"check": json.dumps(check | {"drives": [], "end": "2001-01-01T00:00:00Z"})}),
        ("late", "left out: nothing due", {"check": json.dumps(check | {"drives": [{"flash": 7, "in_use": 10**300}, {}], "end": "2099-01-01T00:00:00Z"})}),
        *((f"bad{number}", "left out: not checked", {"check": text}) for number, text in enumerate(bad))])
    assert lines[1].split() == "checked due 4 1 1 1 0 1 0 0".split()
    assert lines[2].split() == "updated updated, reboot needed 4 1 1 1 0 1 1 0".split()
    assert sum(line.startswith("bad") and ".check.json" in line for line in lines) == len(bad)

    browser.get((tmp_path / "fleet.html").as_uri())
    assert browser.title == "Drives of the fleet" and not browser.find_elements(By.CSS_SELECTOR, "td script")

    def shown(table, column):
        return [row.find_elements(By.TAG_NAME, "td")[column].text for row in browser.find_elements(By.CSS_SELECTOR, f"#{table} tbody tr")
                if row.is_displayed()]
    assert len(shown("hosts", 0)) == 4 + len(bad) and len(shown("drives", 0)) == 10
    times = shown("hosts", 10)
    assert "days old" in times[2] and times[3:5] == ["2099-01-01T00:00:00Z (not yet, by our clock)", "none"]
    assert {"waiting for a reset", "updated, waiting for a reset"} <= set(shown("drives", 6))
    tiles = [tile.text for tile in browser.find_elements(By.TAG_NAME, "li")]
    assert {"12 hosts", "10 drives", "2 with warnings", "2 failed", "2 waiting for a reset", "8 left out: not checked"} <= set(tiles), tiles
    header = browser.find_elements(By.CSS_SELECTOR, "#drives th button")[8]
    for order in (["140 of 70 °C", "700 of 70 °C"], ["700 of 70 °C", "140 of 70 °C"]):
        header.click()
        assert shown("drives", 8) == order + [""] * 8
    browser.find_element(By.CSS_SELECTOR, "input").send_keys("CHECKED <script> /srv")
    assert shown("drives", 0) == ["checked"] and browser.find_element(By.CSS_SELECTOR, "[role=status]").text == "0 hosts, 1 drives"
    browser.set_window_size(420, 900)
    assert browser.execute_script("return document.documentElement.scrollWidth <= innerWidth")
    assert browser.get_log("browser") == []


def test_two_thousand_hosts_in_seconds(tmp_path, browser):
    check = json.dumps(reports.report("flash", [reports.flashed(number) for number in range(1, 9)], check=True))
    smart = json.dumps(reports.report("smart", [reports.measured(number) for number in range(1, 9)]))
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    lines = sum_up(tmp_path, [(f"host{number}", "due", {"check": check, "smart": smart}) for number in range(2000)])
    assert lines[2001].split()[:4] == ["all", "2000", "hosts", "16000"]
    assert resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - before.ru_utime < 10  # seconds of work, however busy the machine is
    browser.get((tmp_path / "fleet.html").as_uri())
    browser.find_element(By.CSS_SELECTOR, "input").send_keys("1999")
    assert browser.find_element(By.CSS_SELECTOR, "[role=status]").text == "1 hosts, 8 drives"
