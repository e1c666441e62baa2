#!/usr/bin/env bash
# Installs the Debian packages that orvo needs to build, test and benchmark (python3-venv for
# `pip install .` into a venv; python3-numpy, with OpenBLAS rather than the reference BLAS, for
# the binding benchmark; cmark, a CommonMark parser, for the test that renders Markdown
# references; libsqlite3-dev for the tool's index; nodejs-doc, whose Markdown API reference is
# the third-party corpus of scripts/eval-answers.sh). Idempotent and quiet when everything is
# present; runs apt-get (as root, or through sudo) only for what is missing.
set -euo pipefail

packages=(
  g++ cmake ninja-build python3 clang-14 libclang-rt-14-dev
  libboost1.81-dev libboost-json1.81-dev libtsl-ordered-map-dev libhwy-dev libssl-dev openssl
  libsqlite3-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  python3-dev pybind11-dev python3-venv python3-numpy libopenblas0-pthread cmark
  nodejs-doc
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
echo "install-deps: installing ${missing[*]}" >&2
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends \
  "${missing[@]}" >/dev/null
