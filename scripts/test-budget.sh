#!/usr/bin/env bash
# The test budget: C++ lines (wc -l) of the tracked files under any tests/ folder against those of
# every other tracked C++ file. Tests should be about a third of the code; above 0.40 is too much.
#   scripts/test-budget.sh           prints both counts and the ratio
#   scripts/test-budget.sh --check [LIMIT]   the same, and fails above LIMIT (0.40 by default)
set -euo pipefail
cd "$(dirname "$0")/.."

lines() {
  local total=0 file
  while IFS= read -r file; do
    total=$((total + $(wc -l < "$file")))
  done
  echo "$total"
}

sources="$(git ls-files -- '*.cpp' '*.cc' '*.cxx' '*.h' '*.hpp')"
tests="$(grep -E '(^|/)tests/' <<< "$sources" | lines)"
code="$(grep -vE '(^|/)tests/' <<< "$sources" | lines)"
ratio="$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.2f", c ? t / c : 0 }')"
echo "test budget: ${tests} test lines, ${code} other C++ lines, ratio ${ratio} (aim 0.33, at most 0.40)"
limit="${2:-0.40}"
if [ "${1:-}" = --check ] && awk -v t="$tests" -v c="$code" -v l="$limit" 'BEGIN { exit !(t > l * c) }'; then
  echo "the tests are above ${limit} of the code" >&2
  exit 1
fi
