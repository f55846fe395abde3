"""A release of the present state, made twice, and its packages in clean roots, as root; all of it is in build/packagetest."""
import json
import pathlib
import re
import subprocess

import pytest

HERE = pathlib.Path(__file__).resolve().parent
TOP = HERE.parents[1]
WORK = TOP / "build/packagetest"
VERSION = re.search(r"project\(mirvok VERSION (\S+)", (TOP / "CMakeLists.txt").read_text())[1]


def run(command, status=0):
    done = subprocess.run(["timeout", "3000", "bash", "-euo", "pipefail", "-c", command], cwd=TOP, stdin=subprocess.DEVNULL,
                          text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    print(done.stdout)
    assert done.returncode == status
    return done.stdout


@pytest.fixture(scope="session", name="release")
def make_release():
    run(f"""rm -rf {WORK} && mkdir -p {WORK}/repository
        git ls-files -co --exclude-standard -z | tar c --null -T - | tar x -C {WORK}/repository
        cd {WORK}/repository
        sed -i 's/^## {VERSION} - unreleased/## {VERSION} - '$(date +%F)/ CHANGELOG.md
        git init -q && git add -A && git -c user.name=lab -c user.email=lab@localhost commit -qm 'The present state'
        git tag v{VERSION}
        for folder in first release; do packaging/release v{VERSION} && mv build/releases/{VERSION} {WORK}/$folder; done
        mv build/releases/source/build/packages/{{amd64,arm64}} {WORK}
        cp -r lab/machines {HERE}/inside {WORK}""")
    return WORK / "release"


def test_release_is_reproducible_and_described(release):
    run(f"diff -r {WORK}/first {release} && cd {release} && sha256sum -c SHA256SUMS")
    parts = json.loads((release / f"mirvok-{VERSION}.spdx.json").read_text())["packages"]
    described = {part["packageFileName"]: part["checksums"][0]["checksumValue"] for part in parts if "checksums" in part}
    sums = dict(reversed(line.split()) for line in (release / "SHA256SUMS").read_text().splitlines())
    assert described.items() <= sums.items() and sorted(name[-3:] for name in described) == [".gz", "deb", "deb", "rpm", "rpm"]


def test_lint(release):
    assert run(f"lintian --allow-root --tag-display-limit 0 --fail-on error,warning {release}/*.deb") == ""
    assert " 0 errors, 0 warnings," in run(f"rpmlint -c packaging/rpmlint.toml {release}/*.rpm")
    for needed in run(f"for package in {release}/*.rpm; do rpm -qp --requires $package; done").splitlines():
        assert re.match(r"lib(c|m|dl|pthread)\.so|ld-linux-|rpmlib\(|rtld\(GNU_HASH\)|/bin/sh$", needed)
        level = re.search(r"GLIBC_2\.(\d+)", needed)
        assert not level or int(level[1]) <= 28


@pytest.mark.parametrize("root, arch, package", [("debian12", "amd64", "amd64.deb"), ("debian11", "amd64", "amd64.deb"), ("debian12", "amd64", "x86_64.rpm"),
                                                 ("arm64", "arm64", "arm64.deb"), ("arm64", "arm64", "aarch64.rpm")])
def test_installed_run_and_gone(release, root, arch, package):
    run(f"packaging/in-root {root} {WORK} /shared/inside /shared/release/mirvok[-_]*{package} {arch} {VERSION} >{WORK}/{root}.{package}")
    demo = (WORK / f"{root}.{package}").read_text()
    assert " find 9 (SAS:2 SATA:4 M2:2 NVME:1)" in demo and demo == (WORK / "debian12.amd64.deb").read_text()


def test_byte_order():
    run("tests/packages/byte_order")


@pytest.mark.parametrize("missing, said", [("GTest", "libgtest-dev"), ("nlohmann_json", "nlohmann-json3-dev"), ("CLI11", "libcli11-dev")])
def test_cmake_says_what_is_missing(tmp_path, missing, said):
    assert said in run(f"cmake -S . -B {tmp_path} -DCMAKE_DISABLE_FIND_PACKAGE_{missing}=ON")
    assert ("mirvok-profile" in run(f"cmake --build {tmp_path} --target help")) == (missing == "GTest")


# A folder of 1 MiB for the build; no roots yet, and no network.
@pytest.mark.parametrize("command, sentence", [
    ("packaging/build riscv64", "there is no cross compiler for 'riscv64', only for amd64 and arm64"),
    ("setpriv --reuid 65534 packaging/build", "only root can make and enter a Debian root"),
    ("packaging/release v0", "there is no tag 'v0'"),
    ("unshare --mount bash -c 'mount -t tmpfs -o size=1m tmpfs build && packaging/build'", "the disk is full"),
    ("XDG_CACHE_HOME=build/packagetest/cache unshare --net packaging/build arm64", "the Debian root can't be made from ")])
def test_what_cannot_be_built_is_one_sentence(command, sentence):
    packages = sorted((TOP / "build").glob("*/*.[dr][ep][bm]"))
    said = run(command, status=1)
    assert said.count("\n") == 1 and sentence in said and packages == sorted((TOP / "build").glob("*/*.[dr][ep][bm]"))
