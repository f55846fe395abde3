"""The Debian package: installed in a scratch root, run, removed, nothing left."""
import os
import pathlib
import subprocess

BUILD = pathlib.Path(os.environ["MIRVOK_BUILD"])
FILES = """usr/bin/mirvok-profile usr/sbin/mirvok usr/share/bash-completion/completions/mirvok
usr/share/bash-completion/completions/mirvok-profile usr/share/doc/mirvok/README.md usr/share/doc/mirvok/SECURITY.md
usr/share/man/man1/mirvok-profile.1 usr/share/man/man5/mirvok-profiles.5 usr/share/man/man8/mirvok.8""".split()


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=100, **options).stdout


def files_below(root):
    return sorted(str(path.relative_to(root)) for path in root.rglob("*") if not path.is_dir())


def test_package_installs_runs_and_leaves_nothing(tmp_path):
    run("cpack", "--config", BUILD / "CPackConfig.cmake", "-B", tmp_path / "package")
    package = next((tmp_path / "package").glob("mirvok_*.deb"))
    root = tmp_path / "root"
    database = root / "var/lib/dpkg"
    (database / "info").mkdir(parents=True)
    (database / "updates").mkdir()
    for name in ("status", "available"):
        (database / name).touch()
    before = files_below(root)
    dpkg = ["dpkg", "--root", root, "--log", tmp_path / "log", "--force-depends,not-root,bad-path"]
    run(*dpkg, "-i", package)
    assert [path for path in files_below(root) if path.startswith("usr/")] == FILES
    assert "Mirvok -- FIND" in run(root / "usr/sbin/mirvok", "find", cwd=tmp_path)
    assert run(root / "usr/bin/mirvok-profile", "--help").startswith("Makes the data files")
    run(*dpkg, "--purge", "mirvok")
    left = set(files_below(root)) - set(before)
    assert not {path for path in left if not path.startswith("var/lib/dpkg/")} and not (root / "usr").exists()
