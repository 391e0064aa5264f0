#!/usr/bin/env python3
"""Headers of the tree may not include each other in a circle. Prints each circle; status 1 when there is one."""
import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def headers(root):
    for top in ("include", "src", "lib", "tools", "tests"):
        yield from (root / top).rglob("*.h")


def resolve(root, header, name):
    for base in (header.parent, root / "include", root / "src", root / "lib", root / "tools", root):
        path = (base / name).resolve()
        if path.is_file():
            return path
    return None


def graph(root):
    edges = {}
    for header in headers(root):
        found = (resolve(root, header, name) for name in INCLUDE.findall(header.read_text()))
        edges[header.resolve()] = [path for path in found if path and path.suffix == ".h"]
    return edges


def circles(edges):
    done, path = set(), []

    def walk(node):
        if node in path:
            yield path[path.index(node):] + [node]
            return
        if node in done:
            return
        path.append(node)
        for other in edges.get(node, []):
            yield from walk(other)
        path.pop()
        done.add(node)

    for start in sorted(edges):
        yield from walk(start)


def main(root):
    root = pathlib.Path(root).resolve()
    edges = graph(root)
    found = list(circles(edges))
    for circle in found:
        print("circle: " + " -> ".join(str(path.relative_to(root)) for path in circle))
    print(f"{len(edges)} headers, {len(found)} circles")
    return 1 if found or not edges else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "."))
