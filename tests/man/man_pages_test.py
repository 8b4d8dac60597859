"""The manual pages: sound, and with every command, option, key and function that there is, and no other."""

import os
import re
import subprocess
import unittest

BUILD_DIR = os.environ["VX_BUILD_DIR"]
SOURCE_DIR = os.environ["VX_SOURCE_DIR"]
PAGES = ("kesh.8", "kesh.conf.5", "vxlab.1", "vx-check.1", "vx-sim.1", "vx_cons.3")
KESH = os.path.join(BUILD_DIR, "bin", "kesh")
VXLAB = os.path.join(SOURCE_DIR, "lab", "vxlab")
VX_CHECK = os.path.join(SOURCE_DIR, "lab", "vx-check")
VX_SIM = os.path.join(BUILD_DIR, "bin", "vx-sim")
# Pages that exist, installed or not.
KNOWN = "|".join(" ".join(page.rsplit(".", 1)) for page in (*PAGES, "keepalived.8", "malloc.3", "fork.2", "exec.3"))


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True, timeout=30,
                          env={**os.environ, "COLUMNS": "200", "LC_ALL": "C.UTF-8"}).stdout


def source(page):
    with open(os.path.join(BUILD_DIR, "man", page), encoding="utf-8") as file:
        return file.read()


def section(page, title):
    return re.search(rf"^\.Sh {title}\n(.*?)(?=^\.Sh |\Z)", source(page), re.MULTILINE | re.DOTALL)[1]


def options(text):
    """Of a part of a page."""
    return set(re.findall(r"Fl -([a-z-]+)", text))


def synopsis(page):
    """Returns command -> options, as the page begins."""
    blocks = re.split(r"^\.Nm\n", section(page, "SYNOPSIS"), flags=re.MULTILINE)
    return {found[1]: options(block) for block in blocks if (found := re.match(r"\.Cm (\S+)", block))}


def helped_options(text):
    """Of the list of options in a text of --help."""
    return set(re.findall(r"^ {2,4}(?:-\w, ?)?--([a-z-]+)", text, re.MULTILINE)) - {"help"}


def kesh_commands():
    names = re.findall(r"^  ([a-z-]+) ", output(KESH, "--help").split("Subcommands:")[1].split("Exit codes:")[0],
                       re.MULTILINE)
    return {name: helped_options(output(KESH, name, "--help")) for name in names}


def vxlab_commands():
    names = re.findall(r"^    ([a-z]+)\b", output(VXLAB, "--help").split("COMMAND\n")[1].split("\n\n")[0], re.MULTILINE)
    return {name: helped_options(output(VXLAB, name, "--help")) for name in names}


def prototypes_of_header():
    """Returns name -> arguments of all functions and types of hooks, each argument with its type."""
    with open(os.path.join(SOURCE_DIR, "include", "vx_cons.h"), encoding="utf-8") as file:
        text = re.sub(r"/\*.*?\*/", "", file.read(), flags=re.DOTALL)
    return {name.strip("(*)"): (result.strip(), [" ".join(one.split()) for one in arguments.split(",")])
            for result, name, arguments in
            re.findall(r"^((?:typedef )?\w+) (vx_cons_\w+|\(\*vx_cons_\w+\))\((.*?)\);", text, re.MULTILINE | re.DOTALL)}


def prototypes_of_page():
    found = re.findall(r"^\.Ft (.*)\n\.Fo (\S+)\n((?:\.Fa .*\n)+)\.Fc", section("vx_cons.3", "SYNOPSIS"), re.MULTILINE)
    return {name.strip("(*)"): (result, re.findall(r'^\.Fa "?(.*?)"?$', arguments, re.MULTILINE))
            for result, name, arguments in found}


