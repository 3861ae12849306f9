#!/usr/bin/env python3
"""Checks the order of floors and rooms from the include lines, and that a host gets exactly the faces.

    check_includes.py ROOT --order  prints what stands against the order; exit status 1 if anything does
    check_includes.py ROOT --try    puts lines against the order into a copy and sees that each is found

A file may include what its own line of ORDER names and the lines above it.
"""
import os
import re
import shutil
import sys
import tempfile

# From the ground up. A name that ends in '/' is a folder, rooms below it not included; any other is a
# header with its source. The three folders of the class interface know each other by nature.
ORDER = [
    ['capsule/export', 'capsule/platform/', 'capsule/platform/posix/'],
    ['capsule/runtime/'],
    ['capsule/compression/'],
    ['capsule/state/'],
    ['capsule/blocks/', 'capsule/partition/', 'capsule/container/', 'capsule/capsule'],
    ['capsule/host/error', 'capsule/host/message_text',
     'capsule/host/clean_ending',
     'capsule/host/entry', 'capsule/host/image_problem', 'capsule/host/damaged_file',
     'capsule/host/map_item', 'capsule/host/extract_options', 'capsule/host/impl_pointer',
     'capsule/host/progress'],
    ['capsule/host/parallel/'],
    ['capsule/host/file/', 'capsule/host/byte_source', 'capsule/host/build_item'],
    ['capsule/host/parallel/'],
    ['capsule/host/records/'],
    ['capsule/host/index/'],
    ['capsule/host/sections/'],
    ['capsule/host/salvage/'],
    ['capsule/host/tree/'],
    ['capsule/host/image', 'capsule/host/file_reader'],
    ['capsule/host/map/', 'capsule/host/image_map'],
    ['capsule/host/verify/', 'capsule/host/verifier'],
    ['capsule/host/indexing/', 'capsule/host/index_writer'],
    ['capsule/host/build/', 'capsule/host/image_builder'],
    ['capsule/host/extract/', 'capsule/host/extractor'],
    ['cli/'],
]
# The command stands on the faces alone.
COMMAND_MAY_SEE = ['capsule/host/', 'capsule/export', 'cli/']
INCLUDE = re.compile(r'^\s*#\s*include\s+["<]((?:capsule|cli)/[^">]+)[">]')


def sources(root):
    for top in ('capsule', 'cli'):
        for folder, _, names in os.walk(os.path.join(root, top)):
            for name in sorted(names):
                if name.endswith(('.h', '.cpp')):
                    yield os.path.relpath(os.path.join(folder, name), root)


def level(path):
    stem = os.path.splitext(path)[0]
    for number, line in enumerate(ORDER):
        if stem in line:
            return number
    for number, line in enumerate(ORDER):
        if os.path.dirname(path) + '/' in line:
            return number
    return None


def includes(root, path):
    with open(os.path.join(root, path), encoding='utf-8') as text:
        for number, line in enumerate(text, 1):
            found = INCLUDE.match(line)
            if found:
                yield number, found.group(1)
            elif re.match(r'^\s*#\s*include\s+"', line):
                yield number, line.split('"')[1]  # by another path than from the root


def find_circles(graph):
    """Each way of headers that leads back to itself, told once."""
    state, circles = {}, []
    for start in graph:
        path = [(start, iter(graph[start]))] if start not in state else []
        state.setdefault(start, 'open')
        while path:
            node, rest = path[-1]
            following = next(rest, None)
            if following is None:
                state[node] = 'done'
                path.pop()
            elif state.get(following) == 'open':
                names = [name for name, _ in path]
                circles.append(' -> '.join(names[names.index(following):] + [following]))
            elif following in graph and following not in state:
                state[following] = 'open'
                path.append((following, iter(graph[following])))
    return circles


def check(root):
    faults, graph = [], {}
    for path in sources(root):
        own = level(path)
        if own is None:
            faults.append(f'{path}: stands in no floor and no room')
            continue
        graph[path] = []
        for number, target in includes(root, path):
            graph[path].append(target)
            other = level(target)
            if other is None or not os.path.exists(os.path.join(root, target)):
                faults.append(f'{path}:{number}: {target} is nowhere')
            elif other > own:
                faults.append(f'{path}:{number}: {target} lies above')
            elif path.startswith('cli/') and not any(
                    target == f'{see}.h' or os.path.dirname(target) + '/' == see for see in COMMAND_MAY_SEE):
                faults.append(f'{path}:{number}: {target} is no face')
    faults += [f'a circle: {circle}' for circle in find_circles(graph)]
    return faults + check_faces(root)


def check_faces(root):
    """What is installed of host/ are the headers that lie directly in it."""
    with open(os.path.join(root, 'capsule/CMakeLists.txt'), encoding='utf-8') as text:
        installed = set(re.findall(r'^\s+(capsule/\S+\.h)$', text.read(), re.MULTILINE))
    faces = {f'capsule/host/{name}' for name in os.listdir(os.path.join(root, 'capsule/host'))
             if name.endswith('.h')}
    of_host = {header for header in installed if header.startswith('capsule/host/')}
    faults = [f'{header}: a face that is not installed' for header in sorted(faces - of_host)]
    faults += [f'{header}: installed, and no face' for header in sorted(of_host - faces)]
    for header in sorted(installed):
        faults += [f'{header}:{number}: {target} is not installed'
                   for number, target in includes(root, header) if target not in installed]
    return faults


def try_faults(root):
    """Lines against the order, each put into a copy of the sources, must be found."""
    lines = [('capsule/platform/file.h', '#include "capsule/runtime/cps_list.h"'),
             ('capsule/host/records/record_stream.cpp', '#include "capsule/host/index/restart_point.h"'),
             ('capsule/host/error.h', '#include "capsule/host/image.h"'),
             ('capsule/host/image.h', '#include "capsule/host/tree/catalog.h"'),
             ('capsule/partition/directory_entry.h', '#include "capsule/blocks/file_block.h"'),
             ('capsule/host/error.cpp', '#include "image.h"'),
             ('cli/list.cpp', '#include "capsule/container/header_format.h"')]
    missed = []
    for path, line in lines:
        with tempfile.TemporaryDirectory() as copy:
            for top in ('capsule', 'cli'):
                shutil.copytree(os.path.join(root, top), os.path.join(copy, top))
            before = len(check(copy))
            with open(os.path.join(copy, path), 'a', encoding='utf-8') as text:
                text.write(line + '\n')
            if len(check(copy)) <= before:
                missed.append(f'{path}: `{line}` was not found')
    return missed


def main():
    faults = try_faults(sys.argv[1]) if '--try' in sys.argv else check(sys.argv[1])
    for fault in faults:
        print(fault)
    print(f'{len(faults)} faults')
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
