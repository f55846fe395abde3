"""Whole runs in the lab, compared with what an administrator sees.

A session (sessions/*.txt) begins with "# machine NAME"; each line that begins "$ " is a shell command, run in a fresh
working directory with the data files of data/, and what follows is what it prints, then "[status]" where that is not
0. `mirvok` is the program on that machine, `journal` what reached the drives and libraries in the last run. `differs
'SUBJECT COMMAND NTH ANSWER'... -- ARGUMENTS` is how each fault alone changes a run (SUBJECT is a drive, or a library in
capitals; "1+" is every occurrence): how much more or less was sent of each command, then the lines that are new.
`brief` joins lines of a journal, without their commands' bytes; `dense` leaves out of a trace dumps of nothing and
lines that were there before, and joins the others in rows, each change of the depth in numbers.
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
brief() {
  sed 's/^\(storelib\|marvell\) \(scsi \)\?//;s/ scsi / /;s/\(controller\|adapter\|device\)=//g;s/ size=[0-9]*//;s/ cdb=.* \(in\|none\) / \1 /' |
    paste -sd, | sed 's/,/, /g' | fold -sw 150
}
dense() {
  sed 's/addr: .*/addr: .../;s/duration:.*/duration:0/' | grep -aEv '^  [0-9a-f]{4} ( (00|A5))+ +\.+$|^$' | awk '
    { traced = sub(/^STORAGE_LIB: /, ""); match($0, /^ */); depth = traced ? RLENGTH / 3 : -1; line = substr($0, traced * RLENGTH + 1) }
    seen[line]++ { next }
    { entry = (depth != last ? depth " " : "") line; if (!traced) entry = line }
    row != "" && traced && last >= 0 && length(row entry) < 150 { row = row " | " entry; last = depth; next }
    { if (row != "") print row; row = traced ? depth " " line : line; last = depth }
    END { print row }'
}
play() {
  lab --fresh "${@:2}" 2>&1 | awk '/^    [A-Z]/ { row = row " |" substr($0, 4); next } { print row; row = $0 } END { print row }' |
    sed 's/^[0-9 ]*\(A:\|PN:\)/\1/;/^ *[0-9]*(/d;/Error(s)/d;/^$/d' >"$DIR.$1.output"
  { echo "status ${PIPESTATUS[0]}"; sed -n 's/^ find/find/p' "$DIR.$1.output"; journal; } >"$DIR.$1.journal"
  sed -i 's/ \(controller\|adapter\|device\|size\)=[0-9]*//g;s/ \(cdb\|op\|chunks\|count\|status\|in\|out\|none\)\b.*//;s/ =.*//
    s/^\(sg\|nvme\|storelib\) //;s/ scsi / /' "$DIR.$1.journal"
}
differs() {
  local faults=() fault subject command nth answer
  while [[ $1 != -- ]]; do faults+=("$1"); shift; done
  play before "$MACHINE" "$@"
  for fault in "${faults[@]}"; do
    read -r subject command nth answer <<<"$fault"
    play after --fault "{\"$([[ $subject == [A-Z]* ]] && echo library || echo drive)\": \"$subject\", \"command\": \"$command\",
      \"nth\": ${nth%+}, \"count\": $([[ $nth == *+ ]] && echo 0 || echo 1), \"answer\": \"$answer\"}" "$MACHINE" "$@"
    awk 'BEGIN { printf("%s:", ARGV[3]); delete ARGV[3] } !($0 in n) { name[++k] = $0 } { n[$0] += NR == FNR ? -1 : 1 }
      END { for (i = 1; i <= k; i++) if (name[i] ~ /^(status|find) / ? n[name[i]] > 0 : n[name[i]]) printf(" %s %+d;", name[i], n[name[i]])
      print "" }' "$DIR".{before,after}.journal "$fault"
    diff "$DIR.before.output" "$DIR.after.output" | sed -n '/ find /!s/^>  */> /p'
  done
}
"""


def run(command, folder, machine):
    environment = dict(os.environ, BUILD=str(BUILD), DIR=str(folder), MACHINE=str(machine), HERE=str(HERE), LC_ALL="C")
    done = subprocess.run(["bash", "-c", SHELL + command], cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120, check=False)
    output = done.stdout.decode("latin-1").replace(f"{BUILD}/", "")
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
