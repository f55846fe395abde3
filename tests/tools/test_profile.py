"""mirvok-profile: the exact bytes that it builds, what it prints of them, its complaints and its findings."""
import json
import os
import subprocess

import pytest

HEADER = bytes(38) + b"\2\0" + bytes(88)
FLASH = (b"ABCDEFGHIJKL" + b"VX\xe9".ljust(24, b"\0") + b"\x02\x01\xff\xff\0\0" + b"G3A1".ljust(10, b"\0")
         + b"vx.bin".ljust(22, b"\0") + b"s1\0\0s2\0\0\0\0s3".ljust(24, b"\0") + b"tp".ljust(12, b"\0")
         + b"tf".ljust(16, b"\0") + b"\xe0\x01")
SMART = (b"\xde\xbe\xbe\xde" + b"ABC1234".ljust(12, b"\0") + b"P" * 32
         + bytes.fromhex("0000 0201 0403 0605 0807 0c0b0a09 0e0d 100f 1211 0100 0000 debebede"))
SIZES = bytes.fromhex("65192203 04030201 08070605 e001 00000000 00100000 0400 0200 2000 65192203")
BUILT = {
    "flash": ([{"part_number": "ABCDEFGHIJKL", "product_id": "VX\u00e9", "fw_level": "G3A1", "image_name": "vx.bin",
                "spare_text1": "s1", "spare_text2": "s2", "spare_text3": "s3", "tpro": "tp", "tfru": "tf",
                "type": 258, "wait_time": 65535, "size": 480}, {}], HEADER + FLASH + bytes(128)),
    "smart": ([{"part_number": "ABC1234", "product_id": "P" * 32, "drive_type": 0x102, "life_threshold": 0x304,
                "life_attr_id": 0x506, "written_attr_id": 0x708, "warranty_gb": 0x90a0b0c, "temp_attr_id": 0xd0e,
                "spec_max_temp": 0xf10, "smart_type": 0x1112}], SMART),
    "sizes": ([{"capacity": 0x0102030405060708, "size": 480}, {"size": 4, "capacity": 4096}], SIZES)}


def run(tmp_path, *arguments, given=b""):
    done = subprocess.run([os.path.join(os.environ["MIRVOK_BUILD"], "mirvok-profile"), *arguments], cwd=tmp_path,
                          input=given, capture_output=True, timeout=60, check=False)
    return done.returncode, done.stdout.decode("latin-1"), done.stderr.decode().replace("mirvok-profile: ", "")


@pytest.mark.parametrize("kind", BUILT)
def test_build_gives_exact_bytes_and_dump_gives_them_back(tmp_path, kind):
    records, built = BUILT[kind]
    (tmp_path / "in").write_text(json.dumps(records))
    assert run(tmp_path, "build", kind, "in", "out") == (0, "", "") and (tmp_path / "out").read_bytes() == built
    status, dumped, _ = run(tmp_path, "dump", kind, "out")
    assert status == 0 and [record | given for record, given in zip(json.loads(dumped), records)] == json.loads(dumped)
    assert run(tmp_path, "build", kind, "-", "-", given=dumped.encode()) == (0, built.decode("latin-1"), "")


@pytest.mark.parametrize("kind, text, complaints", [
    ("flash", "{}", ["must be an array of records"]),
    ("flash", '[1, {"tfru": "123456789", "type": 65536, "size": 1.0, "wait_time": "1", "x": 0, "fw_level": 3}]',
     ["record 1: must be an object", "record 2: tfru: 9 bytes, must be a text of at most 8 bytes",
      *(f"record 2: {name}: must be a whole number from 0 to 65535" for name in ("type", "size", "wait_time")),
      "record 2: x: unknown field", "record 2: fw_level: must be a text of at most 10 bytes"]),
    ("smart", '[{"product_id": "\\u0000"}, {"product_id": "\\u0100", "smart_type": 1, "smart_type": 2}]',
     ["record 1: product_id: holds a character outside U+0001 to U+00FF", "record 2: smart_type: given twice",
      "record 2: product_id: holds a character outside U+0001 to U+00FF"]),
    ("smart", '[{"warranty_gb": 4294967296}]', ["record 1: warranty_gb: must be a whole number from 0 to 4294967295"]),
    ("sizes", '[{"capacity": -1}]', ["record 1: capacity: must be a whole number from 0 to 18446744073709551615"]),
    *((kind, lambda most=most: "[" + "{}," * most + "{}]", [f"record {most + 1}: one too many, at most {most}"])
      for kind, most in (("flash", 65535), ("smart", 999), ("sizes", 256)))])
def test_build_names_each_fault_and_writes_nothing(tmp_path, kind, text, complaints):
    (tmp_path / "in").write_text(text() if callable(text) else text)
    assert run(tmp_path, "build", kind, "in", "out") == (1, "", "".join(f"in: {line}\n" for line in complaints))
    assert os.listdir(tmp_path) == ["in"]


