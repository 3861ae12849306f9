#!/usr/bin/env python3
"""Holds the shared library, capsule/exports.map and the public headers against each other.

Usage: exported_names.py [--write] MAP [LIBRARY] HEADER...

What a header offers: the functions marked CAPSULE_API, and of the classes marked so the public and
protected operations and static members that are not defined in the header. The map must name exactly these, the
library export exactly these. A header declares nothing else that is defined elsewhere: a host could
not link it. --write writes the map anew.
"""
import pathlib
import re
import subprocess
import sys

NAME_END = "[!_a-zA-Z0-9]*"
OPERATION = re.compile(r"(operator\W+|operator char ?\*|~?\w+)\(")
DATA = re.compile(r"static (?!constexpr)[^(=]* (\w+)$")


def statements(text):
    """(text, end) of what ends in `;`, `{`, `}` or the colon of a label."""
    text = re.sub(r"//.*|^#.*|= \{\}", "", text, flags=re.M)
    start = 0
    for match in re.finditer(r"[;{}]|(?<=\w):(?=\s)", text):
        yield " ".join(text[start : match.start()].split()), match.group()
        start = match.end()


def offered(path):
    """Qualified names that the header offers, its exported classes, and what a host cannot link."""
    names, classes, unlinkable, scopes = set(), set(), set(), []
    for text, end in statements(path.read_text()):
        if end == ":" and text in ("public", "protected", "private"):
            scopes[-1]["open"] = text != "private"
            continue
        scope = scopes[-1] if scopes else {"name": "", "kind": "namespace"}
        if end == "}":
            scopes.pop()
        elif end == "{":
            head = re.match(r"(namespace|class|struct|union|enum)\b(?: CAPSULE_API)? ?([\w:]*)", text)
            kind, name = head.groups() if head else ("body", "")
            exported = kind == "class" and "CAPSULE_API" in text
            full = f"{scope['name']}::{name}".strip(":")
            scopes.append({"name": full, "kind": kind, "open": kind == "struct", "exported": exported})
            if exported:
                classes.add(full)
        else:
            plain = re.sub(r"__attribute__\(\(.*\)\)|std::function<.*>", "", text)
            function = OPERATION.search(plain) or DATA.search(plain)
            deleted = re.search(r"= (0|default|delete)$", text)
            friend = text.startswith(("friend", "using", "typedef", "static_assert"))
            is_open = scope["exported"] and scope["open"] if scope["kind"] == "class" else (
                scope["kind"] == "namespace" and "CAPSULE_API" in text)
            if function and is_open and not deleted and not friend:
                names.add(f"{scope['name']}::{function.group(1)}".strip())
            elif function and not deleted and not friend and "inline" not in text and (
                    scope["kind"] == "namespace" or scope.get("open") and not scope["exported"]):
                unlinkable.add(f"{path}: {scope['name']}::{function.group(1)} has no definition to link")
    return names, classes, unlinkable


def pattern(name):
    scope, _, last = name.rpartition("::")
    if last.startswith("operator"):
        return f"{scope}::operator*"
    return f"{scope}::{last.replace('~', '?')}{NAME_END}"


def map_text(names, classes):
    lines = sorted({pattern(name) for name in names} | {f"*?for?{name}" for name in classes})
    return ("# What the shared library exports, as the public headers offer it. The target write_exports\n"
            "# writes this file.\n"
            "CAPSULE_0 {\n  global:\n    extern \"C++\" {\n"
            + "".join(f"      {line};\n" for line in lines) + "    };\n  local:\n    *;\n};\n")


def exported(library):
    """Names that the library exports, without parameters."""
    lines = subprocess.run(["nm", "-DC", "--defined-only", library], check=True,
                           capture_output=True, text=True).stdout.splitlines()
    symbols = {line.split(" ", 2)[2].split("@")[0] for line in lines}
    symbols.discard("CAPSULE_0")
    return {re.sub(r"\[abi:\w+\]|(?<!operator)\(.*", "", symbol) for symbol in symbols}


def without_tables(symbols, classes):
    tables = {f"{what} for {name}" for name in classes
              for what in ("typeinfo", "typeinfo name", "vtable")}
    return symbols - tables


def main():
    arguments = sys.argv[1:]
    write = "--write" in arguments
    map_path, *rest = [pathlib.Path(argument) for argument in arguments if argument != "--write"]
    headers = [path for path in rest if path.suffix == ".h"]
    offers = [offered(path) for path in headers]
    names = set().union(*(offer[0] for offer in offers))
    classes = set().union(*(offer[1] for offer in offers))
    if write:
        map_path.write_text(map_text(names, classes))
        return
    faults = sorted(set().union(*(offer[2] for offer in offers)))
    if map_path.read_text() != map_text(names, classes):
        faults.append(f"{map_path} is not what the headers offer: build the target write_exports")
    for library in [path for path in rest if path.suffix != ".h"]:
        found = without_tables(exported(library), classes)
        faults += [f"not exported: {name}" for name in sorted(names - found)]
        faults += [f"exported, though no header offers it: {name}" for name in sorted(found - names)]
    if len(names) < 100:
        faults.append(f"only {len(names)} operations found in the headers")
    sys.exit("\n".join(faults) or None)


main()
