#!/usr/bin/env bash
# docs.sh: makes the page of all public names, docs/api.md, from the docstrings and the stubs.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
(($# == 0)) || usage_error "./run docs"

exec "$system_python" scripts/api.py