@pytest.mark.parametrize("kind, data, complaint", [
    ("flash", HEADER[:127], "127 bytes, the shortest file has 128"),
    ("smart", SMART[:4] + SMART[5:], "count says 1 records, there are 0"),
    ("smart", b"\0" + SMART[1:], "header signature is 0xDEBEBE00, not 0xDEBEBEDE"),
    ("sizes", SIZES[:4] + bytes(2570) + b"\1\1\x16\x0a" + SIZES[-4:], "count says 257 records, at most 256"),
    ("sizes", SIZES[:-4] + b"\0" * 4, "trailer signature is 0x00000000, not 0x03221965"),
    ("sizes", SIZES[1:], "table said to start 32 bytes before the end of a file of 31"),
    ("sizes", SIZES[:26] + b"\x0b" + SIZES[27:], "table said to start 11 bytes before the end of a file of 32")])
def test_dump_refuses_malformed_files(tmp_path, kind, data, complaint):
    (tmp_path / "in").write_bytes(data)
    assert run(tmp_path, "dump", kind, "in") == (1, "", f"in: {complaint}\n")


@pytest.mark.parametrize("kind, names, good, bad, findings", [
    ("flash", "part_number product_id fw_level image_name", ("AB", "V", "G1", "full"),
     [("ABC", "W", "G2", "full"), ("AB", "V", "G10", "hollow"), ("ABD", "VX", "", "none"), (" N", "", "2\n", ""),
      ("X", "Harrier 1800    ", "L7SB", "full"), ("Y", "Q" * 21, "123456789", "../full"), ("Z", "R" * 16 + " ", "1", "a/..")],
     """2: part_number: is never reached: record 1 with "AB" comes first
2: fw_level: "G2" differs from "G1" of record 1 with the same image_name\n3: part_number: repeats the model of record 1
3: fw_level: "G10" is not as long as "G1" of record 1 with the same product_id
3: image_name: "hollow" is an empty file in files
4: part_number: can never match: record 1 takes its drives by part_number, record 1 by product_id
4: fw_level: is empty, no drive is lower\n4: image_name: "none" is no file in files
5: part_number: " N" has a blank at an end, the texts of drives have none
5: product_id: is empty and takes every drive that is looked up by it
5: fw_level: "2\\n" has a blank at an end, the texts of drives have none\n5: image_name: is empty
6: fw_level: "L7SB" differs from "G1" of record 1 with the same image_name
7: product_id: "QQQQQQQQQQQQQQQQQQQQQ" is longer than the 20 characters that a drive reports
7: fw_level: "123456789" is longer than the 8 characters that a drive can report
7: image_name: "../full" leads out of files
8: product_id: "RRRRRRRRRRRRRRRR " has a blank at an end, the texts of drives have none
8: image_name: "a/.." leads out of files"""),
    ("smart", "part_number product_id life_attr_id temp_attr_id written_attr_id drive_type smart_type life_threshold "
     "warranty_gb spec_max_temp", ("A", "P", 1, 2, 255, 27, 0, 1, 0xfffffffe, 1),
     [("B", "Q", 1, 1, 256, 2, 4, 0, 0xffffffff, 255), ("C", "R", 0, 0, 0, 22, 4, 101, 0, 0),
      ("D", "S ", 1, 2, 3, 1, 2, 1, 1, 1), ("E", "T" * 17, 1, 2, 3, 1, 2, 1, 1, 1), ("F", "U ", 1, 2, 3, 1, 0, 1, 1, 1)],
     """2: drive_type: 2 is unknown, bytes written are neither shown nor judged
2: smart_type: 4 is an unknown layout, nothing is found on a SAS drive
2: temp_attr_id: 1 is already taken by life_attr_id\n2: written_attr_id: 256 is the id of no attribute
2: life_threshold: 0 never trips\n2: warranty_gb: 4294967295 never trips\n2: spec_max_temp: 255 never trips
3: life_threshold: 101 trips on every drive\n3: warranty_gb: 0 trips at the first gigabyte
3: spec_max_temp: 0 trips on every drive
5: product_id: "TTTTTTTTTTTTTTTTT" is longer than the 16 characters that a SAS drive reports
6: product_id: "U " has a blank at an end, the texts of drives have none"""),
    ("sizes", "capacity size", (5, 1), [(1 << 32 | 5, 1), (5, 0), (0, 65535)], """3: capacity: 5 repeats record 1
3: size: 0 leaves the size unknown\n4: capacity: 0 is no drive's capacity""")])
def test_check_names_what_will_not_work(tmp_path, kind, names, good, bad, findings):
    (tmp_path / "files").mkdir()
    (tmp_path / "files/full").write_text("image")
    (tmp_path / "files/hollow").touch()
    lines = [f"out: record {line}\n" for line in findings.split("\n")]
    for rows, answer in ([good], (0, "", "")), ([good, *bad], (1, "".join(lines), "")):
        (tmp_path / "in").write_text(json.dumps([dict(zip(names.split(), row)) for row in rows]))
        assert run(tmp_path, "build", kind, "in", "out")[0] == 0 and run(tmp_path, "check", kind, "out") == answer
    assert run(tmp_path, "check", kind, "in")[0] == 2
    status, found, _ = run(tmp_path, "check", kind, "--json", "-", given=(tmp_path / "out").read_bytes())
    assert status == 1 and {entry["kind"] for entry in json.loads(found)} == {kind}
    assert ["out: record {record}: {field}: {message}\n".format(**entry) for entry in json.loads(found)] == lines
