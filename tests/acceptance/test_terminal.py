"""The progress on a real terminal: seen in the middle of a download of each kind, gone in the end."""
import fcntl
import json
import os
import pathlib
import pty
import re
import struct
import subprocess
import termios
import time

import pytest

HERE = pathlib.Path(__file__).resolve().parent
BUILD = pathlib.Path(os.environ["MIRVOK_BUILD"])
STOP = "signal:STOP"
# Machine, where the program stops twice, and what its last line on the terminal is the second time.
DOWNLOADS = {
    "sata": ("pair", {"drive": "sata", "command": "download"}, r"drive 1 of 4: sent 32 of 80 KiB \[#+"),
    "nvme": ("pair", {"drive": "nvme", "command": "download"}, r"drive 3 of 4: sent 4 of 80 KiB \[#"),
    "sas": ("storelib", {"drive": "sas_update", "command": "download"}, r"drive 1 of 9: sent 32 of 80 KiB \[#+"),
    "marvell": ("marvell", {"command": "sleep"}, r"drive 1 of 4: sent 66%"),
    "waiting": ("pair", {"command": "sleep"}, r"drive 1 of 4: waiting, 2 s left"),
}


def tmux(server, *arguments):
    return subprocess.run(["tmux", "-L", server, "-f", "/dev/null", *arguments], capture_output=True, text=True, check=True).stdout


def wait_for(condition):
    end = time.monotonic() + 20
    while not condition():
        assert time.monotonic() < end
        time.sleep(0.05)


def read_process(path):
    """A file of /proc; nothing where the process has ended since it was listed."""
    try:
        return (pathlib.Path("/proc") / path).read_text()
    except (FileNotFoundError, ProcessLookupError):
        return ""


@pytest.mark.parametrize("kind", DOWNLOADS)
@pytest.mark.parametrize("columns", [80, 11, 5])
def test_progress_is_seen_and_leaves_nothing(kind, columns, tmp_path):
    machine, fault, shown = DOWNLOADS[kind]
    (tmp_path / "files").mkdir()
    for name in ("flash", "sizes"):
        subprocess.run([BUILD / "mirvok-profile", "build", name, HERE / f"data/{name}{'drv' * (name == 'flash')}.json",
                        tmp_path / f"{name}{'drv' * (name == 'flash')}.bin"], check=True)
    for name in ("kestrel", "osprey", "harrier"):
        (tmp_path / f"files/{name}.bin").write_bytes(bytes(81920))
    play = [BUILD / "mirvok-lab", "--fresh", "--state", tmp_path / "state", "--dir", tmp_path]
    end = [HERE / f"machines/{machine}.json", "--", "flash"]
    plain = subprocess.run([*play, *end], capture_output=True, text=True, check=False).stdout
    faults = [word for nth in (1, 2) for word in ("--fault", json.dumps(fault | {"nth": nth, "answer": STOP}))]
    server = f"mirvok-{os.getpid()}-{kind}-{columns}"
    script = tmp_path / "run"
    script.write_text("yes '' | head -n 30\n" + " ".join(f"'{word}'" for word in [*play, *faults, *end]) + "\nsleep 100\n")
    try:
        tmux(server, "new-session", "-d", "-x", str(columns), "-y", "16", f"TERM=screen bash {script}")
        shell = tmux(server, "list-panes", "-F", "#{pane_pid}").strip()

        def program():
            lab = read_process(f"{shell}/task/{shell}/children").split()
            return [child for pid in lab for child in read_process(f"{pid}/task/{pid}/children").split()]

        def stopped():
            return any(" T " in read_process(f"{pid}/stat") for pid in program())

        for step in (1, 2):
            wait_for(stopped)
            time.sleep(0.15)
            screen = tmux(server, "capture-pane", "-p").rstrip("\n").split("\n")
            if step == 2:
                print("\n".join(screen))
                assert len(screen) == 16 and len(screen[-1]) < columns, screen
                assert re.match(shown, screen[-1]) or screen[-1] == shown[: columns - 1].rstrip(), screen
            os.kill(int(program()[0]), 18)
            time.sleep(0.05)
        wait_for(lambda: not program())
        lines = tmux(server, "capture-pane", "-p", "-J", "-S", "-").split("\n")
        start = next(i for i, line in enumerate(lines) if line.startswith("Mirvok")) - 1
        seen = ["".join(line.split()) for line in lines[start:]]
        assert seen[: plain.count("\n")] == ["".join(line.split()) for line in plain.split("\n")[:-1]]
    finally:
        subprocess.run(["tmux", "-L", server, "kill-server"], check=False)


@pytest.mark.parametrize(("columns", "shown"), [(0, b"\rdrive 1 of 4: identifying\x1b[K"), (4, b""), (5, b"\rdriv\x1b[K")])
def test_terminals_of_no_and_of_little_width(columns, shown, tmp_path):
    master, terminal = pty.openpty()
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    subprocess.run([BUILD / "mirvok-profile", "build", "flash", HERE / "data/flashdrv.json", tmp_path / "flashdrv.bin"], check=True)
    subprocess.run([BUILD / "mirvok-lab", "--dir", tmp_path, HERE / "machines/pair.json", "--", "find"], env=os.environ | {"TERM": "vt100"},
                   stdout=subprocess.DEVNULL, stderr=terminal, check=True)
    os.close(terminal)
    os.set_blocking(master, False)
    try:
        seen = os.read(master, 4096)
    except OSError:
        seen = b""
    os.close(master)
    assert seen.startswith(shown) and bool(seen) == bool(shown)
