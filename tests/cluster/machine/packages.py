"""Trees of files, as packages have them, made of a build tree."""

import os
import re
import subprocess


def install_tree(build_dir, tree):
    subprocess.run(["cmake", "--install", build_dir, "--strip", "--prefix", os.path.join(tree, "usr")], check=True,
                   capture_output=True)


def raise_build_number(tree):
    """The program stays the same but for the number that it carries."""
    program = os.path.join(tree, "usr", "bin", "kesh")

    def readelf(*words):
        return subprocess.run(["readelf", "-W", *words, program], check=True, capture_output=True, text=True).stdout

    address = int(re.search(r"(\w+) .* vx_firmware_dova_build_nr", readelf("--dyn-syms"))[1], 16)
    section, offset = (int(word, 16) for word in re.search(r" \.rodata +PROGBITS +(\w+) (\w+)", readelf("-S")).groups())
    with open(program, "r+b") as file:
        file.seek(address - section + offset)
        number = int.from_bytes(file.read(4), "little")
        file.seek(-4, os.SEEK_CUR)
        file.write((number + 1).to_bytes(4, "little"))
