"""Whole runs in the lab, compared with what an administrator sees.

A session (sessions/*.txt) begins with "# machine NAME"; each line that begins "$ " is a shell command, run in a fresh
working directory with the data files of data/, and what follows is what it prints, then "[status]" where that is not
0. `mirvok` is the program on that machine, `journal` what reached the drives and libraries in the last run, `differs
FAULT... -- ARGUMENTS` how faults change a run: lines of its output, then commands that were not sent (-) and those sent
or answered instead (+). `dense` leaves out dumps of nothing.
SESSIONS=update writes what was printed into the sessions instead.
"""
import os
import pathlib
import re
import subprocess

import pytest

HERE = pathlib.Path(__file__).resolve().parent
BUILD = pathlib.Path(os.environ["MIRVOK_BUILD"])
SHELL = r"""
mirvok() { "$BUILD/mirvok-lab" --state "$DIR.lab" "$MACHINE" -- "$@"; }
lab() { "$BUILD/mirvok-lab" --state "$DIR.lab" "$@"; }
journal() { cat "$DIR.lab/journal"; }
dense() { grep -aEv '^  [0-9a-f]{4} ( (00|A5))+ +\.+$'; }
differs() {
  local faults=() run
  while [[ $1 != -- ]]; do faults+=(--fault "$1"); shift; done
  for run in before after; do
    { lab --fresh "${faults[@]:$([[ $run == after ]] || echo 999)}" "$MACHINE" "$@"; echo "status $?"; } 2>&1 |
      sed 's/^[0-9 ]*\(A:\|PN:\)/\1/;/^ *[0-9]*(/d;/Error(s)/d;/^$/d' >"$DIR.$run.output"
    journal | sed 's/ cdb=.* \(in\|out\|none\) / \1 /;s/ op=.* \(in\|out\) / \1 /;s/ size=[0-9]*//' >"$DIR.$run.journal"
  done
  diff "$DIR.before.output" "$DIR.after.output" | grep -a '^[<>]'
  diff "$DIR.before.journal" "$DIR.after.journal" >"$DIR.diff"
  sed -n 's/^< //p' "$DIR.diff" | sed 's/ \(controller\|device\)=[0-9]*//g;s/ \(in\|out\|none\|op=.*\|=\|count\) .*//;s/^\(sg\|nvme\|storelib .. scsi\) //' |
    awk '!n[$0]++ { name[++k] = $0 } END { for (i = 1; i <= k; i++) printf("%s%d %s", (i > 1 ? ", " : "- "), n[name[i]], name[i]); if (k) print "" }'
  sed -n 's/^> //p' "$DIR.diff" | awk '!n[$0]++ { line[++k] = $0 } END { for (i = 1; i <= k; i++) print "+", n[line[i]], line[i] }' | sed 's/^+ 1 /+ /'
}
"""
# What differs from run to run and from build to build.
VARYING = [(r"addr: -?[0-9A-F]+", "addr: ..."), (re.escape(f"{BUILD}/"), "")]


def run(command, folder, machine):
    environment = dict(os.environ, BUILD=str(BUILD), DIR=str(folder), MACHINE=str(machine), HERE=str(HERE), LC_ALL="C")
    done = subprocess.run(["bash", "-c", SHELL + command], cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120, check=False)
    output = done.stdout.decode("latin-1")
    for pattern, text in VARYING:
        output = re.sub(pattern, text, output)
    output += "" if output.endswith("\n") or not output else "\n"
    return output + (f"[{done.returncode}]\n" if done.returncode else "")


@pytest.mark.parametrize("session", sorted((HERE / "sessions").glob("*.txt")), ids=lambda path: path.stem)
def test_session(session, tmp_path):
    folder = tmp_path / "work"
    (folder / "files").mkdir(parents=True)
    for kind, name in (("flash", "flashdrv"), ("sizes", "sizes"), ("smart", "talvex")):
        source = HERE / "data" / f"{name}.json"
        if source.exists():
            subprocess.run([BUILD / "mirvok-profile", "build", kind, source, folder / f"{name}.bin"], check=True)
    expected = session.read_bytes().decode("latin-1")
    machine = HERE / "machines" / re.match(r"# machine (\S+)", expected)[1]
    commands = re.findall(r"^\$ (.*)$", expected, re.M)
    head = expected[: expected.index("$ ")]
    seen = head + "".join(f"$ {command}\n{run(command, folder, machine)}" for command in commands)
    if os.environ.get("SESSIONS") == "update":
        session.write_bytes(seen.encode("latin-1"))
    assert seen == expected