class ManPages(unittest.TestCase):
    maxDiff = None

    def test_they_are_sound(self):
        for page in PAGES:
            path = os.path.join(BUILD_DIR, "man", page)
            lint = subprocess.run(["mandoc", "-T", "lint", path], capture_output=True, text=True, check=False).stdout
            faults = [line for line in lint.splitlines()
                      if not re.search(rf"referenced manual not found: Xr ({KNOWN})( \(|$)", line)]
            self.assertEqual(faults, [], page)
            shown = subprocess.run(["man", "--warnings", "--local-file", path], capture_output=True, text=True, check=False,
                                   env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "100"})
            self.assertEqual((shown.returncode, shown.stderr), (0, ""), page)
            self.assertIn("SEE ALSO", shown.stdout)

    def test_each_command_and_option_is_there(self):
        for page, commands in (("kesh.8", kesh_commands()), ("vxlab.1", vxlab_commands())):
            self.assertGreater(len(commands), 10)
            self.assertEqual(synopsis(page), commands, page)
            text = section(page, "DESCRIPTION")
            self.assertEqual(set(re.findall(r"^\.It Cm (\S+)", text, re.MULTILINE)), set(commands), page)
            told = set(re.findall(r"Fl -([a-z-]+)", "".join(re.findall(r"^\.It Fl .*\n", text, re.MULTILINE))))
            general = helped_options(output(KESH if page == "kesh.8" else VXLAB, "--help"))
            self.assertEqual(told - {"help"}, general.union(*commands.values()), page)

    def test_each_option_of_a_program_without_commands_is_there(self):
        for page, program in (("vx-check.1", VX_CHECK), ("vx-sim.1", VX_SIM)):
            helped = helped_options(output(program, "--help"))
            self.assertEqual(options(section(page, "SYNOPSIS")) - {"help"}, helped, page)
            told = options("".join(re.findall(r"^\.It Fl .*\n", section(page, "DESCRIPTION"), re.MULTILINE)))
            self.assertEqual(told - {"help"}, helped, page)

    def test_each_key_is_there(self):
        with open(os.path.join(SOURCE_DIR, "host", "kesh", "kesh.conf.example"), encoding="utf-8") as file:
            example = file.read()
        keys = set(re.findall(r"^#?([a-z]+\.\S+) = ", example, re.MULTILINE))
        keys |= set(re.findall(r"cluster\.[\w.\[\]]*\w", example))
        told = set(re.findall(r"^\.It Ic (\S+)$", section("kesh.conf.5", "KEYS"), re.MULTILINE))
        self.assertEqual({re.sub(r"\[\d\]", "[N]", key) for key in keys}, told)
        for directory, _, names in (entry for folder in ("src", "host") for entry in os.walk(f"{SOURCE_DIR}/{folder}")):
            for name in (name for name in names if name.endswith(".cc")):
                with open(os.path.join(directory, name), encoding="utf-8") as file:
                    read = re.findall(r'(?:vx_cfg_\w+|config_text)\([^;]*?"([a-z]+\.[^" ]+)"', file.read())
                for key in read:
                    self.assertIn(re.sub(r"\[(%u|\d)?\]", "[N]", key), told, f"{directory}/{name}")

    def test_each_function_is_there_as_declared(self):
        declared = prototypes_of_header()
        self.assertEqual(sum(not result.startswith("typedef") for result, _ in declared.values()), 16)
        self.assertEqual(prototypes_of_page(), declared)
        told = set(re.findall(r"Fn (vx_cons_\w+)", "".join(
            re.findall(r"^\.It Fn .*\n", section("vx_cons.3", "DESCRIPTION"), re.MULTILINE))))
        self.assertEqual(told, set(declared))

    def test_programs_tell_one_version(self):
        version, number = os.environ["VX_VERSION"], os.environ["VX_BUILD_NR"]
        self.assertEqual(output(KESH, "--version"), f"kesh {version}, build {number}, libvx_cons {version}\n")
        self.assertEqual(output(VXLAB, "--version"), f"vxlab {version}, build {number}\n")
        self.assertEqual(output(VX_CHECK, "--version"), f"vx-check {version}, build {number}\n")


if __name__ == "__main__":
    unittest.main()
