"""The type stubs parse, cover the modules' exports and name only what exists, with the binding's
parameter names; bound classes and functions show a public module that has them."""
import ast
import importlib
import inspect
import pathlib
import unittest


def stubs():
    for package in ("orvo_core", "orvo_inference", "orvo_generation"):
        root = pathlib.Path(importlib.import_module(package).__path__[0])
        for path in sorted(root.rglob("*.pyi")):
            parts = path.relative_to(root.parent).with_suffix("").parts
            yield ".".join(parts[:-1] if parts[-1] == "__init__" else parts), path


def parameters(args):
    """Parameter names, but `argN` for positional-only ones: the binding names unnamed
    parameters so, and they cannot be passed by keyword."""
    positional_only = {a.arg for a in args.posonlyargs}
    names = [a.arg for a in args.posonlyargs + args.args + args.kwonlyargs if a.arg != "self"]
    return [f"arg{i}" if n in positional_only else n for i, n in enumerate(names)]


def runtime_parameters(function):
    """The parameters of a Python function, or of a bound one from its docstring signature."""
    try:
        signature = f"def f{inspect.signature(function)}: ..."
    except ValueError:
        line = function.__doc__.splitlines()[0]
        signature = f"def f{line[line.index('('):line.rindex(')') + 1]}: ..."
    return parameters(ast.parse(signature).body[0].args)


def defined(node):
    if isinstance(node, (ast.ClassDef, ast.FunctionDef, ast.AsyncFunctionDef)):
        return [node.name]
    if isinstance(node, ast.AnnAssign):
        return [node.target.id]
    if isinstance(node, ast.ImportFrom):
        return [alias.asname for alias in node.names if alias.asname]
    return []


class Stubs(unittest.TestCase):
    def check(self, owner, body, where):
        """Checks the stub statements `body` against the module or class `owner`; gives the number
        of class members checked. Private helpers of a stub module need not exist."""
        checked = 0
        for node in body:
            for target in defined(node):
                if isinstance(owner, type) or not target.startswith("_"):
                    self.assertTrue(hasattr(owner, target), f"{where}.{target}")
                    checked += isinstance(owner, type)
            name = getattr(node, "name", "")
            member = getattr(owner, name, None)
            if isinstance(node, ast.ClassDef) and member is not None:
                checked += self.check(member, node.body, f"{where}.{name}")
            elif callable(member) and (name == "__init__" or "__" not in name):
                self.assertEqual(parameters(node.args), runtime_parameters(member), f"{where}.{name}")
        return checked

    def test_stubs_name_only_what_exists_with_the_same_parameters(self):
        checked = 0
        for name, path in stubs():
            module = importlib.import_module(name)
            body = ast.parse(path.read_text(encoding="utf-8"), str(path)).body
            self.assertEqual(set(module.__all__) - {t for node in body for t in defined(node)}, set(), name)
            checked += self.check(module, body, name)
            for export in module.__all__:
                value = getattr(module, export)
                if isinstance(value, type) or callable(value):
                    self.assertIs(getattr(importlib.import_module(value.__module__), value.__name__), value)
                    self.assertNotIn("_native", value.__module__, f"{name}.{export}")
        self.assertGreater(checked, 50)
