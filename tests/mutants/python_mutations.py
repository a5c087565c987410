"""The mutations of a Python source, found in its syntax tree.

Left alone are strings with what is computed in them, annotations, decorators, and the guard around `main`.
"""

import ast
import copy

from mutation import Mutation, shown

COMPARED = {
    ast.Lt: ast.LtE,
    ast.LtE: ast.Lt,
    ast.Gt: ast.GtE,
    ast.GtE: ast.Gt,
    ast.Eq: ast.NotEq,
    ast.NotEq: ast.Eq,
    ast.Is: ast.IsNot,
    ast.IsNot: ast.Is,
    ast.In: ast.NotIn,
    ast.NotIn: ast.In,
}
COMPUTED = {
    ast.Add: ast.Sub,
    ast.Sub: ast.Add,
    ast.Mult: ast.FloorDiv,
    ast.FloorDiv: ast.Mult,
    ast.Mod: ast.Mult,
    ast.BitAnd: ast.BitOr,
    ast.BitOr: ast.BitAnd,
    ast.LShift: ast.RShift,
    ast.RShift: ast.LShift,
}
LOGICAL = {ast.And: ast.Or, ast.Or: ast.And}
DROPPED = (ast.Expr, ast.Assign, ast.AugAssign, ast.Raise, ast.Break, ast.Continue, ast.Delete)
SPARED_FIELDS = {"annotation", "returns", "decorator_list", "bases"}


class PythonSource:
    """PythonSource finds the mutations of one source."""

    def __init__(self, path, data):
        self._path = path
        self._data = data
        self._line_starts = [0]
        for line in data.splitlines(keepends=True):
            self._line_starts.append(self._line_starts[-1] + len(line))

    def mutations(self):
        yield from self._below(ast.parse(self._data))

    def _below(self, node):
        for field, value in ast.iter_fields(node):
            if field in SPARED_FIELDS:
                continue
            for child in value if isinstance(value, list) else [value]:
                if isinstance(child, ast.AST) and not is_spared(child):
                    yield from self._of_node(child, node)
                    yield from self._below(child)

    def _of_node(self, node, parent):
        for changed in changes(node):
            yield self._replaced(node, ast.unparse(changed), "to")
        if isinstance(node, (ast.If, ast.While, ast.IfExp)):
            yield self._replaced(node.test, f"(not ({ast.unparse(node.test)}))", "to")
        if isinstance(node, DROPPED) and isinstance(
            parent, (ast.FunctionDef, ast.If, ast.For, ast.While, ast.With, ast.Try)
        ):
            yield self._replaced(node, "pass", "to")

    def _place(self, line, column):
        return self._line_starts[line - 1] + column

    def _replaced(self, node, text, word):
        start = self._place(node.lineno, node.col_offset)
        end = self._place(node.end_lineno, node.end_col_offset)
        before = self._data[start:end].decode()
        return Mutation(self._path, node.lineno, start, end, text, f"{shown(before)} {word} {shown(text)}")


def is_spared(node):
    if isinstance(node, ast.JoinedStr):
        return True
    if isinstance(node, ast.Expr) and isinstance(node.value, ast.Constant):
        return True  # a description
    return isinstance(node, ast.If) and "__name__" in ast.unparse(node.test)


def changes(node):
    """Returns the changed forms of this node alone."""
    if isinstance(node, ast.Compare):
        return [with_operator(node, place, kind) for place, kind in enumerate(map(type, node.ops)) if kind in COMPARED]
    if isinstance(node, (ast.BinOp, ast.AugAssign)) and type(node.op) in COMPUTED:
        return [] if is_text(node) else [with_fields(node, op=COMPUTED[type(node.op)]())]
    if isinstance(node, ast.BoolOp):
        return [with_fields(node, op=LOGICAL[type(node.op)]())]
    if isinstance(node, ast.UnaryOp) and isinstance(node.op, ast.Not):
        return [node.operand]
    if isinstance(node, ast.Constant) and isinstance(node.value, bool):
        return [ast.Constant(not node.value)]
    if isinstance(node, ast.Constant) and isinstance(node.value, int):
        return [ast.Constant(node.value + 1)]
    if isinstance(node, ast.Return) and node.value and ast.unparse(node.value) != "None":
        return [ast.Return(ast.Constant(None))]
    return []


def with_fields(node, **fields):
    changed = copy.copy(node)
    for name, value in fields.items():
        setattr(changed, name, value)
    return changed


def with_operator(node, place, kind):
    operators = list(node.ops)
    operators[place] = COMPARED[kind]()
    return with_fields(node, ops=operators)


def is_text(node):
    """Whether an operand is a string, of which nothing else can be computed."""
    operands = [getattr(node, name, None) for name in ("left", "right", "value")]
    return any(
        isinstance(operand, ast.JoinedStr)
        or (isinstance(operand, ast.Constant) and isinstance(operand.value, (str, bytes)))
        for operand in operands
    )


def python_mutations(path, data):
    """Returns the mutations of the source with these bytes, in its order."""
    return list(PythonSource(path, data).mutations())
