"""mirvok-profile: the exact bytes that it builds, what it prints of them, its complaints."""
import json
import os
import subprocess

import pytest

TOOL = os.path.join(os.environ["MIRVOK_BUILD"], "mirvok-profile")
FLASH_TEXTS = {"part_number": "ABCDEFGHIJKL", "product_id": "VX\u00e9", "fw_level": "G3A1", "image_name": "vx.bin",
               "spare_text1": "s1", "spare_text2": "s2", "spare_text3": "s3", "tpro": "tp", "tfru": "tf"}
HEADER = bytes(38) + b"\2\0" + bytes(88)
FLASH = (b"ABCDEFGHIJKL" + b"VX\xe9".ljust(24, b"\0") + b"\x02\x01\xff\xff\0\0" + b"G3A1".ljust(10, b"\0")
         + b"vx.bin".ljust(22, b"\0") + b"s1\0\0s2\0\0\0\0s3".ljust(24, b"\0") + b"tp".ljust(12, b"\0")
         + b"tf".ljust(16, b"\0") + b"\xe0\x01")
SIZES = bytes.fromhex("65192203 04030201 08070605 e001 00000000 00100000 0400 0200 2000 65192203")
SMART = (b"\xde\xbe\xbe\xde" + b"ABC1234".ljust(12, b"\0") + b"P" * 32
         + bytes.fromhex("0000 0201 0403 0605 0807 0c0b0a09 0e0d 100f 1211 0100 0000 debebede"))
BUILT = {
    "flash": ([FLASH_TEXTS | {"type": 258, "wait_time": 65535, "size": 480}, {}], HEADER + FLASH + bytes(128)),
    "smart": ([{"part_number": "ABC1234", "product_id": "P" * 32, "drive_type": 0x102, "life_threshold": 0x304,
                "life_attr_id": 0x506, "written_attr_id": 0x708, "warranty_gb": 0x90a0b0c, "temp_attr_id": 0xd0e,
                "spec_max_temp": 0xf10, "smart_type": 0x1112}], SMART),
    "sizes": ([{"capacity": 0x0102030405060708, "size": 480}, {"size": 4, "capacity": 4096}], SIZES),
}


def run(tmp_path, *arguments):
    done = subprocess.run([TOOL, *arguments], cwd=tmp_path, capture_output=True, timeout=60, check=False)
    return done.returncode, done.stdout.decode(), done.stderr.decode().replace("mirvok-profile: ", "")


@pytest.mark.parametrize("kind", BUILT)
def test_build_gives_exact_bytes_and_dump_gives_them_back(tmp_path, kind):
    records, built = BUILT[kind]
    (tmp_path / "in").write_text(json.dumps(records))
    assert run(tmp_path, "build", kind, "in", "out") == (0, "", "")
    assert (tmp_path / "out").read_bytes() == built
    status, dumped, _ = run(tmp_path, "dump", kind, "out")
    assert status == 0 and [record | given for record, given in zip(json.loads(dumped), records)] == json.loads(dumped)
    (tmp_path / "in").write_text(dumped)
    assert run(tmp_path, "build", kind, "in", "again")[0] == 0 and (tmp_path / "again").read_bytes() == built


@pytest.mark.parametrize("kind, text, complaints", [
    ("flash", "[", ["parse error at line 1, column 2: syntax error while parsing value - unexpected end of input; "
                    "expected '[', '{', or a literal"]),
    ("flash", "{}", ["must be an array of records"]),
    ("flash", '[1, {"tfru": "123456789", "type": 65536, "size": 1.0, "wait_time": -1, "x": 0, "fw_level": 3}]',
     ["record 1: must be an object", "record 2: tfru: 9 bytes, must be a text of at most 8 bytes",
      "record 2: type: must be a whole number from 0 to 65535", "record 2: size: must be a whole number from 0 to 65535",
      "record 2: wait_time: must be a whole number from 0 to 65535", "record 2: x: unknown field",
      "record 2: fw_level: must be a text of at most 10 bytes"]),
    ("flash", '[{"tpro": "\\u0000"}, {"tpro": "\\u0100", "tfru": "a", "tfru": "b"}]',
     ["record 1: tpro: holds a character outside U+0001 to U+00FF", "record 2: tfru: given twice",
      "record 2: tpro: holds a character outside U+0001 to U+00FF"]),
    ("sizes", '[{"capacity": 18446744073709551616}]',
     ["record 1: capacity: must be a whole number from 0 to 18446744073709551615"]),
    ("smart", '[{"product_id": "123456789012345678901234567890123", "warranty_gb": 4294967296}]',
     ["record 1: product_id: 33 bytes, must be a text of at most 32 bytes",
      "record 1: warranty_gb: must be a whole number from 0 to 4294967295"]),
    ("smart", "[" + "{}," * 999 + "{}]", ["record 1000: one too many, at most 999"]),
    ("sizes", lambda: "[" + "{}," * 256 + "{}]", ["record 257: one too many, at most 256"]),
    ("flash", lambda: "[" + "{}," * 65535 + "{}]", ["record 65536: one too many, at most 65535"]),
])
def test_build_names_each_fault_and_writes_nothing(tmp_path, kind, text, complaints):
    (tmp_path / "in").write_text(text() if callable(text) else text)
    assert run(tmp_path, "build", kind, "in", "out") == (1, "", "".join(f"in: {line}\n" for line in complaints))
    assert os.listdir(tmp_path) == ["in"]


@pytest.mark.parametrize("kind, data, complaint", [
    ("flash", HEADER[:127], "127 bytes, the shortest file has 128"),
    ("flash", HEADER + bytes(255), "count says 2 records, there are 1"),
    ("smart", SMART[:11], "11 bytes, the shortest file has 12"),
    ("smart", SMART[:4] + SMART[5:], "count says 1 records, there are 0"),
    ("smart", SMART[:-8] + b"\xe8\3" + SMART[-6:], "count says 1000 records, there are 1"),
    ("smart", b"\0" + SMART[1:], "header signature is 0xDEBEBE00, not 0xDEBEBEDE"),
    ("sizes", SIZES[:-4] + b"\0" * 4, "trailer signature is 0x00000000, not 0x03221965"),
    ("sizes", SIZES[1:], "table said to start 32 bytes before the end of a file of 31"),
    ("sizes", SIZES[:26] + b"\x0b" + SIZES[27:], "table said to start 11 bytes before the end of a file of 32"),
    ("sizes", b"\0" + SIZES[1:], "header signature is 0x03221900, not 0x03221965"),
    ("sizes", SIZES[:24] + b"\3" + SIZES[25:], "count says 3 records, there are 2"),
    ("sizes", SIZES[:4] + bytes(2570) + b"\1\1\x16\x0a" + SIZES[-4:], "count says 257 records, at most 256"),
])
def test_dump_refuses_malformed_files(tmp_path, kind, data, complaint):
    (tmp_path / "in").write_bytes(data)
    assert run(tmp_path, "dump", kind, "in") == (1, "", f"in: {complaint}\n")
