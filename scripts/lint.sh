#!/usr/bin/env bash
# lint.sh: every check of the sources runs; fails when one of them found something.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
(($# == 0)) || usage_error "./run lint"

need_packages clang-format-14 clang-tidy-14 shellcheck
need_python_tool ruff

failed=()
check() {
    note "$1"
    "${@:2}" || failed+=("$1")
}

# clang-tidy has to know how each source is compiled.
tidy() { scripts/build.sh lint && "$system_python" scripts/tidy.py build/lint; }

mapfile -t cpp < <(cpp_files)
mapfile -t shell < <(shell_files)
check "clang-format" clang-format-14 --dry-run -Werror "${cpp[@]}"
check "shell scripts" shellcheck --external-sources --source-path=SCRIPTDIR "${shell[@]}"
check "Python, format" "$tools/ruff/bin/ruff" format --config scripts/ruff.toml --check .
check "Python" "$tools/ruff/bin/ruff" check --config scripts/ruff.toml .
check "clang-tidy" tidy

((${#failed[@]} == 0)) || fail "lint: $(IFS=,; echo "${failed[*]}")"
