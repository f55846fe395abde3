"""The completion in a real shell: what is typed, with tabs, and the arguments that come of it."""
import os
import pathlib
import pty
import subprocess

COMPLETION = pathlib.Path(__file__).resolve().parents[2] / "packaging/mirvok.bash-completion"
TYPED = {
    "mirvok fla\t--prof\tplan\t\n": "flash --profile <plan 1.bin>",
    "mirvok check --profile=fol\tpl\t --log fol\tl\t\n": "check <--profile=folder/plan 2.bin> --log folder/log",
    "mirvok find --match part_number_\t01*\n": "find --match part_number_8s=01*",
    "mirvok smart --match=seri\tS* --js\tfolder/lo\t\n": "smart --match=serial_number=S* --json folder/log",
    "mirvok flash --id\t-a 3\n": "flash --idle -a 3",
    "mirvok-profile ch\tfl\tplan\t--fil\tfol\t\n": "check flash <plan 1.bin> --files folder/",
}


def test_words_options_files_and_folders(tmp_path):
    (tmp_path / "folder").mkdir()
    for name in ("plan 1.bin", "folder/plan 2.bin", "folder/log"):
        (tmp_path / name).touch()
    start = f"tell() {{ for a; do [[ $a == *' '* ]] && a=\"<$a>\"; printf '%s ' \"$a\"; done >>told; echo >>told; }}; . {COMPLETION}\n"
    start += "unset HISTFILE; mirvok() { tell \"$@\"; }; mirvok-profile() { tell \"$@\"; }\n"
    (tmp_path / "rc").write_text(start)
    master, terminal = pty.openpty()
    with subprocess.Popen(["bash", "--rcfile", tmp_path / "rc", "-i"], cwd=tmp_path, stdin=terminal, stdout=terminal,
                          stderr=terminal, env=os.environ | {"TERM": "dumb"}, start_new_session=True) as shell:
        os.close(terminal)
        os.write(master, "".join([*TYPED, "exit\n"]).encode())
        try:
            while os.read(master, 4096):
                pass
        except OSError:
            pass
        shell.wait(timeout=30)
    os.close(master)
    assert [line.rstrip() for line in (tmp_path / "told").read_text().splitlines()] == list(TYPED.values())
