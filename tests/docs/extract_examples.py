#!/usr/bin/env python3
"""Turns the examples of public headers and the C++ blocks of documents into one source file.

Usage: extract_examples.py OUT SOURCE...

An example in a header is an indented block of a comment in which a line ends in `;`, `{` or `}` (a
comment behind it does not count); in a document it is a block fenced with ```cpp. It is the body of
a function in a program that says `using namespace capsule;`. Names that it leaves open are those of
tests/docs/example_names.h. A header that exports something has an example; others are passed over.
"""
import pathlib
import re
import sys

# An example may leave a result unused, and name a variable like one that is given.
RELAXED = "".join(f'\n#pragma GCC diagnostic ignored "-W{name}"' for name in
                  ("conversion", "sign-conversion", "shadow", "unused-variable",
                   "unused-but-set-variable", "unused-local-typedefs"))
TAKERS = re.compile(r"\b(Use|Show|Print)\(")


def ends_like_code(line):
    return re.sub(r"\s*//.*", "", line).rstrip().endswith((";", "{", "}"))


def header_blocks(text):
    """(line number, lines) of each indented block in the comments of a header."""
    block, start = [], 0
    for number, line in enumerate(text.splitlines() + [""], 1):
        comment = re.fullmatch(r"\s*//(.*)", line)
        content = comment.group(1) if comment else ""
        if content.startswith("   ") or (comment and block and not content.strip()):
            start = start if block else number
            block.append(content)
        elif block:
            if any(ends_like_code(line) for line in block):
                yield start, block
            block = []


def document_blocks(text):
    for match in re.finditer(r"^```cpp\n(.*?)^```$", text, re.M | re.S):
        yield text[: match.start()].count("\n") + 2, match.group(1).splitlines()


def examples(path):
    text = path.read_text()
    if path.suffix != ".h":
        return list(document_blocks(text))
    exports = re.search(r"^(class )?CAPSULE_API", text, re.M)
    found = list(header_blocks(text)) if exports else []
    if exports and not found:
        sys.exit(f"{path}: exports something and shows no example of its use")
    return found


def main():
    out, *sources = [pathlib.Path(argument) for argument in sys.argv[1:]]
    includes, bodies, table = [], [], []
    for source in sources:
        if source.suffix == ".h":
            includes.append(f'#include "{source.resolve()}"')
        for line, block in examples(source):
            includes += [text for text in block if text.startswith("#include")]
            code = [re.sub(r"^#include.*", "", text) for text in block]
            name = f"Example{len(table)}"
            shows = str(bool(TAKERS.search("\n".join(code)))).lower()
            table.append(f'    {{"{source.name}:{line}", {shows}, '
                         f"[] {{ return {name}().Run(); }}}},")
            bodies.append(f'struct {name} : Names {{\n  bool Run() {{\n#line {line} "{source}"\n'
                          + "\n".join(code) + "\n    return true;\n  }\n};\n")
    out.write_text("\n".join(dict.fromkeys(includes)) + RELAXED + '\n#include "tests/docs/example_names.h"\n\n'
                   "using namespace capsule;\n\n" + "\n".join(bodies)
                   + "\nconst std::vector<Example> kExamples = {\n" + "\n".join(table) + "\n};\n")


main()
