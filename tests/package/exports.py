"""Compares the names that shared libraries export with those that debian/*.symbols list for them.

usage: exports.py <folder of the lists> <library>...
"""

import pathlib
import re
import subprocess
import sys


def output_of(*command, text=None):
    return subprocess.run(command, input=text, capture_output=True, text=True, check=True).stdout


def listed(folder):
    """By soname the names, each with whether it is optional: there, or not, as the compiler optimises."""
    libraries = {}
    names = {}
    for path in folder.glob("*.symbols"):
        for line in path.read_text().splitlines():
            entry = re.fullmatch(r' (?:\(([a-z+|]*)\))?"?(.*?)@(\w\S*?)"? \S+', line)
            if line.startswith("*"):
                continue  # a field of the library
            if entry is None:
                names = libraries.setdefault(line.split()[0], {})
            else:
                names[entry[2], entry[3]] = "optional" in (entry[1] or "")
    return libraries


def exported(library):
    table = output_of("nm", "--dynamic", "--defined-only", "--with-symbol-versions", library)
    names, versions = [], []
    for line in table.splitlines():
        kind, name = line.split()[-2:]
        name, _, version = name.replace("@@", "@").partition("@")
        names.append(name)
        # The version itself is an absolute symbol, of itself.
        versions.append(version or (name if kind == "A" else "Base"))
    return set(zip(output_of("c++filt", text="\n".join(names)).split("\n"), versions))


def main():
    lists = listed(pathlib.Path(sys.argv[1]))
    faults = []
    for library in sys.argv[2:]:
        soname = re.search(r"\(SONAME\).*\[(.*)\]", output_of("readelf", "--dynamic", "--wide", library))[1]
        expected = lists.get(soname, {})
        actual = exported(library)
        faults += [f"{soname} exports what no list has: {name}@{version}" for name, version in actual - set(expected)]
        faults += [
            f"{soname} does not export {name}@{version}"
            for (name, version), optional in expected.items()
            if not optional and (name, version) not in actual
        ]
    print("\n".join(sorted(faults)))
    return 1 if faults else 0


sys.exit(main())
