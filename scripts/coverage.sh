#!/usr/bin/env bash
# Builds with gcov instrumentation (preset "coverage", in build/coverage), runs the tests and
# prints the line coverage of the library, hostbus and the tool, each and in total.
# A failing test is reported, the coverage still printed, and the script then exits 1.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh gcovr
build=build/coverage
cmake --preset coverage
# Counters add up across runs, the test discovery of the build's own included: only this
# run's tests are measured, and a rebuilt object meets no counters of its old self.
find "$build" -name '*.gcda' -delete
cmake --build --preset coverage
find "$build" -name '*.gcda' -delete
status=0
ctest --preset coverage || status=$?

# gcov's complaints about objects of sources that have since gone stay in the log.
summary="$build/coverage.json"
gcovr --root . --filter 'src/' --filter 'include/' --filter 'hostbus/(ubox|ubus|daemon)/' \
    --filter 'tools/' --json-summary "$summary" -j 2 "$build" >"$build/gcovr.log" 2>&1
python3 - "$summary" <<'PY'
import json, re, sys

groups = [
    ("library", "src/, include/", r"(src|include)/"),
    ("hostbus", "hostbus/ubox, hostbus/ubus, hostbus/daemon", r"hostbus/(ubox|ubus|daemon)/"),
    ("tools", "tools/", r"tools/"),
]
files = json.load(open(sys.argv[1]))["files"]
rows, covered_all, total_all = [], 0, 0
for name, dirs, pattern in groups:
    mine = [f for f in files if re.match(pattern, f["filename"])]
    covered = sum(f["line_covered"] for f in mine)
    total = sum(f["line_total"] for f in mine)
    rows.append((f"{name} ({dirs})", covered, total))
    covered_all += covered
    total_all += total
rows.append(("total", covered_all, total_all))
print("\nLine coverage")
for label, covered, total in rows:
    percent = 100.0 * covered / total if total else 0.0
    print(f"  {label:<55} {percent:5.1f}%  {covered:>5} / {total:<5} lines")
PY
exit "$status"
