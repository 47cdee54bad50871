#!/usr/bin/env bash
# Rewrites the source lists of device/Android.bp from the CMake lists: the library
# from target_sources(qmed PRIVATE ...) of each daemon folder, the binary from
# add_executable(ykqmed ...). Run after adding or removing a daemon source;
# tests/device fails until the two agree.
set -euo pipefail
cd "$(dirname "$0")/.."
sources() {  # sources PATTERN: .cpp files of every "PATTERN ... )" call
  for d in daemon listener msghub freezer limiter proc sockdiag; do
    sed 's/#.*//' "$d/CMakeLists.txt" | sed -n "/$1/,/)/p" |
      grep -oE '[A-Za-z0-9_./]+\.cpp' | sed "s|^|$d/|" || true
  done
}
python3 - device/Android.bp "$(sources 'target_sources(qmed')" "$(sources 'add_executable(ykqmed')" <<'PY'
import re, sys
path, lib, binary = sys.argv[1], sys.argv[2].split(), sys.argv[3].split()
text = open(path).read()
for tag, files in (("qmed-srcs", lib), ("ykqmed-srcs", binary)):
    body = "".join('        "%s",\n' % f for f in files)
    text, n = re.subn(r'(        // %s-begin\n).*?(        // %s-end)' % (tag, tag),
                      lambda m: m.group(1) + body + m.group(2), text, flags=re.S)
    if n != 1:
        sys.exit(tag + " markers not found in " + path)
open(path, "w").write(text)
PY
