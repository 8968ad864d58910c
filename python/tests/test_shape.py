"""The package's modules import one another in one direction: no circle,
and a small core that the others build on."""

from __future__ import annotations

import ast
from pathlib import Path

PACKAGE = Path(__file__).resolve().parent.parent / "tarn"


def _imports(path: Path) -> set[str]:
    """Modules of the package that ``path`` imports anywhere (inside
    functions too), leaving out imports made only for type checkers."""
    tree = ast.parse(path.read_text())
    skip: set[int] = set()
    for node in ast.walk(tree):
        if isinstance(node, ast.If) and "TYPE_CHECKING" in ast.dump(node.test):
            for inner in ast.walk(node):
                skip.add(id(inner))
    out: set[str] = set()
    for node in ast.walk(tree):
        if id(node) in skip or not isinstance(node, ast.ImportFrom):
            continue
        if node.level != 1:
            continue
        if node.module:
            out.add(node.module.split(".")[0])
        else:
            out.update(alias.name for alias in node.names)
    return out


def graph() -> dict[str, set[str]]:
    mods = {p.stem for p in PACKAGE.glob("*.py")}
    return {p.stem: {m for m in _imports(p) if m in mods}
            for p in PACKAGE.glob("*.py") if p.stem not in ("__init__", "__main__")}


def test_no_import_circle():
    g = graph()
    state: dict[str, int] = {}
    path: list[str] = []

    def visit(m: str) -> None:
        state[m] = 1
        path.append(m)
        for dep in sorted(g.get(m, ())):
            assert state.get(dep) != 1, " -> ".join(path + [dep])
            if dep not in state:
                visit(dep)
        path.pop()
        state[m] = 2

    for m in sorted(g):
        if m not in state:
            visit(m)


def test_the_core_imports_only_the_bottom_layer():
    assert graph()["_core"] <= {"_native", "errors"}
