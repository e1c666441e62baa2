"""The build backend of `pip install .`: CMake builds the extension module and lays out the
packages in its build tree (python/), and this module zips that folder into a wheel.

The CMake build folder persists (build/pip-<interpreter>/, or ORVO_CMAKE_BUILD_DIR), so that a
second install rebuilds only what changed.
"""
import base64
import hashlib
import os
import pathlib
import shutil
import subprocess
import sys
import sysconfig
import tomllib
import zipfile

ROOT = pathlib.Path(__file__).resolve().parents[1]
PACKAGES = ("orvo_core", "orvo_inference", "orvo_generation")


def _project():
    with open(ROOT / "pyproject.toml", "rb") as file:
        return tomllib.load(file)["project"]


def _tag():
    python = f"cp{sys.version_info.major}{sys.version_info.minor}"
    platform = sysconfig.get_platform().replace("-", "_").replace(".", "_")
    return f"{python}-{python}-{platform}"


def _build_dir():
    if os.environ.get("ORVO_CMAKE_BUILD_DIR"):
        return pathlib.Path(os.environ["ORVO_CMAKE_BUILD_DIR"]).resolve()
    # One folder per base interpreter: the cache records the interpreter it was configured for.
    interpreter = hashlib.sha256(sys.base_prefix.encode()).hexdigest()[:8]
    return ROOT / "build" / f"pip-{_tag().split('-')[0]}-{interpreter}"


def _cmake(build):
    configure = ["cmake", "-S", str(ROOT), "-B", str(build)]
    if not (build / "CMakeCache.txt").exists() and shutil.which("ninja"):
        configure += ["-G", "Ninja"]
    configure += [
        "-DCMAKE_BUILD_TYPE=Release",
        "-DORVO_BUILD_PYTHON=ON",
        "-DORVO_BUILD_TESTS=OFF",
        "-DORVO_BUILD_EXAMPLES=OFF",
        "-DORVO_BUILD_BENCHMARKS=OFF",
        f"-DPython3_EXECUTABLE={sys.executable}",
    ]
    # pip shows a backend's output only when it fails; CMake's goes to stderr with it.
    subprocess.run(configure, check=True, stdout=sys.stderr)
    subprocess.run(["cmake", "--build", str(build), "--target", "orvo_python"], check=True,
                   stdout=sys.stderr)
    return build / "python"


def _record_line(name, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(data)}"


def _metadata(project):
    return (
        "Metadata-Version: 2.1\n"
        f"Name: {project['name']}\n"
        f"Version: {project['version']}\n"
        f"Summary: {project['description']}\n"
        f"Requires-Python: {project['requires-python']}\n"
    )


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    project = _project()
    tree = _cmake(_build_dir())
    dist_info = f"{project['name']}-{project['version']}.dist-info"
    wheel_name = f"{project['name']}-{project['version']}-{_tag()}.whl"
    files = {}
    for package in PACKAGES:
        for path in sorted((tree / package).rglob("*")):
            if path.is_file() and "__pycache__" not in path.parts and path.suffix != ".pyc":
                files[path.relative_to(tree).as_posix()] = path.read_bytes()
    files[f"{dist_info}/METADATA"] = _metadata(project).encode()
    files[f"{dist_info}/WHEEL"] = (
        "Wheel-Version: 1.0\nGenerator: orvo build_backend\nRoot-Is-Purelib: false\n"
        f"Tag: {_tag()}\n"
    ).encode()
    record = [_record_line(name, data) for name, data in files.items()]
    record.append(f"{dist_info}/RECORD,,")
    files[f"{dist_info}/RECORD"] = ("\n".join(record) + "\n").encode()
    with zipfile.ZipFile(pathlib.Path(wheel_directory) / wheel_name, "w",
                         zipfile.ZIP_DEFLATED) as wheel:
        for name, data in files.items():
            wheel.writestr(name, data)
    return wheel_name


def build_sdist(sdist_directory, config_settings=None):
    raise NotImplementedError("orvo ships as source: install from a checkout with `pip install .`")
