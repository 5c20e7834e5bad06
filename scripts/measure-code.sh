#!/usr/bin/env bash
# Prints, per source directory (src, tools, tests, bench), its lines of code, its ten longest
# functions with their lengths, and how many functions are longer than the limit.
# Function extents come from universal-ctags (its "end" field); a lambda is counted inside
# the function that holds it, not on its own.
# Lines of code: lines that are neither blank nor only a comment.
# Usage: bash scripts/measure-code.sh [--root DIR] [--limit N] [--top N] [DIR...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
limit=100
top=10
dirs=()
while (($#)); do
  case $1 in
    --root) root=$2; shift 2 ;;
    --limit) limit=$2; shift 2 ;;
    --top) top=$2; shift 2 ;;
    -h|--help) sed -n '2,7p' "$0"; exit 0 ;;
    *) dirs+=("$1"); shift ;;
  esac
done
((${#dirs[@]})) || dirs=(src tools tests bench)
command -v ctags >/dev/null || { echo "measure-code: universal-ctags is missing (scripts/install-deps.sh)" >&2; exit 2; }

report=$(cat <<'EOF'
import json, re, sys
directory, limit, top, files = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4:]

def code_lines(path):
    count, in_block = 0, False
    for line in open(path, encoding="utf-8", errors="replace"):
        s = line.strip()
        if in_block:
            if "*/" in s:
                in_block = False
                s = s.split("*/", 1)[1].strip()
            else:
                continue
        if not s or s.startswith("//"):
            continue
        if s.startswith("/*"):
            if "*/" not in s:
                in_block = True
                continue
            if not s.split("*/", 1)[1].strip():
                continue
        count += 1
    return count

functions = []
for line in sys.stdin:
    tag = json.loads(line)
    if tag.get("kind") != "function" or "end" not in tag:
        continue
    if tag["name"].startswith("__anon"):          # a lambda: part of its function
        continue
    scope = re.sub(r"__anon\w+(::)?", "", tag.get("scope", "")).strip(":")   # unnamed namespaces
    name = (scope + "::" if scope else "") + tag["name"]
    functions.append((tag["end"] - tag["line"] + 1, name, tag["path"], tag["line"]))

functions.sort(key=lambda f: (-f[0], f[2], f[3]))
print(f"== {directory}: {sum(code_lines(f) for f in files)} lines of code in {len(files)} files, "
      f"{len(functions)} functions, {sum(1 for f in functions if f[0] > limit)} longer than {limit} lines")
for length, name, path, line in functions[:top]:
    print(f"  {length:5d}  {name}  ({path}:{line})")
EOF
)

cd "$root"
for d in "${dirs[@]}"; do
  [[ -d $d ]] || { echo "measure-code: no directory $d" >&2; exit 2; }
  mapfile -t files < <(find "$d" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.hpp' -o -name '*.cc' \) | sort)
  ctags --languages=C++ --language-force=C++ --kinds-C++=f --fields=+ne --output-format=json \
    -o - "${files[@]}" 2>/dev/null |
    python3 -c "$report" "$d" "$limit" "$top" "${files[@]}"
done
