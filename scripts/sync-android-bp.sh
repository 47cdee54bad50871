#!/usr/bin/env bash
# Rewrites the library source list of device/Android.bp from the CMake lists
# (target_sources(qmed PRIVATE ...) of each daemon folder). Run after adding or
# removing a daemon source; tests/device fails until the two agree.
set -euo pipefail
cd "$(dirname "$0")/.."
files=()
for d in daemon listener msghub freezer limiter proc sockdiag; do
  while read -r f; do files+=("$d/$f"); done < <(
    sed -n '/target_sources(qmed/,/)/p' "$d/CMakeLists.txt" | sed 's/#.*//' |
      grep -oE '[A-Za-z0-9_./]+\.cpp' || true)
done
python3 - device/Android.bp "${files[@]}" <<'PY'
import re, sys
path, files = sys.argv[1], sys.argv[2:]
text = open(path).read()
body = "".join('        "%s",\n' % f for f in files)
text, n = re.subn(r'(        // qmed-srcs-begin\n).*?(        // qmed-srcs-end)',
                  lambda m: m.group(1) + body + m.group(2), text, flags=re.S)
if n != 1:
    sys.exit("qmed-srcs markers not found in " + path)
open(path, "w").write(text)
PY
