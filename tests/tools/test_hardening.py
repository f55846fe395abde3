"""How both programs are linked and compiled against what a fault could make of them, and a start without descriptors."""
import os
import re
import subprocess

import pytest

BUILD = os.environ["MIRVOK_BUILD"]
with open(f"{BUILD}/CMakeCache.txt", encoding="utf-8") as cache:
    SANITIZED = not re.search(r"^MIRVOK_SANITIZE:\w+=OFF$", cache.read(), re.M)


@pytest.mark.skipif(SANITIZED, reason="the sanitizers have their own ways")
@pytest.mark.parametrize("program", ["mirvok", "mirvok-profile"])
def test_program_is_hardened(program):
    seen = subprocess.run(["readelf", "-Whld", "--dyn-syms", f"{BUILD}/{program}"], capture_output=True, text=True,
                          timeout=60, check=True).stdout
    for sign in ("DYN (Position-Independent", "GNU_RELRO", "BIND_NOW", "__stack_chk_fail@", "__snprintf_chk@"):
        assert sign in seen, sign
    if "X86-64" in seen:
        code = subprocess.run(["objdump", "-d", f"{BUILD}/{program}"], capture_output=True, text=True, timeout=60,
                              check=True).stdout
        assert "endbr64" in code.split("<main>:\n")[1].splitlines()[0]


@pytest.mark.skipif(SANITIZED, reason="the sanitizers need descriptors themselves")
@pytest.mark.parametrize("operation, status", [("find", 0), ("flash", 4), ("smart", 4), ("check", 4), ("profile", 0)])
def test_a_run_without_standard_descriptors_ends(operation, status):
    command = ["bash", "-c", 'exec prlimit --nofile=1 "$0/mirvok" "$1" <&- >&- 2>&-', BUILD, operation]
    assert subprocess.run(command, timeout=60, check=False).returncode == status
