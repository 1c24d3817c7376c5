#!/usr/bin/env bash
# format.sh: rewrites the C++ and the Python files in the project's format.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
(($# == 0)) || usage_error "./run format"

need_packages clang-format-14
need_python_tool ruff
mapfile -t cpp < <(cpp_files)
clang-format-14 -i "${cpp[@]}"
"$tools/ruff/bin/ruff" format --config scripts/ruff.toml .
