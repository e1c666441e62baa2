"""The type stubs parse, cover the modules' exports, and name only what exists, with the
binding's parameter names; bound classes and functions show their public module."""
import ast
import importlib
import inspect
import pathlib
import unittest

PACKAGES = ("orvo_core", "orvo_inference", "orvo_generation")


def stubs():
    for package in PACKAGES:
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


class Stubs(unittest.TestCase):
    def test_stubs_name_only_what_exists_with_the_same_parameters(self):
        checked = 0
        for name, path in stubs():
            module = importlib.import_module(name)
            tree = ast.parse(path.read_text(encoding="utf-8"), str(path))
            defined = {target for node in tree.body for target in self.defined(node)}
            self.assertEqual(set(module.__all__) - defined, set(), name)
            for node in tree.body:
                for target in self.defined(node):
                    if not target.startswith("_"):
                        self.assertTrue(hasattr(module, target), f"{name}.{target}")
                if getattr(node, "name", "_").startswith("_"):  # private helpers of the stubs
                    continue
                if isinstance(node, ast.FunctionDef):
                    self.assertEqual(parameters(node.args),
                                     runtime_parameters(getattr(module, node.name)), node.name)
                if isinstance(node, ast.ClassDef):
                    checked += self.check_class(getattr(module, node.name), node)
        self.assertGreater(checked, 50)

    def check_class(self, cls, node):
        checked = 0
        for member in node.body:
            for target in self.defined(member):
                self.assertTrue(hasattr(cls, target), f"{cls.__qualname__}.{target}")
                checked += 1
            if isinstance(member, (ast.FunctionDef, ast.AsyncFunctionDef)):
                function = getattr(cls, member.name)
                if callable(function) and (member.name == "__init__" or "__" not in member.name):
                    self.assertEqual(parameters(member.args), runtime_parameters(function),
                                     f"{cls.__qualname__}.{member.name}")
        return checked

    @staticmethod
    def defined(node):
        if isinstance(node, (ast.ClassDef, ast.FunctionDef, ast.AsyncFunctionDef)):
            return [node.name]
        if isinstance(node, ast.AnnAssign):
            return [node.target.id]
        if isinstance(node, ast.ImportFrom):
            return [alias.asname for alias in node.names if alias.asname]
        return []

    def test_bound_objects_show_a_public_module_that_has_them(self):
        for name, _ in stubs():
            module = importlib.import_module(name)
            for export in module.__all__:
                value = getattr(module, export)
                if isinstance(value, type) or callable(value):
                    home = importlib.import_module(value.__module__)
                    self.assertIs(getattr(home, value.__name__), value, f"{name}.{export}")
                    self.assertNotIn("_native", value.__module__, f"{name}.{export}")


if __name__ == "__main__":
    unittest.main()
